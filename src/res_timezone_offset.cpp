// res_timezone_offset: field tables of its messages for the pbtools walker, and the message operations
// declared in res_timezone_offset.h.
#include "res_timezone_offset.h"

// ---- res_timezone_offset_message ------------------------------------------------------

namespace
{

constexpr pbtools_field_desc res_timezone_offset_message_fields[] = {
    PBTOOLS_FIELD(res_timezone_offset_message_t, offset_kind, 1, nullptr),
    PBTOOLS_FIELD(res_timezone_offset_message_t, current_time, 2, nullptr),
    PBTOOLS_FIELD(res_timezone_offset_message_t, offset, 3, nullptr),
};
constexpr pbtools_message_desc res_timezone_offset_message_desc =
    pbtools_message_desc_make(sizeof(res_timezone_offset_message_t), res_timezone_offset_message_fields);
static_assert(pbtools_desc_is_valid(res_timezone_offset_message_desc));

} // namespace

res_timezone_offset_message_t *res_timezone_offset_message_new(void *workspace_p, size_t size)
{
    return static_cast<res_timezone_offset_message_t *>(
        pbtools_message_new(workspace_p, size, &res_timezone_offset_message_desc));
}

int res_timezone_offset_message_encode(const res_timezone_offset_message_t *self_p, uint8_t *encoded_p,
                                       size_t size)
{
    return pbtools_message_encode_compiled<res_timezone_offset_message_desc>(self_p, encoded_p, size);
}

int res_timezone_offset_message_decode(res_timezone_offset_message_t *self_p, const uint8_t *encoded_p,
                                       size_t size)
{
    return pbtools_message_decode(self_p, encoded_p, size, &res_timezone_offset_message_desc);
}
