// req_time_sync: field tables of its messages for the pbtools walker, and the message operations
// declared in req_time_sync.h.
#include "req_time_sync.h"

// ---- req_time_sync --------------------------------------------------------------------

namespace
{

constexpr pbtools_field_desc req_time_sync_fields[] = {
    PBTOOLS_FIELD(req_time_sync_t, server_time, 1, nullptr),
};
constexpr pbtools_message_desc req_time_sync_desc =
    pbtools_message_desc_make(sizeof(req_time_sync_t), req_time_sync_fields);
static_assert(pbtools_desc_is_valid(req_time_sync_desc));

} // namespace

req_time_sync_t *req_time_sync_new(void *workspace_p, size_t size)
{
    return static_cast<req_time_sync_t *>(pbtools_message_new(workspace_p, size, &req_time_sync_desc));
}

int req_time_sync_encode(const req_time_sync_t *self_p, uint8_t *encoded_p, size_t size)
{
    return pbtools_message_encode_compiled<req_time_sync_desc>(self_p, encoded_p, size);
}

int req_time_sync_decode(req_time_sync_t *self_p, const uint8_t *encoded_p, size_t size)
{
    return pbtools_message_decode(self_p, encoded_p, size, &req_time_sync_desc);
}
