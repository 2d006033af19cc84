// Fuzz target for get_nio_packet_dynamic, the allocating NIO reader, fed through a socketpair
// and checked against the stream model of nio_stream_model.h.
#include "nio_stream_model.h"

#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::unique_ptr<char, decltype(&std::free)> owned(nullptr, &std::free);
    run_stream(true, data, size, [&](int sock, const char **packet_pp) {
        char *packet = nullptr;
        const int rc = get_nio_packet_dynamic(sock, &packet, VK_NIO_PACKET_CAPACITY);
        owned.reset(packet);
        FUZZ_CHECK((rc > 0) == (packet != nullptr)); // failures hand nothing over
        *packet_pp = packet;
        return rc;
    });
    return 0;
}
