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
#include <vector>

namespace
{

// Bodies beyond the largest packet are not tried. Decoded records take at most about 24 times
// their body, so 2 MiB holds any of them; re-encoding can grow a body (an int32 sent in 5 bytes
// is written in 10), but never 4 times.
constexpr size_t k_max_body = 65536;
constexpr size_t k_workspace_size = 2 << 20;

using check_fn = void (*)(const uint8_t *, size_t);

// Shared by all messages; 8-byte words keep the workspaces aligned.
std::vector<uint64_t> first_ws(k_workspace_size / 8), second_ws(k_workspace_size / 8);
std::vector<uint8_t> first_bytes(4 * k_max_body + 64), second_bytes(4 * k_max_body + 64);

template <typename T> using new_fn = T *(*)(void *, size_t);
template <typename T> using encode_fn = int (*)(const T *, uint8_t *, size_t);
template <typename T> using decode_fn = int (*)(T *, const uint8_t *, size_t);

// Decoding into a fixed workspace: a negative result is a normal answer to bad input, but a
// positive one must be the whole body.
template <typename T, new_fn<T> New, decode_fn<T> Decode>
T *decode(void *workspace_p, const uint8_t *data, size_t size)
{
    T *record_p = New(workspace_p, k_workspace_size);
    if (record_p == nullptr) {
        abort();
    }
    int result = Decode(record_p, data, size);
    if (result >= 0 && static_cast<size_t>(result) != size) {
        abort();
    }
    return result < 0 ? nullptr : record_p;
}

template <typename T, new_fn<T> New, encode_fn<T> Encode, decode_fn<T> Decode>
void round_trip(const uint8_t *data, size_t size)
{
    T *first_p = decode<T, New, Decode>(first_ws.data(), data, size);
    if (first_p == nullptr) {
        return;
    }
    int first_size = Encode(first_p, first_bytes.data(), first_bytes.size());
    if (first_size < 0) {
        abort();
    }
    T *second_p =
        decode<T, New, Decode>(second_ws.data(), first_bytes.data(), static_cast<size_t>(first_size));
    if (second_p == nullptr) {
        abort();
    }
    int second_size = Encode(second_p, second_bytes.data(), second_bytes.size());
    if (second_size != first_size ||
        memcmp(first_bytes.data(), second_bytes.data(), static_cast<size_t>(first_size)) != 0) {
        abort();
    }
}

#define MESSAGE(name) round_trip<name##_t, name##_new, name##_encode, name##_decode>

constexpr check_fn k_messages[] = {
    MESSAGE(req_time_sync),
    MESSAGE(res_time_sync_message),
    MESSAGE(res_timezone_offset_message),
    MESSAGE(common_ip_info),
    MESSAGE(common_mac_info),
    MESSAGE(common_req_agent_info_message),
    MESSAGE(common_res_agent_info_message),
    MESSAGE(common_req_agent_config_message),
    MESSAGE(common_res_agent_config_message),
    MESSAGE(file_info),
    MESSAGE(req_command_message),
    MESSAGE(res_command_message),
    MESSAGE(target_agent_info),
    MESSAGE(target_agent_info_message),
    MESSAGE(req_file_chunk_message),
};
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
