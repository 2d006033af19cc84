// thr_garbage_collector: the garbage collector thread. Every MGR_INTERVAL_GARBAGE_COLLECT
// seconds (wall clock) it removes patch transfers that outlived their time-out and, when no
// command is queued, empties the target agent registry so it is built afresh.
// Thread safety: runs on its own thread; the sweep goes through the transfer map's owner
// (patch_collect_stale), the reset through the registry's (clear_agent_registry).
#pragma once

// Thread body (argument unused); ends when g_stop_the_world is raised.
void *thr_garbage_collector(void *argument);
// One sweep of the patch map: every item older than its command's time-out is closed and
// removed (a transfer still in progress loses its partial file). Returns the number removed.
int start_garbage_collect();
// Empties the target agent registry. Cannot fail.
void start_json_list_garbage_collect();
