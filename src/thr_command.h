// thr_command: the command thread THR_COMMAND. Once a second it paces itself on the wall
// clock; every 30 s it reports the target agent list, every 5 s it reloads data/config and
// works off the command ring (execute_command): prefix and root rule, then stop.sh, the
// patch program and start.sh through run_script, and one "done" result per command.
// Thread safety: everything here runs on the command thread; the prefix buffers are that
// thread's own (run_script reads them on the same thread).
#pragma once

#include "command_handler.h"

inline constexpr int CUSTOM_PREFIX_SIZE = 512;

// The command prefix built for the command in hand from the "custom_prefix" template: from
// the run user (g_custom_prefix, for stop.sh and start.sh) and from the install user
// (g_custom_patch_prefix, for the patch program). Cleared after each command.
extern char g_custom_prefix[CUSTOM_PREFIX_SIZE];
extern char g_custom_patch_prefix[CUSTOM_PREFIX_SIZE];
// Result of the last prefix conversion (convert_env_to_cmd); run_script uses the prefixes
// only when it is 1.
extern int g_custom_prefix_flag;
