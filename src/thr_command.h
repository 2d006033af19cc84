// thr_command: the command thread THR_COMMAND. Once a second it paces itself on the wall
// clock; every 30 s it reports the target agent list, every 5 s it reloads data/config and
// works off the command ring (execute_command): prefix and root rule, then stop.sh, the
// patch program and start.sh through run_script, and one "done" result per command.
// Thread safety: everything here runs on the command thread.
#pragma once

#include "cmd_info.h"

// Thread body of THR_COMMAND (argument unused): clears the target agent registry, then
// once a second (wall clock) reports the agent list every 30 s and reloads data/config and
// works off the ring every 5 s, until g_stop_the_world is raised.
void *thr_command(void *argument);

// Runs every queued command in ring order: each USED record is taken (status RUN; patch_stop
// now stops it), its prefix and root rule applied, its scripts run, and one "done" result
// sent; its slot is then freed. Cancelled slots are removed without a report. Returns 0.
int execute_command();

// Appends template (at most 511 characters) to out (512 bytes, terminated; the caller
// clears it) with each "${run_user_name}" replaced by user. Returns 1 converted; 0 template
// empty; -1 template or out missing, or the result does not fit; -2 a "${" without "}";
// -3 a variable other than run_user_name; -4 user is not a plain user name (it would be
// spliced into a shell command line).
int convert_env_to_cmd(const char *tmpl, char *out, const char *user);

// Copies the root check flag of the record's agent from the registry (the last entry with
// its id wins). Returns 0 when the command may run: no root check asked, a prefix was built,
// or both run and install user are "root"; otherwise -1.
int check_root_auth_to_json(cmd_info_t *record);

// Writes "<manager home>/tmp/<agent_type>_install_info": the option lines "key=value" in
// request order, then "INSTALL_PATH=<install_path>". Returns 0; -1 when it cannot be written
// (result FAIL, text "[agent manager] create patch agent info file failed").
int create_agent_info_file(cmd_info_t *record);
