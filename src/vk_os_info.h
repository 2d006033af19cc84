// vk_os_info: the operating-system facts of the host (node name, kernel release, machine
// id) and its logical and physical CPU counts. initialize_agent_info gathers them once;
// send_manager_agent_info reads the strings through the get_os_info_* getters.
// Thread safety: the connection thread writes this state before its connection loop
// starts and only reads it afterwards; no lock is taken.
// Interface only, kept for the unit's completeness (nothing in the agent calls them):
// get_os_info_logical_cpu_count, get_os_info_physical_cpu_count.
#pragma once

#include <cstddef>
#include <cstdint>

// Size of each stored string.
inline constexpr size_t OS_INFO_SIZE = 256;

// Node name of the host from uname (not gethostname).
extern char hostname[OS_INFO_SIZE];
// Kernel release from uname.
extern char osVersion[OS_INFO_SIZE];
// Machine id: nothing ever writes it, so the agent information carries an empty one.
extern char machineId[OS_INFO_SIZE];
// Logical processors online and distinct physical packages (0 until init_cpu_core).
extern int32_t g_logical_cpu_count;
extern int32_t g_physical_cpu_count;

// Stores uname's release in osVersion and its node name in hostname (gethostid is called,
// its value unused). Returns 0, or -1 when uname fails (nothing stored).
[[nodiscard]] int init_os_info();

// Copy the stored string into dst, bounded by min(n, OS_INFO_SIZE) bytes and terminated
// within them. A null dst or an n of 0 copies nothing. Cannot fail.
void get_os_info_hostname(char *dst, size_t n);
void get_os_info_os_version(char *dst, size_t n);
void get_os_info_machine_id(char *dst, size_t n);
// The stored counts.
int32_t get_os_info_logical_cpu_count();
int32_t get_os_info_physical_cpu_count();

// sysconf(_SC_NPROCESSORS_ONLN): the count, or its negative result with errno stored
// through err (when not null).
int get_logical_cpu_count(int *err);
// Number of distinct "physical id" values in the cpuinfo-format file at path. A line
// counts when its first 9 characters are "physical " (only those 9 are compared); its id is
// the token after ":" up to the next blank, by base-10 strtoll, low 32 bits kept. Reading
// stops once `logical` distinct ids are found. Returns the count (0 without such lines), 1
// at once for a logical count of 1 (the file is not read), -10 the file cannot be opened,
// -20 the id set cannot be allocated or logical is below 1; errno (EINVAL for logical
// below 1) is stored through err (when not null) on -10 and -20.
int get_physical_cpu_count(const char *path, int logical, int *err);
// Stores both counts (/proc/cpuinfo for the physical one) when both succeed. Returns 0, or
// the first negative code of get_logical_cpu_count / get_physical_cpu_count (stored counts
// unchanged, errno through err).
[[nodiscard]] int init_cpu_core(int *err);
