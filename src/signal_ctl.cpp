// signal_ctl: the signal handler, the second-fault handlers, the breadcrumb table and its
// dump, and the exit hook. Registered by initsignal (main); slots written by every thread.
#include "signal_ctl.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/select.h>

#include "global_var.h"
#include "vk_time.h"
#include "vklog.h"

signal_debug_code_t g_signal_debug_code[SIGNAL_DEBUG_SLOT_COUNT];

static_assert(std::atomic<const char *>::is_always_lock_free && std::atomic<int>::is_always_lock_free,
              "the signal handler reads the breadcrumbs, so they must be lock-free");

void clear_signal_debug_code()
{
    for (auto &slot : g_signal_debug_code) {
        slot.file.store(nullptr, std::memory_order_relaxed);
        slot.line.store(0, std::memory_order_relaxed);
    }
}

void sigkill(int)
{
    exit(0);
}
void sigsegv(int)
{
    exit(0);
}
void sigbus(int)
{
    exit(0);
}
void sigabrt(int)
{
    exit(0);
}
void sigexit() {}

// Dump labels in slot order.
static constexpr const char *k_slot_format[SIGNAL_DEBUG_SLOT_COUNT] = {
    "[vk_debug_logging] main_thr [%s][%d]\n",          "[vk_debug_logging] dgconn_thr [%s][%d]\n",
    "[vk_debug_logging] dgconn_sender_thr [%s][%d]\n", "[vk_debug_logging] command_thr [%s][%d]\n",
    "[vk_debug_logging] garbage_thr [%s][%d]\n",
};

void vk_debug_logging()
{
    vklog_t *log = g_vklog.load();
    if (log == nullptr)
        return;
    for (int i = 0; i < SIGNAL_DEBUG_SLOT_COUNT; i++) {
        const char *file = g_signal_debug_code[i].file.load(std::memory_order_relaxed);
        int line = g_signal_debug_code[i].line.load(std::memory_order_relaxed);
        if (file != nullptr)
            VKLOG_ERROR(log, k_slot_format[i], file, line);
    }
}

// Stop signals: log, dump, give the line a moment to reach the file, and exit with 0;
// exit runs exit_handler. A second SIGSEGV while dumping ends the process at once.
[[noreturn]] static void stop_by_signal(const char *text, bool wait)
{
    VKLOG_ERROR(g_vklog.load(), "%s", text);
    vk_debug_logging();
    if (wait) {
        timeval tv{0, 900};
        select(0, nullptr, nullptr, nullptr, &tv);
    }
    exit(0);
}

// Hang-up and stop signals only count themselves here (lock-free counters, safe in signal
// context); the main loop acts on them in handle_pending_signals. Logging and exit from
// inside a handler could deadlock on a lock the interrupted thread holds in the logging
// library, and exit's hooks free memory, which signal context does not allow. Hang-ups are
// counted, not flagged, so that each one still gets its line. Stray user signals (which by
// default would end the agent without a word, leaving its pid file behind) are counted the
// same way and only logged.
static std::atomic<unsigned> s_pending_hup{0};
static std::atomic<unsigned> s_pending_stop{0};
static std::atomic<unsigned> s_pending_usr1{0};
static std::atomic<unsigned> s_pending_usr2{0};
static_assert(std::atomic<unsigned>::is_always_lock_free, "set from signal context");

namespace
{
void (*s_stop_hook)() = nullptr; // main thread only
} // namespace

void set_stop_signal_hook(void (*hook)())
{
    s_stop_hook = hook;
}

void handle_pending_signals()
{
    for (unsigned n = s_pending_hup.exchange(0); n > 0; n--) {
        atexit(sigexit);
        VKLOG_ERROR(g_vklog.load(), "[KTR-OSM-00040040] SIGHUP sig caught\n");
    }
    for (unsigned n = s_pending_usr1.exchange(0); n > 0; n--)
        VKLOG_INFO(g_vklog.load(), "[handle_pending_signals] SIGUSR1 sig caught; ignored.\n");
    for (unsigned n = s_pending_usr2.exchange(0); n > 0; n--)
        VKLOG_INFO(g_vklog.load(), "[handle_pending_signals] SIGUSR2 sig caught; ignored.\n");
    if (s_pending_stop.exchange(0) > 0) {
        atexit(sigexit);
        signal(SIGSEGV, sigsegv);
        if (s_stop_hook != nullptr)
            s_stop_hook();
        stop_by_signal("[KTR-OSM-00040050] SIGTERM sig caught.\n", true);
    }
}

void signal_handler(int signo)
{
    switch (signo) {
    case SIGHUP:
        s_pending_hup.fetch_add(1);
        return;
    case SIGINT:
    case SIGTERM:
        s_pending_stop.fetch_add(1);
        return;
    case SIGUSR1:
        s_pending_usr1.fetch_add(1);
        return;
    case SIGUSR2:
        s_pending_usr2.fetch_add(1);
        return;
    default:
        break;
    }
    // Faults cannot wait for the main loop: returning would run the faulting code again.
    atexit(sigexit);
    switch (signo) {
    case SIGABRT:
        signal(SIGSEGV, sigsegv);
        signal(SIGABRT, sigabrt);
        stop_by_signal("[KTR-OSM-00040050] SIGABRT sig caught.\n", false);
    case SIGBUS:
        signal(SIGBUS, sigbus);
        stop_by_signal("[KTR-OSM-00040050] SIGBUS sig caught.\n", false);
    case SIGKILL:
        // Never delivered to a handler; kept so the table covers every registered number.
        signal(SIGKILL, sigkill);
        VKLOG_INFO(g_vklog.load(), "[SIGNAL_HANDLER] SIGKILL sig caught. \n");
        vk_debug_logging();
        exit(0);
    case SIGSEGV:
        signal(SIGSEGV, sigsegv);
        stop_by_signal("[KTR-OSM-00040050] SIGSEGV sig caught.\n", false);
    default:
        return;
    }
}

void exit_handler()
{
    VKLOG_DEBUG(g_vklog.load(), "[exit_handler] start \n");
    g_stop_the_world.store(1);
    vk_sleep(1000);
    VKLOG_INFO(g_vklog.load(), "[exit_handler] terminated.\n");
    vklog_fini();
    printf("[exit_handler] terminated.\n");
}
