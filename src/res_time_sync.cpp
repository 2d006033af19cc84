// res_time_sync: field tables of its messages for the pbtools walker, and the message operations
// declared in res_time_sync.h.
#include "res_time_sync.h"

// ---- res_time_sync_message ------------------------------------------------------------

namespace
{

constexpr pbtools_field_desc res_time_sync_message_fields[] = {
    PBTOOLS_FIELD(res_time_sync_message_t, agent_time, 1, nullptr),
    PBTOOLS_FIELD(res_time_sync_message_t, dg_time, 2, nullptr),
};
constexpr pbtools_message_desc res_time_sync_message_desc =
    pbtools_message_desc_make(sizeof(res_time_sync_message_t), res_time_sync_message_fields);
static_assert(pbtools_desc_is_valid(res_time_sync_message_desc));

} // namespace

res_time_sync_message_t *res_time_sync_message_new(void *workspace_p, size_t size)
{
    return static_cast<res_time_sync_message_t *>(
        pbtools_message_new(workspace_p, size, &res_time_sync_message_desc));
}

int res_time_sync_message_encode(const res_time_sync_message_t *self_p, uint8_t *encoded_p, size_t size)
{
    return pbtools_message_encode_compiled<res_time_sync_message_desc>(self_p, encoded_p, size);
}

int res_time_sync_message_decode(res_time_sync_message_t *self_p, const uint8_t *encoded_p, size_t size)
{
    return pbtools_message_decode(self_p, encoded_p, size, &res_time_sync_message_desc);
}
