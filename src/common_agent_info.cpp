// common_agent_info: field tables of its messages for the pbtools walker, and the message operations
// declared in common_agent_info.h.
#include "common_agent_info.h"

// ---- common_ip_info -------------------------------------------------------------------

namespace
{

constexpr pbtools_field_desc common_ip_info_fields[] = {
    PBTOOLS_FIELD(common_ip_info_t, ip_version, 1, nullptr),
    PBTOOLS_FIELD(common_ip_info_t, ip_address, 2, nullptr),
    PBTOOLS_FIELD(common_ip_info_t, ip_extra, 3, nullptr),
};
constexpr pbtools_message_desc common_ip_info_desc =
    pbtools_message_desc_make(sizeof(common_ip_info_t), common_ip_info_fields);
static_assert(pbtools_desc_is_valid(common_ip_info_desc));

} // namespace

common_ip_info_t *common_ip_info_new(void *workspace_p, size_t size)
{
    return static_cast<common_ip_info_t *>(pbtools_message_new(workspace_p, size, &common_ip_info_desc));
}

int common_ip_info_encode(const common_ip_info_t *self_p, uint8_t *encoded_p, size_t size)
{
    return pbtools_message_encode_compiled<common_ip_info_desc>(self_p, encoded_p, size);
}

int common_ip_info_decode(common_ip_info_t *self_p, const uint8_t *encoded_p, size_t size)
{
    return pbtools_message_decode(self_p, encoded_p, size, &common_ip_info_desc);
}

// ---- common_mac_info ------------------------------------------------------------------

namespace
{

constexpr pbtools_field_desc common_mac_info_fields[] = {
    PBTOOLS_FIELD(common_mac_info_t, mac_address, 1, nullptr),
};
constexpr pbtools_message_desc common_mac_info_desc =
    pbtools_message_desc_make(sizeof(common_mac_info_t), common_mac_info_fields);
static_assert(pbtools_desc_is_valid(common_mac_info_desc));

} // namespace

common_mac_info_t *common_mac_info_new(void *workspace_p, size_t size)
{
    return static_cast<common_mac_info_t *>(pbtools_message_new(workspace_p, size, &common_mac_info_desc));
}

int common_mac_info_encode(const common_mac_info_t *self_p, uint8_t *encoded_p, size_t size)
{
    return pbtools_message_encode_compiled<common_mac_info_desc>(self_p, encoded_p, size);
}

int common_mac_info_decode(common_mac_info_t *self_p, const uint8_t *encoded_p, size_t size)
{
    return pbtools_message_decode(self_p, encoded_p, size, &common_mac_info_desc);
}

// ---- common_req_agent_info_message ----------------------------------------------------

namespace
{

constexpr pbtools_field_desc common_req_agent_info_message_fields[] = {
    PBTOOLS_FIELD(common_req_agent_info_message_t, agent_time, 1, nullptr),
    PBTOOLS_FIELD(common_req_agent_info_message_t, agent_type_name, 2, nullptr),
    PBTOOLS_FIELD(common_req_agent_info_message_t, agent_version, 3, nullptr),
    PBTOOLS_FIELD(common_req_agent_info_message_t, agent_kind, 4, nullptr),
    PBTOOLS_FIELD(common_req_agent_info_message_t, agent_mode, 5, nullptr),
    PBTOOLS_FIELD(common_req_agent_info_message_t, protocol_version, 6, nullptr),
    PBTOOLS_FIELD(common_req_agent_info_message_t, host_name, 7, nullptr),
    PBTOOLS_FIELD(common_req_agent_info_message_t, machine_id, 8, nullptr),
    PBTOOLS_FIELD(common_req_agent_info_message_t, os_kind, 9, nullptr),
    PBTOOLS_FIELD(common_req_agent_info_message_t, os_version, 10, nullptr),
    PBTOOLS_FIELD(common_req_agent_info_message_t, cpu_count, 11, nullptr),
    PBTOOLS_FIELD(common_req_agent_info_message_t, cpu_core_count, 12, nullptr),
    PBTOOLS_FIELD(common_req_agent_info_message_t, cpu_thread_count, 13, nullptr),
    PBTOOLS_FIELD(common_req_agent_info_message_t, ip_infos, 14, &common_ip_info_desc),
    PBTOOLS_FIELD(common_req_agent_info_message_t, mac_infos, 15, &common_mac_info_desc),
    PBTOOLS_FIELD(common_req_agent_info_message_t, custom_infos, 16, &pbtools_map_entry_desc),
    PBTOOLS_FIELD(common_req_agent_info_message_t, boot_time, 17, nullptr),
};
constexpr pbtools_message_desc common_req_agent_info_message_desc =
    pbtools_message_desc_make(sizeof(common_req_agent_info_message_t), common_req_agent_info_message_fields);
static_assert(pbtools_desc_is_valid(common_req_agent_info_message_desc));

} // namespace

common_req_agent_info_message_t *common_req_agent_info_message_new(void *workspace_p, size_t size)
{
    return static_cast<common_req_agent_info_message_t *>(
        pbtools_message_new(workspace_p, size, &common_req_agent_info_message_desc));
}

int common_req_agent_info_message_encode(const common_req_agent_info_message_t *self_p, uint8_t *encoded_p,
                                         size_t size)
{
    return pbtools_message_encode_compiled<common_req_agent_info_message_desc>(self_p, encoded_p, size);
}

int common_req_agent_info_message_decode(common_req_agent_info_message_t *self_p, const uint8_t *encoded_p,
                                         size_t size)
{
    return pbtools_message_decode(self_p, encoded_p, size, &common_req_agent_info_message_desc);
}

int common_req_agent_info_message_ip_infos_alloc(common_req_agent_info_message_t *self_p, int length)
{
    return pbtools_message_repeated_alloc(self_p, &common_req_agent_info_message_desc,
                                          offsetof(common_req_agent_info_message_t, ip_infos), length);
}

int common_req_agent_info_message_mac_infos_alloc(common_req_agent_info_message_t *self_p, int length)
{
    return pbtools_message_repeated_alloc(self_p, &common_req_agent_info_message_desc,
                                          offsetof(common_req_agent_info_message_t, mac_infos), length);
}

int common_req_agent_info_message_custom_infos_alloc(common_req_agent_info_message_t *self_p, int length)
{
    return pbtools_message_repeated_alloc(self_p, &common_req_agent_info_message_desc,
                                          offsetof(common_req_agent_info_message_t, custom_infos), length);
}

// ---- common_res_agent_info_message ----------------------------------------------------

namespace
{

constexpr pbtools_field_desc common_res_agent_info_message_fields[] = {
    PBTOOLS_FIELD(common_res_agent_info_message_t, manager_id, 1, nullptr),
    PBTOOLS_FIELD(common_res_agent_info_message_t, protocol_version, 2, nullptr),
    PBTOOLS_FIELD(common_res_agent_info_message_t, dg_protocol_version, 3, nullptr),
};
constexpr pbtools_message_desc common_res_agent_info_message_desc =
    pbtools_message_desc_make(sizeof(common_res_agent_info_message_t), common_res_agent_info_message_fields);
static_assert(pbtools_desc_is_valid(common_res_agent_info_message_desc));

} // namespace

common_res_agent_info_message_t *common_res_agent_info_message_new(void *workspace_p, size_t size)
{
    return static_cast<common_res_agent_info_message_t *>(
        pbtools_message_new(workspace_p, size, &common_res_agent_info_message_desc));
}

int common_res_agent_info_message_encode(const common_res_agent_info_message_t *self_p, uint8_t *encoded_p,
                                         size_t size)
{
    return pbtools_message_encode_compiled<common_res_agent_info_message_desc>(self_p, encoded_p, size);
}

int common_res_agent_info_message_decode(common_res_agent_info_message_t *self_p, const uint8_t *encoded_p,
                                         size_t size)
{
    return pbtools_message_decode(self_p, encoded_p, size, &common_res_agent_info_message_desc);
}

// ---- common_req_agent_config_message --------------------------------------------------

namespace
{

constexpr pbtools_field_desc common_req_agent_config_message_fields[] = {
    PBTOOLS_FIELD(common_req_agent_config_message_t, config_name, 1, nullptr),
};
constexpr pbtools_message_desc common_req_agent_config_message_desc = pbtools_message_desc_make(
    sizeof(common_req_agent_config_message_t), common_req_agent_config_message_fields);
static_assert(pbtools_desc_is_valid(common_req_agent_config_message_desc));

} // namespace

common_req_agent_config_message_t *common_req_agent_config_message_new(void *workspace_p, size_t size)
{
    return static_cast<common_req_agent_config_message_t *>(
        pbtools_message_new(workspace_p, size, &common_req_agent_config_message_desc));
}

int common_req_agent_config_message_encode(const common_req_agent_config_message_t *self_p,
                                           uint8_t *encoded_p, size_t size)
{
    return pbtools_message_encode_compiled<common_req_agent_config_message_desc>(self_p, encoded_p, size);
}

int common_req_agent_config_message_decode(common_req_agent_config_message_t *self_p,
                                           const uint8_t *encoded_p, size_t size)
{
    return pbtools_message_decode(self_p, encoded_p, size, &common_req_agent_config_message_desc);
}

// ---- common_res_agent_config_message --------------------------------------------------

namespace
{

constexpr pbtools_field_desc common_res_agent_config_message_fields[] = {
    PBTOOLS_FIELD(common_res_agent_config_message_t, configs, 1, &pbtools_map_entry_desc),
};
constexpr pbtools_message_desc common_res_agent_config_message_desc = pbtools_message_desc_make(
    sizeof(common_res_agent_config_message_t), common_res_agent_config_message_fields);
static_assert(pbtools_desc_is_valid(common_res_agent_config_message_desc));

} // namespace

common_res_agent_config_message_t *common_res_agent_config_message_new(void *workspace_p, size_t size)
{
    return static_cast<common_res_agent_config_message_t *>(
        pbtools_message_new(workspace_p, size, &common_res_agent_config_message_desc));
}

int common_res_agent_config_message_encode(const common_res_agent_config_message_t *self_p,
                                           uint8_t *encoded_p, size_t size)
{
    return pbtools_message_encode_compiled<common_res_agent_config_message_desc>(self_p, encoded_p, size);
}

int common_res_agent_config_message_decode(common_res_agent_config_message_t *self_p,
                                           const uint8_t *encoded_p, size_t size)
{
    return pbtools_message_decode(self_p, encoded_p, size, &common_res_agent_config_message_desc);
}

int common_res_agent_config_message_configs_alloc(common_res_agent_config_message_t *self_p, int length)
{
    return pbtools_message_repeated_alloc(self_p, &common_res_agent_config_message_desc,
                                          offsetof(common_res_agent_config_message_t, configs), length);
}
