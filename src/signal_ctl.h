// signal_ctl: what the agent does when a signal arrives, the breadcrumb table in which each
// long-running thread records where it is, its dump (vk_debug_logging), and the exit hook.
// initsignal in main installs signal_handler and exit_handler.
// Thread safety: VK_SIGNAL_DEBUG may be used from any thread on its own slot; the slots are
// atomics so the signal handler can read them while the threads write. signal_handler may
// run on any thread; handle_pending_signals runs on the main thread.
#pragma once

#include <atomic>

// One breadcrumb: the compile-time source file name and line a thread is about to execute.
// Each slot has one writer (its thread); the reader is the signal handler. A slot may show
// the file of one location and the line of the next, which is accepted.
struct signal_debug_code_t {
    std::atomic<const char *> file;
    std::atomic<int> line;
};

// Slot of each thread in g_signal_debug_code.
enum : int {
    SIGNAL_DEBUG_MAIN = 0,          // main thread
    SIGNAL_DEBUG_DGCONN = 1,        // THR_DGCONN
    SIGNAL_DEBUG_DGCONN_SENDER = 2, // THR_DGCONN_SENDER
    SIGNAL_DEBUG_COMMAND = 3,       // THR_COMMAND
    SIGNAL_DEBUG_GARBAGE = 4,       // garbage collector
    SIGNAL_DEBUG_SLOT_COUNT = 5,
};

extern signal_debug_code_t g_signal_debug_code[SIGNAL_DEBUG_SLOT_COUNT];

// Records the current source location into `slot` (one of SIGNAL_DEBUG_*), immediately
// before a statement that may block, allocate or fail.
#define VK_SIGNAL_DEBUG(slot)                                                                                \
    do {                                                                                                     \
        g_signal_debug_code[(slot)].file.store(__FILE__, std::memory_order_relaxed);                         \
        g_signal_debug_code[(slot)].line.store(__LINE__, std::memory_order_relaxed);                         \
    } while (0)

// Clears every slot (main, at start-up). Cannot fail.
void clear_signal_debug_code();

// A function the main thread runs when a stop signal (SIGTERM, SIGINT) is about to end the
// process, before the exit; not for faults. Null for none.
void set_stop_signal_hook(void (*hook)());

// Handler for SIGHUP, SIGINT, SIGABRT, SIGBUS, SIGKILL, SIGSEGV, SIGTERM, SIGUSR1 and
// SIGUSR2. SIGHUP, SIGINT, SIGTERM and the two user signals are only counted as pending
// (safe in signal context) and acted on by handle_pending_signals; the faults add the empty
// exit hook sigexit, log, dump the breadcrumbs and exit(0) at once; any other number returns
// without a trace.
void signal_handler(int signo);
// Acts on the marked signals, on the main thread (the one-second loop calls it after every
// sleep step, and a signal ends the step). Every SIGHUP adds sigexit as an exit hook and logs
// one line; every SIGUSR1 and SIGUSR2 logs one INFO line and is otherwise ignored; SIGINT and
// SIGTERM add sigexit, log the SIGTERM line, dump the breadcrumbs and exit(0), which runs
// exit_handler.
void handle_pending_signals();
// Second-fault handlers installed by signal_handler: exit(0) at once, so that a fault
// inside the dump ends the process instead of looping.
void sigkill(int signo);
void sigsegv(int signo);
void sigbus(int signo);
void sigabrt(int signo);
// Exit hook that does nothing.
void sigexit();

// Logs at ERROR one line per slot that holds a location, in slot order; nothing when the
// main log category does not exist. Cannot fail.
void vk_debug_logging();

// atexit hook: raises g_stop_the_world, gives the threads 1000 ms, closes the logging
// library and prints "[exit_handler] terminated.\n" on standard output.
void exit_handler();
