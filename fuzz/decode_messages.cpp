// libFuzzer target for the fifteen DG message decoders. The first input byte picks the decoder,
// the rest is the body. A body that decodes is encoded again, and that encoding must decode
// and re-encode to the very same bytes: the codec is stable on anything it accepts.
#include "command.h"
#include "common_agent_info.h"
#include "req_time_sync.h"
#include "res_time_sync.h"
#include "res_timezone_offset.h"

#include <cstdlib>
#include <cstring>
#include <iterator>

namespace
{

// Bodies beyond the largest packet are not tried. A decoded record takes at most about 24
// times its body; re-encoding can grow a body (an int32 in 5 bytes is written in 10), not 4 times.
constexpr size_t k_max_body = 65536;
constexpr size_t k_workspace_size = 2 << 20;

// Shared by all messages, one of each per pass.
alignas(8) uint8_t workspaces[2][k_workspace_size];
uint8_t encodings[2][4 * k_max_body + 64];

// Pass 0 decodes the input, pass 1 the first re-encoding. A negative decode result is a normal
// answer to bad input in pass 0 only; a positive one must always be the whole body.
template <typename T, T *(*New)(void *, size_t), int (*Encode)(const T *, uint8_t *, size_t),
          int (*Decode)(T *, const uint8_t *, size_t)>
void round_trip(const uint8_t *data, size_t size)
{
    int sizes[2];
    for (int pass = 0; pass < 2; pass++) {
        T *record_p = New(workspaces[pass], k_workspace_size);
        if (record_p == nullptr)
            abort();
        int result = Decode(record_p, data, size);
        if (result < 0 && pass == 0)
            return;
        if (result < 0 || static_cast<size_t>(result) != size)
            abort();
        sizes[pass] = Encode(record_p, encodings[pass], sizeof(encodings[pass]));
        if (sizes[pass] < 0)
            abort();
        data = encodings[pass];
        size = static_cast<size_t>(sizes[pass]);
    }
    if (sizes[1] != sizes[0] || memcmp(encodings[0], encodings[1], size) != 0)
        abort();
}

#define MESSAGE(name) round_trip<name##_t, name##_new, name##_encode, name##_decode>

using check_fn = void (*)(const uint8_t *, size_t);
// clang-format off
constexpr check_fn k_messages[] = {
    MESSAGE(req_time_sync), MESSAGE(res_time_sync_message), MESSAGE(res_timezone_offset_message),
    MESSAGE(common_ip_info), MESSAGE(common_mac_info), MESSAGE(common_req_agent_info_message),
    MESSAGE(common_res_agent_info_message), MESSAGE(common_req_agent_config_message),
    MESSAGE(common_res_agent_config_message), MESSAGE(file_info), MESSAGE(req_command_message),
    MESSAGE(res_command_message), MESSAGE(target_agent_info), MESSAGE(target_agent_info_message),
    MESSAGE(req_file_chunk_message)};
// clang-format on
static_assert(std::size(k_messages) == 15);

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0 || size - 1 > k_max_body) {
        return 0;
    }
    k_messages[data[0] % std::size(k_messages)](data + 1, size - 1);
    return 0;
}
