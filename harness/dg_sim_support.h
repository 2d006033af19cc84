// Harness around the quil-dg-sim binary (path from QUIL_DG_SIM_BIN): starts it as a child
// with pipes on its standard input and output, collects its JSON event lines on a background
// thread, sends it commands and waits for events. Used by the simulator's own tests, by the
// scenario tests that put the agent in front of it and by dg_bench.
#pragma once

#ifndef QUIL_DG_SIM_BIN
#error "quil-dg-sim is not built (no libprotobuf): include this header under #ifdef QUIL_DG_SIM_BIN"
#endif

#include <cjson/cJSON.h>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

extern char **environ;

namespace dg_sim_support
{

using namespace std::chrono_literals;

// One event line of the simulator, parsed. Copies share the parsed tree. Paths name members
// with dots and array elements by index: "body.target_agent_infos.0.agent_id". Numbers are
// exact up to 2^53 (cJSON keeps doubles), which covers millisecond times and sizes.
class sim_event
{
  public:
    explicit sim_event(std::string line)
        : m_line(std::move(line)), m_root(cJSON_Parse(m_line.c_str()), cJSON_Delete)
    {
    }

    const std::string &line() const { return m_line; }
    bool valid() const { return m_root != nullptr; }

    // The item at path, or null when any step is missing.
    const cJSON *get(const std::string &path) const
    {
        const cJSON *item = m_root.get();
        for (size_t start = 0; item != nullptr && start <= path.size();) {
            size_t dot = path.find('.', start);
            std::string step = path.substr(start, dot == std::string::npos ? std::string::npos : dot - start);
            char *end = nullptr;
            long index = strtol(step.c_str(), &end, 10);
            item = cJSON_IsArray(item) && !step.empty() && *end == '\0'
                       ? cJSON_GetArrayItem(item, static_cast<int>(index))
                       : cJSON_GetObjectItemCaseSensitive(item, step.c_str());
            if (dot == std::string::npos)
                break;
            start = dot + 1;
        }
        return item;
    }
    bool has(const std::string &path) const { return get(path) != nullptr; }

    // The string at path, or fallback when it is missing or not a string.
    std::string str(const std::string &path, const std::string &fallback = "") const
    {
        const cJSON *item = get(path);
        return cJSON_IsString(item) ? item->valuestring : fallback;
    }

    // The number at path (true/false read as 1/0), or fallback when missing or not a number.
    long long num(const std::string &path, long long fallback = -1) const
    {
        const cJSON *item = get(path);
        if (cJSON_IsBool(item))
            return cJSON_IsTrue(item) ? 1 : 0;
        return cJSON_IsNumber(item) ? std::llround(item->valuedouble) : fallback;
    }

    // Number of elements of the array at path (0 when it is not an array).
    int size(const std::string &path) const
    {
        const cJSON *item = get(path);
        return cJSON_IsArray(item) ? cJSON_GetArraySize(item) : 0;
    }

    // True for {"event":event} and, when type is not 0, "type":type as well.
    bool is(const std::string &event, long long type = 0) const
    {
        return str("event") == event && (type == 0 || num("type") == type);
    }

  private:
    std::string m_line;
    std::shared_ptr<cJSON> m_root;
};

using event_predicate = std::function<bool(const sim_event &)>;

// Predicates for wait_for: a packet received from or sent to the agent, of one message type.
inline event_predicate recv_of(long long type)
{
    return [type](const sim_event &e) { return e.is("recv", type); };
}
inline event_predicate sent_of(long long type)
{
    return [type](const sim_event &e) { return e.is("sent", type); };
}
inline event_predicate event_named(const std::string &name)
{
    return [name](const sim_event &e) { return e.is(name); };
}

// A running simulator. Construction starts it with `options` (plus --exit-on-eof, so it also
// ends when this process dies) and waits for its "listening" line; check started(). The
// destructor stops it: quit, then SIGTERM, then SIGKILL, and reaps it.
class dg_sim
{
  public:
    explicit dg_sim(std::vector<std::string> options = {}, std::chrono::milliseconds start_timeout = 20s)
    {
        int in[2] = {-1, -1}, out[2] = {-1, -1};
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
            close_all({in[0], in[1], out[0], out[1]});
            return;
        }
        std::vector<std::string> argv{QUIL_DG_SIM_BIN, "--exit-on-eof"};
        argv.insert(argv.end(), options.begin(), options.end());
        std::vector<char *> av;
        for (std::string &s : argv)
            av.push_back(s.data());
        av.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);  // dup2 clears O_CLOEXEC on 0 and 1
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        if (posix_spawn(&m_pid, av[0], &actions, nullptr, av.data(), environ) != 0)
            m_pid = -1;
        posix_spawn_file_actions_destroy(&actions);
        close_all({in[0], out[1]});
        if (m_pid < 0) {
            close_all({in[1], out[0]});
            return;
        }
        m_stdin = in[1];
        m_reader = std::thread(&dg_sim::read_events, this, out[0]);
        auto listening = wait_for(event_named("listening"), start_timeout);
        if (listening)
            m_port = static_cast<int>(listening->num("port", 0));
    }

    ~dg_sim() { stop(); }
    dg_sim(const dg_sim &) = delete;
    dg_sim &operator=(const dg_sim &) = delete;

    bool started() const { return m_port > 0; }
    int port() const { return m_port; }
    pid_t pid() const { return m_pid; }

    // Writes one command line (the newline is added). False when the simulator is gone; the
    // SIGPIPE of that write is blocked and consumed on this thread, so the test lives on.
    bool send(const std::string &line)
    {
        std::lock_guard<std::mutex> guard(m_write_lock);
        if (m_stdin < 0)
            return false;
        sigset_t pipe_set, old_set, pending;
        sigemptyset(&pipe_set);
        sigaddset(&pipe_set, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe_set, &old_set);
        sigpending(&pending);
        bool was_pending = sigismember(&pending, SIGPIPE) == 1;
        std::string text = line + "\n";
        size_t done = 0;
        while (done < text.size()) {
            ssize_t n = write(m_stdin, text.data() + done, text.size() - done);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                break;
            done += static_cast<size_t>(n);
        }
        timespec zero{0, 0};
        if (done < text.size() && !was_pending)
            while (sigtimedwait(&pipe_set, nullptr, &zero) < 0 && errno == EINTR) {
            }
        pthread_sigmask(SIG_SETMASK, &old_set, nullptr);
        return done == text.size();
    }

    // Number of events so far: pass it to wait_for to look only at later events.
    size_t mark() const
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_events.size();
    }

    // The first event at position `from` or later that satisfies match, waiting up to timeout
    // for it to arrive; nullopt on time-out or when the simulator's output ended without it.
    // match runs under the event lock: it must not call back into this object.
    std::optional<sim_event> wait_for(const event_predicate &match, std::chrono::milliseconds timeout = 20s,
                                      size_t from = 0)
    {
        auto end = std::chrono::steady_clock::now() + timeout;
        std::unique_lock<std::mutex> lk(m_lock);
        for (size_t i = from;; i++) {
            while (i >= m_events.size()) {
                if (m_output_ended)
                    return std::nullopt;
                if (m_cv.wait_until(lk, end) == std::cv_status::timeout && i >= m_events.size())
                    return std::nullopt;
            }
            if (match(m_events[i]))
                return m_events[i];
        }
    }

    // Sends a command line and waits for its "done" or "error" event (the first one naming
    // the line's verb after the send). nullopt on time-out.
    std::optional<sim_event> command(const std::string &line, std::chrono::milliseconds timeout = 20s)
    {
        size_t from = mark();
        std::string verb = line.substr(0, line.find(' '));
        if (!send(line))
            return std::nullopt;
        return wait_for([&](const sim_event &e) { return (e.is("done") || e.is("error")) && e.str("command") == verb; },
                        timeout, from);
    }

    // A snapshot of every event so far, in order.
    std::vector<sim_event> events() const
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_events;
    }

    // Stops the simulator: quit and end of input, SIGTERM when it has not exited within
    // quit_timeout (a command blocked on a peer that does not read keeps quit waiting),
    // SIGKILL two seconds after that. Returns its exit status (0..255), or -1
    // when it was killed by a signal or never started. Later calls return the same value.
    int stop(std::chrono::milliseconds quit_timeout = 3s)
    {
        if (m_pid > 0) {
            send("quit");
            {
                std::lock_guard<std::mutex> guard(m_write_lock);
                close_all({m_stdin});
                m_stdin = -1;
            }
            int status = 0;
            if (!reap(&status, quit_timeout) && kill(m_pid, SIGTERM) == 0 && !reap(&status, 2s) &&
                kill(m_pid, SIGKILL) == 0)
                waitpid(m_pid, &status, 0);
            m_status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            m_pid = -1;
        }
        if (m_reader.joinable())
            m_reader.join();
        return m_status;
    }

  private:
    static void close_all(std::initializer_list<int> fds)
    {
        for (int fd : fds)
            if (fd >= 0)
                close(fd);
    }

    // Waits up to timeout for the child to exit. True with *status filled once it has.
    bool reap(int *status, std::chrono::milliseconds timeout)
    {
        auto end = std::chrono::steady_clock::now() + timeout;
        for (;; std::this_thread::sleep_for(10ms)) {
            if (waitpid(m_pid, status, WNOHANG) == m_pid)
                return true;
            if (std::chrono::steady_clock::now() > end)
                return false;
        }
    }

    // Reader thread: splits the simulator's output into lines until it ends, then closes fd.
    void read_events(int fd)
    {
        std::string pending;
        char buffer[65536];
        for (;;) {
            ssize_t n = read(fd, buffer, sizeof buffer);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                break;
            pending.append(buffer, static_cast<size_t>(n));
            size_t start = 0, nl;
            std::vector<sim_event> parsed;
            while ((nl = pending.find('\n', start)) != std::string::npos) {
                parsed.emplace_back(pending.substr(start, nl - start));
                start = nl + 1;
            }
            pending.erase(0, start);
            if (!parsed.empty()) {
                std::lock_guard<std::mutex> guard(m_lock);
                m_events.insert(m_events.end(), parsed.begin(), parsed.end());
            }
            m_cv.notify_all();
        }
        close(fd);
        {
            std::lock_guard<std::mutex> guard(m_lock);
            m_output_ended = true;
        }
        m_cv.notify_all();
    }

    pid_t m_pid = -1;
    int m_port = 0;
    int m_status = -1;
    std::mutex m_write_lock;  // guards m_stdin
    int m_stdin = -1;
    std::thread m_reader;
    mutable std::mutex m_lock;  // guards m_events and m_output_ended
    std::condition_variable m_cv;
    std::vector<sim_event> m_events;
    bool m_output_ended = false;
};

} // namespace dg_sim_support
