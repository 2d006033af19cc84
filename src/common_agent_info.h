// common_agent_info: the handshake bodies, agent information (10043, built by
// send_manager_agent_info) and identity reply (50036, read by process_res_common_agent_info),
// their address items, and the two agent-config messages that are defined but never sent.
// Thread-safe: each function touches only the record, workspace and buffer it is given.
#pragma once

#include "pbtools.h"

// Every message below has the same three operations (and an _alloc per repeated field or
// sub-message), with these results:
//   M_new     the default record (texts "", counts 0, pointers null) in a fresh workspace heap,
//             or null when the workspace is under 16 bytes or too small for the record;
//   M_encode  the number of bytes written at the start of encoded_p (0 when every field is
//             default), or -4 when they do not fit;
//   M_decode  size (all consumed), or -1 bad wire type, -2 truncated, -3 workspace exhausted,
//             -5 field number 0, -6 varint over 10 bytes, -8 length of 0x7FFFFFFF or more;
//             the record is reset first and must not be used after a failure. A record
//             made by M_new first gets back the workspace its earlier decodes took, so
//             it can be decoded into again and again (their texts are overwritten).

// ---- common_ip_info (item of 10043) -----------------------------------------

struct common_ip_info_t {
    pbtools_heap_t *heap_p;
    int32_t ip_version;         // 1: 4 or 6
    pbtools_bytes_t ip_address; // 2: 4 or 16 raw bytes
    int32_t ip_extra;           // 3: not set by the agent
};

[[nodiscard]] common_ip_info_t *common_ip_info_new(void *workspace_p, size_t size);
[[nodiscard]] int common_ip_info_encode(const common_ip_info_t *self_p, uint8_t *encoded_p, size_t size);
[[nodiscard]] int common_ip_info_decode(common_ip_info_t *self_p, const uint8_t *encoded_p, size_t size);

// ---- common_mac_info (item of 10043) ----------------------------------------

struct common_mac_info_t {
    pbtools_heap_t *heap_p;
    pbtools_bytes_t mac_address; // 1: 6 raw bytes
};

[[nodiscard]] common_mac_info_t *common_mac_info_new(void *workspace_p, size_t size);
[[nodiscard]] int common_mac_info_encode(const common_mac_info_t *self_p, uint8_t *encoded_p, size_t size);
[[nodiscard]] int common_mac_info_decode(common_mac_info_t *self_p, const uint8_t *encoded_p, size_t size);

// ---- common_req_agent_info_message (out, 10043) -----------------------------

struct common_req_agent_info_message_t {
    pbtools_heap_t *heap_p;
    int64_t agent_time;                                 // 1: ms
    const char *agent_type_name;                        // 2
    const char *agent_version;                          // 3
    int32_t agent_kind;                                 // 4
    int32_t agent_mode;                                 // 5
    uint32_t protocol_version;                          // 6
    const char *host_name;                              // 7
    const char *machine_id;                             // 8
    int32_t os_kind;                                    // 9
    const char *os_version;                             // 10
    int32_t cpu_count;                                  // 11
    uint32_t cpu_core_count;                            // 12
    uint32_t cpu_thread_count;                          // 13
    pbtools_repeated<common_ip_info_t> ip_infos;        // 14
    pbtools_repeated<common_mac_info_t> mac_infos;      // 15
    pbtools_repeated<pbtools_map_entry_t> custom_infos; // 16: "manager_id" once assigned
    int64_t boot_time;                                  // 17
};

[[nodiscard]] common_req_agent_info_message_t *common_req_agent_info_message_new(void *workspace_p,
                                                                                 size_t size);
[[nodiscard]] int common_req_agent_info_message_encode(const common_req_agent_info_message_t *self_p,
                                                       uint8_t *encoded_p, size_t size);
[[nodiscard]] int common_req_agent_info_message_decode(common_req_agent_info_message_t *self_p,
                                                       const uint8_t *encoded_p, size_t size);
// Allocates `length` default items for ip_infos; 0, or -3 (workspace exhausted or a
// negative length; the field is unchanged).
[[nodiscard]] int common_req_agent_info_message_ip_infos_alloc(common_req_agent_info_message_t *self_p,
                                                               int length);
// Allocates `length` default items for mac_infos; 0, or -3 (workspace exhausted or a
// negative length; the field is unchanged).
[[nodiscard]] int common_req_agent_info_message_mac_infos_alloc(common_req_agent_info_message_t *self_p,
                                                                int length);
// Allocates `length` default items for custom_infos; 0, or -3 (workspace exhausted or a
// negative length; the field is unchanged).
[[nodiscard]] int common_req_agent_info_message_custom_infos_alloc(common_req_agent_info_message_t *self_p,
                                                                   int length);

// ---- common_res_agent_info_message (in, 50036) ------------------------------

struct common_res_agent_info_message_t {
    pbtools_heap_t *heap_p;
    const char *manager_id;       // 1: empty means refused
    uint32_t protocol_version;    // 2: logged only
    uint32_t dg_protocol_version; // 3: logged only
};

[[nodiscard]] common_res_agent_info_message_t *common_res_agent_info_message_new(void *workspace_p,
                                                                                 size_t size);
[[nodiscard]] int common_res_agent_info_message_encode(const common_res_agent_info_message_t *self_p,
                                                       uint8_t *encoded_p, size_t size);
[[nodiscard]] int common_res_agent_info_message_decode(common_res_agent_info_message_t *self_p,
                                                       const uint8_t *encoded_p, size_t size);

// ---- common_req_agent_config_message (defined, not used) --------------------

struct common_req_agent_config_message_t {
    pbtools_heap_t *heap_p;
    const char *config_name; // 1
};

[[nodiscard]] common_req_agent_config_message_t *common_req_agent_config_message_new(void *workspace_p,
                                                                                     size_t size);
[[nodiscard]] int common_req_agent_config_message_encode(const common_req_agent_config_message_t *self_p,
                                                         uint8_t *encoded_p, size_t size);
[[nodiscard]] int common_req_agent_config_message_decode(common_req_agent_config_message_t *self_p,
                                                         const uint8_t *encoded_p, size_t size);

// ---- common_res_agent_config_message (defined, not used) --------------------

struct common_res_agent_config_message_t {
    pbtools_heap_t *heap_p;
    pbtools_repeated<pbtools_map_entry_t> configs; // 1
};

[[nodiscard]] common_res_agent_config_message_t *common_res_agent_config_message_new(void *workspace_p,
                                                                                     size_t size);
[[nodiscard]] int common_res_agent_config_message_encode(const common_res_agent_config_message_t *self_p,
                                                         uint8_t *encoded_p, size_t size);
[[nodiscard]] int common_res_agent_config_message_decode(common_res_agent_config_message_t *self_p,
                                                         const uint8_t *encoded_p, size_t size);
// Allocates `length` default items for configs; 0, or -3 (workspace exhausted or a
// negative length; the field is unchanged).
[[nodiscard]] int common_res_agent_config_message_configs_alloc(common_res_agent_config_message_t *self_p,
                                                                int length);
