// util: start-up helpers of the main process: the single-instance guard on
// data/manager_agent_pid, the root flag, the send-queue drop report of the main loop, and
// the ${NAME} expansion of configured paths. Called by main, process_main and pub_conf.
// Thread safety: convert_env_path is safe from any thread; the others run on the main
// thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <unistd.h>

// Owns one descriptor and closes it on every path.
struct vk_unique_fd {
    int fd = -1;
    explicit vk_unique_fd(int f) : fd(f) {}
    vk_unique_fd(const vk_unique_fd &) = delete;
    vk_unique_fd &operator=(const vk_unique_fd &) = delete;
    ~vk_unique_fd()
    {
        if (fd >= 0)
            close(fd);
    }
};

// Owns one FILE* and closes it on every path.
struct vk_file_closer {
    void operator()(FILE *f) const { fclose(f); }
};
using vk_unique_file = std::unique_ptr<FILE, vk_file_closer>;

// Owns one malloc'd block and frees it on every path (release() hands it to a caller).
struct vk_free_deleter {
    void operator()(void *p) const { free(p); }
};
template <typename T> using vk_unique_malloc = std::unique_ptr<T, vk_free_deleter>;

// Appends source (at most 255 characters) to dest with every ${NAME} replaced by the
// environment variable NAME; dest (dest_size bytes, 512 in every caller) is passed zeroed.
// Returns 0; -1 null argument or dest_size 0; -2 a "${" without closing "}"; -3 a variable
// unset, empty or 256 characters or longer; -4 the result does not fit in dest. On failure
// dest holds the text expanded so far (terminated).
[[nodiscard]] int convert_env_path(const char *source, char *dest, size_t dest_size);

// Single-instance guard. Under a non-blocking lock on the pid file
// "<g_vk_manager_home>/data/manager_agent_pid" (created 0666): when the pid recorded there
// is a live process whose command line contains process_name, refuses; otherwise writes
// this process's pid as a 32-byte NUL-padded record. The lock is released before return.
// Returns 0 (go on); 1 the file cannot be opened; 2 another starter holds the lock; 3 a
// live agent is recorded. Each refusal is logged at ERROR.
[[nodiscard]] int check_double_execution(const char *process_name, const char *display_name);

// Sets g_sudo_flag to 1 when the effective user id is 0, else 0. Returns the effective
// user id.
int init_sudo_flag();

// Number of entries waiting in the send queue. The send-queue unit defines it; until that
// unit is linked in, the default here reports 0 (there is no queue).
uint32_t get_send_queue_count();

// Logs at INFO the send-queue length and the messages dropped since the previous call (a
// counter that went backwards counts as wrapped: (4294967295 - previous) + current).
// Returns that difference; the previous value is updated even when INFO is filtered out.
uint32_t info_log();
