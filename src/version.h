// version: the version texts the agent prints (-v, -h, start-up log) and reports to the
// DG. Each getter formats its static buffer once, on first use, and returns the same
// buffer afterwards. Safe from any thread.
#pragma once

// "3.0.11 (mc: 0xd6f006f, cc: 0x2e71ff7, pc: 0xdb3edcf)"
const char *get_manager_agent_version();
// "YY-MM-DD hh:mm:ss" of the build.
const char *get_manager_build_version_string();
// "<Tarvane 3.0> quil-manager-agent 3.0.11 [linux x86_64 64bit] Build ... (mc:..,cc:..,pc:..)"
const char *get_manager_full_version_string();
// Converts "Mmm dd yyyy" into "YY-MM-DD" in its own static buffer (an unknown month gives
// 00). Not thread-safe: callers use the getters above.
const char *conv_manager_build_version_string(const char *date);
