// command: the remote command bodies with their file and agent items: requests (60001, read by
// process_req_command), results (60002, built by send_res_command), the target agent list
// (60003, built by send_target_agent_info) and patch file chunks (60004, read by save_file_chunk).
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

// ---- file_info (item of 60001 and 60004) ------------------------------------

struct file_info_t {
    pbtools_heap_t *heap_p;
    const char *file_name;     // 1: patch file name
    uint64_t file_size;        // 2: total bytes
    pbtools_bytes_t file_data; // 3
};

[[nodiscard]] file_info_t *file_info_new(void *workspace_p, size_t size);
[[nodiscard]] int file_info_encode(const file_info_t *self_p, uint8_t *encoded_p, size_t size);
[[nodiscard]] int file_info_decode(file_info_t *self_p, const uint8_t *encoded_p, size_t size);

// ---- req_command_message (in, 60001) ----------------------------------------

struct req_command_message_t {
    pbtools_heap_t *heap_p;
    const char *execution_id;     // 1
    const char *command_id;       // 2: echoed in every result
    int32_t cmd_type;             // 3: 1 agent_restart, 2 agent_stop, 3 patch_start, 4 patch_stop
    const char *agent_id;         // 4: target agent
    int32_t agent_type;           // 5
    const char *install_username; // 6
    const char *install_path;     // 7
    const char *run_username;     // 8
    const char *run_path;         // 9
    uint32_t timeout;             // 10: ms
    pbtools_repeated<pbtools_map_entry_t> target_agent_infos; // 11: key/value options
    file_info_t *target_file_info;                            // 12: patch_start only; null when absent
};

[[nodiscard]] req_command_message_t *req_command_message_new(void *workspace_p, size_t size);
// Workspace in which any request body of `size` bytes decodes, however many options it holds.
[[nodiscard]] size_t req_command_message_workspace_size(size_t size);
[[nodiscard]] int req_command_message_encode(const req_command_message_t *self_p, uint8_t *encoded_p,
                                             size_t size);
[[nodiscard]] int req_command_message_decode(req_command_message_t *self_p, const uint8_t *encoded_p,
                                             size_t size);
// Allocates `length` default items for target_agent_infos; 0, or -3 (workspace exhausted or a
// negative length; the field is unchanged).
[[nodiscard]] int req_command_message_target_agent_infos_alloc(req_command_message_t *self_p, int length);
// Allocates a default target_file_info; 0, or -3 when the workspace is exhausted (still null).
[[nodiscard]] int req_command_message_target_file_info_alloc(req_command_message_t *self_p);

// ---- res_command_message (out, 60002) ---------------------------------------

struct res_command_message_t {
    pbtools_heap_t *heap_p;
    const char *manager_id;     // 1
    uint64_t time;              // 2: ms at sending
    int32_t phase_type;         // 3: 1 in_progress, 2 done
    const char *execution_id;   // 4
    const char *command_id;     // 5
    int32_t cmd_type;           // 6
    const char *agent_id;       // 7
    int32_t agent_type;         // 8
    int32_t result;             // 9: 1 SUCCESS, 2 FAIL, 3 TIMEOUT
    const char *result_message; // 10
};

[[nodiscard]] res_command_message_t *res_command_message_new(void *workspace_p, size_t size);
[[nodiscard]] int res_command_message_encode(const res_command_message_t *self_p, uint8_t *encoded_p,
                                             size_t size);
[[nodiscard]] int res_command_message_decode(res_command_message_t *self_p, const uint8_t *encoded_p,
                                             size_t size);

// ---- target_agent_info (item of 60003) --------------------------------------

struct target_agent_info_t {
    pbtools_heap_t *heap_p;
    const char *agent_id; // 1
};

[[nodiscard]] target_agent_info_t *target_agent_info_new(void *workspace_p, size_t size);
[[nodiscard]] int target_agent_info_encode(const target_agent_info_t *self_p, uint8_t *encoded_p,
                                           size_t size);
[[nodiscard]] int target_agent_info_decode(target_agent_info_t *self_p, const uint8_t *encoded_p,
                                           size_t size);

// ---- target_agent_info_message (out, 60003) ---------------------------------

struct target_agent_info_message_t {
    pbtools_heap_t *heap_p;
    pbtools_repeated<target_agent_info_t> target_agent_infos; // 1
};

[[nodiscard]] target_agent_info_message_t *target_agent_info_message_new(void *workspace_p, size_t size);
[[nodiscard]] int target_agent_info_message_encode(const target_agent_info_message_t *self_p,
                                                   uint8_t *encoded_p, size_t size);
[[nodiscard]] int target_agent_info_message_decode(target_agent_info_message_t *self_p,
                                                   const uint8_t *encoded_p, size_t size);
// Allocates `length` default items for target_agent_infos; 0, or -3 (workspace exhausted or a
// negative length; the field is unchanged).
[[nodiscard]] int target_agent_info_message_target_agent_infos_alloc(target_agent_info_message_t *self_p,
                                                                     int length);

// ---- req_file_chunk_message (in, 60004) -------------------------------------

struct req_file_chunk_message_t {
    pbtools_heap_t *heap_p;
    const char *execution_id;      // 1: must match the open transfer
    const char *agent_id;          // 2
    file_info_t *target_file_info; // 3: null when absent
    uint64_t chunk_size;           // 4: bytes of chunk_data to write
    uint64_t chunk_index;          // 5
    uint64_t chunk_count;          // 6
    pbtools_bytes_t chunk_data;    // 7
};

[[nodiscard]] req_file_chunk_message_t *req_file_chunk_message_new(void *workspace_p, size_t size);
[[nodiscard]] int req_file_chunk_message_encode(const req_file_chunk_message_t *self_p, uint8_t *encoded_p,
                                                size_t size);
[[nodiscard]] int req_file_chunk_message_decode(req_file_chunk_message_t *self_p, const uint8_t *encoded_p,
                                                size_t size);
// Allocates a default target_file_info; 0, or -3 when the workspace is exhausted (still null).
[[nodiscard]] int req_file_chunk_message_target_file_info_alloc(req_file_chunk_message_t *self_p);
