// command: field tables of its messages for the pbtools walker, and the message operations
// declared in command.h.
#include "command.h"

// ---- file_info ------------------------------------------------------------------------

namespace
{

constexpr pbtools_field_desc file_info_fields[] = {
    PBTOOLS_FIELD(file_info_t, file_name, 1, nullptr),
    PBTOOLS_FIELD(file_info_t, file_size, 2, nullptr),
    PBTOOLS_FIELD(file_info_t, file_data, 3, nullptr),
};
constexpr pbtools_message_desc file_info_desc =
    pbtools_message_desc_make(sizeof(file_info_t), file_info_fields);
static_assert(pbtools_desc_is_valid(file_info_desc));

} // namespace

file_info_t *file_info_new(void *workspace_p, size_t size)
{
    return static_cast<file_info_t *>(pbtools_message_new(workspace_p, size, &file_info_desc));
}

int file_info_encode(const file_info_t *self_p, uint8_t *encoded_p, size_t size)
{
    return pbtools_message_encode_compiled<file_info_desc>(self_p, encoded_p, size);
}

int file_info_decode(file_info_t *self_p, const uint8_t *encoded_p, size_t size)
{
    return pbtools_message_decode(self_p, encoded_p, size, &file_info_desc);
}

// ---- req_command_message --------------------------------------------------------------

namespace
{

constexpr pbtools_field_desc req_command_message_fields[] = {
    PBTOOLS_FIELD(req_command_message_t, execution_id, 1, nullptr),
    PBTOOLS_FIELD(req_command_message_t, command_id, 2, nullptr),
    PBTOOLS_FIELD(req_command_message_t, cmd_type, 3, nullptr),
    PBTOOLS_FIELD(req_command_message_t, agent_id, 4, nullptr),
    PBTOOLS_FIELD(req_command_message_t, agent_type, 5, nullptr),
    PBTOOLS_FIELD(req_command_message_t, install_username, 6, nullptr),
    PBTOOLS_FIELD(req_command_message_t, install_path, 7, nullptr),
    PBTOOLS_FIELD(req_command_message_t, run_username, 8, nullptr),
    PBTOOLS_FIELD(req_command_message_t, run_path, 9, nullptr),
    PBTOOLS_FIELD(req_command_message_t, timeout, 10, nullptr),
    PBTOOLS_FIELD(req_command_message_t, target_agent_infos, 11, &pbtools_map_entry_desc),
    PBTOOLS_FIELD(req_command_message_t, target_file_info, 12, &file_info_desc),
};
constexpr pbtools_message_desc req_command_message_desc =
    pbtools_message_desc_make(sizeof(req_command_message_t), req_command_message_fields);
static_assert(pbtools_desc_is_valid(req_command_message_desc));

} // namespace

req_command_message_t *req_command_message_new(void *workspace_p, size_t size)
{
    return static_cast<req_command_message_t *>(
        pbtools_message_new(workspace_p, size, &req_command_message_desc));
}

size_t req_command_message_workspace_size(size_t size)
{
    return pbtools_decode_workspace_size(&req_command_message_desc, size);
}

int req_command_message_encode(const req_command_message_t *self_p, uint8_t *encoded_p, size_t size)
{
    return pbtools_message_encode_compiled<req_command_message_desc>(self_p, encoded_p, size);
}

int req_command_message_decode(req_command_message_t *self_p, const uint8_t *encoded_p, size_t size)
{
    return pbtools_message_decode(self_p, encoded_p, size, &req_command_message_desc);
}

int req_command_message_target_agent_infos_alloc(req_command_message_t *self_p, int length)
{
    return pbtools_message_repeated_alloc(self_p, &req_command_message_desc,
                                          offsetof(req_command_message_t, target_agent_infos), length);
}

int req_command_message_target_file_info_alloc(req_command_message_t *self_p)
{
    return pbtools_message_sub_alloc(self_p, &req_command_message_desc,
                                     offsetof(req_command_message_t, target_file_info));
}

// ---- res_command_message --------------------------------------------------------------

namespace
{

constexpr pbtools_field_desc res_command_message_fields[] = {
    PBTOOLS_FIELD(res_command_message_t, manager_id, 1, nullptr),
    PBTOOLS_FIELD(res_command_message_t, time, 2, nullptr),
    PBTOOLS_FIELD(res_command_message_t, phase_type, 3, nullptr),
    PBTOOLS_FIELD(res_command_message_t, execution_id, 4, nullptr),
    PBTOOLS_FIELD(res_command_message_t, command_id, 5, nullptr),
    PBTOOLS_FIELD(res_command_message_t, cmd_type, 6, nullptr),
    PBTOOLS_FIELD(res_command_message_t, agent_id, 7, nullptr),
    PBTOOLS_FIELD(res_command_message_t, agent_type, 8, nullptr),
    PBTOOLS_FIELD(res_command_message_t, result, 9, nullptr),
    PBTOOLS_FIELD(res_command_message_t, result_message, 10, nullptr),
};
constexpr pbtools_message_desc res_command_message_desc =
    pbtools_message_desc_make(sizeof(res_command_message_t), res_command_message_fields);
static_assert(pbtools_desc_is_valid(res_command_message_desc));

} // namespace

res_command_message_t *res_command_message_new(void *workspace_p, size_t size)
{
    return static_cast<res_command_message_t *>(
        pbtools_message_new(workspace_p, size, &res_command_message_desc));
}

int res_command_message_encode(const res_command_message_t *self_p, uint8_t *encoded_p, size_t size)
{
    return pbtools_message_encode_compiled<res_command_message_desc>(self_p, encoded_p, size);
}

int res_command_message_decode(res_command_message_t *self_p, const uint8_t *encoded_p, size_t size)
{
    return pbtools_message_decode(self_p, encoded_p, size, &res_command_message_desc);
}

// ---- target_agent_info ----------------------------------------------------------------

namespace
{

constexpr pbtools_field_desc target_agent_info_fields[] = {
    PBTOOLS_FIELD(target_agent_info_t, agent_id, 1, nullptr),
};
constexpr pbtools_message_desc target_agent_info_desc =
    pbtools_message_desc_make(sizeof(target_agent_info_t), target_agent_info_fields);
static_assert(pbtools_desc_is_valid(target_agent_info_desc));

} // namespace

target_agent_info_t *target_agent_info_new(void *workspace_p, size_t size)
{
    return static_cast<target_agent_info_t *>(
        pbtools_message_new(workspace_p, size, &target_agent_info_desc));
}

int target_agent_info_encode(const target_agent_info_t *self_p, uint8_t *encoded_p, size_t size)
{
    return pbtools_message_encode_compiled<target_agent_info_desc>(self_p, encoded_p, size);
}

int target_agent_info_decode(target_agent_info_t *self_p, const uint8_t *encoded_p, size_t size)
{
    return pbtools_message_decode(self_p, encoded_p, size, &target_agent_info_desc);
}

// ---- target_agent_info_message --------------------------------------------------------

namespace
{

constexpr pbtools_field_desc target_agent_info_message_fields[] = {
    PBTOOLS_FIELD(target_agent_info_message_t, target_agent_infos, 1, &target_agent_info_desc),
};
constexpr pbtools_message_desc target_agent_info_message_desc =
    pbtools_message_desc_make(sizeof(target_agent_info_message_t), target_agent_info_message_fields);
static_assert(pbtools_desc_is_valid(target_agent_info_message_desc));

} // namespace

target_agent_info_message_t *target_agent_info_message_new(void *workspace_p, size_t size)
{
    return static_cast<target_agent_info_message_t *>(
        pbtools_message_new(workspace_p, size, &target_agent_info_message_desc));
}

int target_agent_info_message_encode(const target_agent_info_message_t *self_p, uint8_t *encoded_p,
                                     size_t size)
{
    return pbtools_message_encode_compiled<target_agent_info_message_desc>(self_p, encoded_p, size);
}

int target_agent_info_message_decode(target_agent_info_message_t *self_p, const uint8_t *encoded_p,
                                     size_t size)
{
    return pbtools_message_decode(self_p, encoded_p, size, &target_agent_info_message_desc);
}

int target_agent_info_message_target_agent_infos_alloc(target_agent_info_message_t *self_p, int length)
{
    return pbtools_message_repeated_alloc(self_p, &target_agent_info_message_desc,
                                          offsetof(target_agent_info_message_t, target_agent_infos), length);
}

// ---- req_file_chunk_message -----------------------------------------------------------

namespace
{

constexpr pbtools_field_desc req_file_chunk_message_fields[] = {
    PBTOOLS_FIELD(req_file_chunk_message_t, execution_id, 1, nullptr),
    PBTOOLS_FIELD(req_file_chunk_message_t, agent_id, 2, nullptr),
    PBTOOLS_FIELD(req_file_chunk_message_t, target_file_info, 3, &file_info_desc),
    PBTOOLS_FIELD(req_file_chunk_message_t, chunk_size, 4, nullptr),
    PBTOOLS_FIELD(req_file_chunk_message_t, chunk_index, 5, nullptr),
    PBTOOLS_FIELD(req_file_chunk_message_t, chunk_count, 6, nullptr),
    PBTOOLS_FIELD(req_file_chunk_message_t, chunk_data, 7, nullptr),
};
constexpr pbtools_message_desc req_file_chunk_message_desc =
    pbtools_message_desc_make(sizeof(req_file_chunk_message_t), req_file_chunk_message_fields);
static_assert(pbtools_desc_is_valid(req_file_chunk_message_desc));

} // namespace

req_file_chunk_message_t *req_file_chunk_message_new(void *workspace_p, size_t size)
{
    return static_cast<req_file_chunk_message_t *>(
        pbtools_message_new(workspace_p, size, &req_file_chunk_message_desc));
}

int req_file_chunk_message_encode(const req_file_chunk_message_t *self_p, uint8_t *encoded_p, size_t size)
{
    return pbtools_message_encode_compiled<req_file_chunk_message_desc>(self_p, encoded_p, size);
}

int req_file_chunk_message_decode(req_file_chunk_message_t *self_p, const uint8_t *encoded_p, size_t size)
{
    return pbtools_message_decode(self_p, encoded_p, size, &req_file_chunk_message_desc);
}

int req_file_chunk_message_target_file_info_alloc(req_file_chunk_message_t *self_p)
{
    return pbtools_message_sub_alloc(self_p, &req_file_chunk_message_desc,
                                     offsetof(req_file_chunk_message_t, target_file_info));
}
