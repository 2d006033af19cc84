// Fuzz target for get_nio_packet, the static NIO reader, fed through a socketpair and checked
// against the stream model of nio_stream_model.h.
#include "nio_stream_model.h"

#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // Exactly header + capacity bytes, so ASan sees any write past the documented size.
    std::unique_ptr<char[]> buffer(new char[VK_NIO_MAIN_HEADER_LEN + VK_NIO_PACKET_CAPACITY]);
    run_stream(false, data, size, [&](int sock, const char **packet_pp) {
        *packet_pp = buffer.get();
        return get_nio_packet(sock, buffer.get(), VK_NIO_PACKET_CAPACITY);
    });
    return 0;
}
