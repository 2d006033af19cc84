// dg_bench: the agent over loopback, each figure beside its reference taken in the same run.
// The agent is fed by quil-dg-sim and by a minimal DG sender (a read() and a writev() per
// chunk), and the same is done to a minimal peer (dg_bench --peer: libprotobuf, a socket and
// write()) in the agent's place. Ping round trips and a patch transfer compare the agent with
// that peer; the transfer is also set beside a plain send/recv/write pair (the floor); the idle
// footprint is the agent's CPU and memory while connected and left alone.
// Started by scripts/bench; `dg_bench --help` lists the options.
#include "child_process.h"
#include "dg_bench.h"
#include "dg_sim_support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace
{

using namespace dg_bench;
using namespace dg_sim_support;
using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;

const char k_manager_id[] = "3f2c1a9e-0b7d-4c55-9a61-5d2e8f0c1b47";
constexpr size_t k_chunk = 64 * 1024;

double seconds_since(steady::time_point t0)
{
    return std::chrono::duration<double>(steady::now() - t0).count();
}

std::string slurp(const std::string &path)
{
    std::stringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}

// ---- /proc readings ---------------------------------------------------------------------------

// A "Vm...:" line of /proc/<pid>/status in KiB, 0 when it cannot be read.
long status_kib(pid_t pid, const char *key)
{
    std::string text = slurp("/proc/" + std::to_string(pid) + "/status");
    size_t at = text.find(key);
    return at == std::string::npos ? 0 : atol(text.c_str() + at + strlen(key));
}

// Resets the peak resident size (VmHWM) of pid to its current size.
void reset_peak(pid_t pid)
{
    std::ofstream("/proc/" + std::to_string(pid) + "/clear_refs") << "5";
}

// utime + stime of the whole process in clock ticks (fields 14 and 15 of /proc/<pid>/stat).
long long cpu_ticks(pid_t pid)
{
    std::string text = slurp("/proc/" + std::to_string(pid) + "/stat");
    size_t close_paren = text.rfind(')');
    if (close_paren == std::string::npos)
        return -1;
    std::istringstream in(text.substr(close_paren + 2));
    std::string field;
    long long utime = 0, stime = 0;
    for (int number = 3; in >> field && number <= 15; number++) {
        if (number == 14)
            utime = atoll(field.c_str());
        if (number == 15)
            stime = atoll(field.c_str());
    }
    return utime + stime;
}

// Run time of every live thread of pid in nanoseconds (first field of each task's schedstat):
// the same quantity as cpu_ticks, without the 10 ms tick granularity.
long long cpu_ns(pid_t pid)
{
    std::string base = "/proc/" + std::to_string(pid) + "/task";
    long long sum = 0;
    std::error_code ec;
    for (const auto &task : std::filesystem::directory_iterator(base, ec))
        sum += atoll(slurp(task.path().string() + "/schedstat").c_str());
    return sum;
}

// Samples VmRSS of a process every 5 ms on its own thread and keeps the largest value.
class rss_sampler
{
  public:
    explicit rss_sampler(pid_t pid) : m_pid(pid), m_thread([this] { run(); }) {}
    ~rss_sampler() { stop(); }
    long stop()
    {
        m_stop = true;
        if (m_thread.joinable())
            m_thread.join();
        return m_max;
    }

  private:
    void run()
    {
        while (!m_stop) {
            m_max = std::max(m_max.load(), status_kib(m_pid, "VmRSS:"));
            std::this_thread::sleep_for(5ms);
        }
    }
    pid_t m_pid;
    std::atomic<bool> m_stop{false};
    std::atomic<long> m_max{0};
    std::thread m_thread;
};

// ---- child processes --------------------------------------------------------------------------

// A child started with the given environment (empty: ours), output to files; stopped with
// SIGTERM (SIGKILL after 15 s) and reaped when the object goes.
class child
{
  public:
    child(std::vector<std::string> argv, std::vector<std::string> env, const std::string &out,
          const std::string &err)
        : m_pid(harness::spawn(std::move(argv), std::move(env), out, err))
    {
    }
    ~child()
    {
        if (m_pid <= 0)
            return;
        kill(m_pid, SIGTERM);
        auto end = steady::now() + 15s;
        while (waitpid(m_pid, nullptr, WNOHANG) != m_pid) {
            if (steady::now() > end) {
                kill(m_pid, SIGKILL);
                waitpid(m_pid, nullptr, 0);
                break;
            }
            std::this_thread::sleep_for(10ms);
        }
    }
    child(const child &) = delete;
    child &operator=(const child &) = delete;
    pid_t pid() const { return m_pid; }
    bool alive() const { return m_pid > 0 && waitpid(m_pid, nullptr, WNOHANG) == 0; }

  private:
    pid_t m_pid = -1;
};

// ---- options ----------------------------------------------------------------------------------

struct options {
    int pings = 10000;
    long patch_mib = 1024;
    int runs = 3;
    int idle_seconds = 60;
    int connects = 10;
    std::string only = "ping,patch,connect,idle";
    std::string feed = "both"; // minimal, sim or both
    std::string dir = "/tmp";
    bool wants(const char *part) const
    {
        return ("," + only + ",").find(std::string(",") + part + ",") != std::string::npos;
    }
    bool fed_by(bool sim) const { return feed == "both" || feed == (sim ? "sim" : feed == "tls" ? "tls" : "minimal"); }
};

const char k_usage[] = R"(Usage: dg_bench [OPTIONS]
  --pings N         ping round trips per pairing (default 10000)
  --patch-mib M     size of the patch file in MiB (default 1024)
  --runs R          transfers per pairing, the median is reported (default 3)
  --idle-seconds S  length of the idle window (default 60)
  --connects N      reconnections timed for the connect part (default 10; 5 s apart)
  --only LIST       comma-separated parts to run: ping,patch,connect,idle (default all)
  --feed WHO        senders for ping and patch: minimal, sim or both (default both; the
                    ratios that need the other sender then print as 0); tls: only the
                    agent over TLS from the minimal DG (patch; for profiling)
  --dir DIR         where the homes and files go (default /tmp); every receiver writes to
                    this one file system
)";

// ---- TLS: a throw-away CA and a DG certificate for 127.0.0.1, made with the openssl command ----

struct tls_material {
    std::string dir;
    dg_wire::tls_server server;
    bool ok = false;
    std::vector<std::string> agent_env() const
    {
        return {"MGR_TLS_CONNECT=cert", "MGR_TLS_CA_FILE=" + dir + "/ca.pem"};
    }
};

std::unique_ptr<tls_material> s_tls; // made on first use, removed at the end of main

// The material, made on first use; null when the openssl command or the loading failed.
tls_material *tls(const options &opt)
{
    std::unique_ptr<tls_material> &made = s_tls;
    if (made)
        return made->ok ? made.get() : nullptr;
    made = std::make_unique<tls_material>();
    made->dir = opt.dir + "/dg_bench_tls.XXXXXX";
    if (mkdtemp(made->dir.data()) == nullptr)
        return nullptr;
    std::string script = "cd " + made->dir +
                         " && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout ca.key"
                         " -out ca.pem -days 2 -subj /CN=bench-ca"
                         " && openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout dg.key -out dg.csr"
                         " -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1"
                         " && openssl x509 -req -in dg.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2"
                         " -copy_extensions copy -out dg.pem";
    std::string error;
    dg_wire::tls_server_options o;
    o.cert_file = made->dir + "/dg.pem";
    o.key_file = made->dir + "/dg.key";
    made->ok = system(("(" + script + ") >/dev/null 2>&1").c_str()) == 0 && made->server.load(o, &error) == 0;
    if (!made->ok)
        fprintf(stderr, "dg_bench: no TLS material in %s: %s\n", made->dir.c_str(), error.c_str());
    return made->ok ? made.get() : nullptr;
}

// ---- sessions: a sender (quil-dg-sim or the minimal DG) and a receiver (agent or peer) ----------

std::string self_path()
{
    char buf[4096];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

// A private home (<dir>/dg_bench.XXXXXX with manager/{data,tmp,log}) and the receiver started
// against a sender's port. ok() says whether the connection stands (the agent's handshake
// answered, or the peer connected). Received files land in manager/tmp for both receivers.
class session
{
  public:
    // tls: the minimal DG serves TLS and the agent uses it (cert mode).
    session(const options &opt, bool agent, bool sim, tls_material *tls = nullptr)
        : m_agent(agent), m_sim_fed(sim), m_tls(tls != nullptr)
    {
        m_home = opt.dir + "/dg_bench.XXXXXX";
        if (mkdtemp(m_home.data()) == nullptr) {
            m_home.clear();
            return;
        }
        m_manager = m_home + "/manager";
        for (const char *sub : {"", "/data", "/tmp", "/log"})
            mkdir((m_manager + sub).c_str(), 0700);
        int port = 0;
        if (sim) {
            m_sim = std::make_unique<dg_sim>(std::vector<std::string>{"--manager-id", k_manager_id});
            port = m_sim->started() ? m_sim->port() : 0;
        } else {
            m_feeder = std::make_unique<dg_feeder>(tls != nullptr ? &tls->server : nullptr);
            port = m_feeder->port();
        }
        if (port == 0)
            return;
        std::vector<std::string> env{"PATH=/usr/bin:/bin", "MGR_QUIL_HOME=" + m_home, "MGR_QUIL_MANAGER_HOME=" + m_manager,
                                     "MGR_RECEIVER_ADDR=127.0.0.1:" + std::to_string(port)};
        if (tls != nullptr)
            for (const std::string &e : tls->agent_env())
                env.push_back(e);
        if (agent)
            m_child = std::make_unique<child>(std::vector<std::string>{QUIL_AGENT_BIN}, env, m_home + "/agent.out",
                                              m_home + "/agent.err");
        else
            m_child = std::make_unique<child>(
                std::vector<std::string>{self_path(), "--peer", std::to_string(port), m_manager + "/tmp"},
                std::vector<std::string>{}, m_home + "/peer.out", m_home + "/peer.err");
        if (m_child->pid() <= 0)
            return;
        if (sim)
            m_ok = m_sim->wait_for(agent ? sent_of(50036) : event_named("connected"), 30s).has_value();
        else
            m_ok = m_feeder->accept_one(30s) && (!agent || m_feeder->wait_handshake(30s));
    }
    ~session()
    {
        m_child.reset();
        m_feeder.reset();
        if (m_sim)
            m_sim->stop();
        if (!m_home.empty()) {
            std::error_code ec;
            std::filesystem::remove_all(m_home, ec);
        }
    }
    bool ok() const { return m_ok; }
    bool is_agent() const { return m_agent; }
    std::string name() const
    {
        return std::string(m_agent ? "agent" : "minimal peer") + (m_sim_fed ? " <- quil-dg-sim" : " <- minimal DG") +
               (m_tls ? ", TLS" : "");
    }
    dg_feeder *feeder() { return m_feeder.get(); }
    pid_t pid() const { return m_child ? m_child->pid() : -1; }
    const std::string &home() const { return m_home; }
    const std::string &manager() const { return m_manager; }
    std::string log_tail() const
    {
        std::string log = slurp(m_manager + "/log/quil-manager-agent.log");
        return log.size() > 2000 ? log.substr(log.size() - 2000) : log;
    }

    // One round trip: for the simulator, the ping command to the "recv" line of the 40000;
    // for the minimal DG, the 50000 written to the 40000 read.
    bool ping()
    {
        if (m_feeder)
            return m_feeder->ping(5s);
        size_t from = m_sim->mark();
        return m_sim->send("ping") && m_sim->wait_for(recv_of(40000), 5s, from).has_value();
    }
    size_t mark() { return m_feeder ? m_feeder->mark() : m_sim->mark(); }
    // A patch_start of src as `name` for agent_id; returns once the sender has handed it over
    // (the minimal DG: every chunk written; the simulator: the command sent).
    bool patch(const std::string &src, uint64_t size, const std::string &exec, const std::string &agent_id,
               const std::string &name, std::string *error)
    {
        if (m_feeder)
            return m_feeder->patch(src, size, k_chunk, exec, agent_id, name, error);
        bool sent = m_sim->send("patch_start agent=" + agent_id + " exec=" + exec + " cmd=c-" + exec +
                                " run_path=/nonexistent file=" + src + " name=" + name + " chunk=" +
                                std::to_string(k_chunk) + " timeout=600000");
        if (!sent)
            *error = "quil-dg-sim is gone";
        return sent;
    }
    std::optional<result_line> wait_result(const std::function<bool(const result_line &)> &match,
                                           std::chrono::milliseconds timeout, size_t from)
    {
        if (m_feeder)
            return m_feeder->wait_result(match, timeout, from);
        auto line = [](const sim_event &e) {
            return result_line{e.str("body.execution_id"), static_cast<int>(e.num("body.phase_type")),
                               static_cast<int>(e.num("body.result")), e.str("body.result_message")};
        };
        auto e = m_sim->wait_for([&](const sim_event &ev) { return ev.is("recv", 60002) && match(line(ev)); },
                                 timeout, from);
        return e ? std::optional<result_line>(line(*e)) : std::nullopt;
    }

  private:
    bool m_agent, m_sim_fed, m_tls;
    bool m_ok = false;
    std::string m_home, m_manager;
    std::unique_ptr<dg_sim> m_sim;
    std::unique_ptr<dg_feeder> m_feeder;
    std::unique_ptr<child> m_child;
};

// ---- ping round trips ----------------------------------------------------------------------------

// Round-trip times of one receiver, gathered over several blocks.
struct ping_figures {
    std::vector<double> us;
    double seconds = 0;
    double per_second() const { return seconds > 0 ? static_cast<double>(us.size()) / seconds : 0; }
    double percentile(int p)
    {
        std::sort(us.begin(), us.end());
        return us.empty() ? 0 : us[std::min(us.size() - 1, us.size() * static_cast<size_t>(p) / 100)];
    }
};

// n pings, one at a time.
bool measure_pings(session &s, int n, ping_figures *out)
{
    auto t0 = steady::now();
    for (int i = 0; i < n; i++) {
        auto t = steady::now();
        if (!s.ping())
            return false;
        out->us.push_back(seconds_since(t) * 1e6);
    }
    out->seconds += seconds_since(t0);
    return true;
}

bool run_ping(const options &opt)
{
    constexpr int k_blocks = 10;
    printf("\n== ping round trips, %d each, one at a time, agent and peer in turn over %d blocks ==\n", opt.pings,
           k_blocks);
    printf("   quil-dg-sim: the ping command on its input to the 40000's recv line on its output\n");
    printf("   minimal DG:  the 50000 written to the 40000 read, on the socket alone\n");
    printf("   minimal DG, TLS: the same over TLS (the agent in cert mode), beside the plain agent\n");
    double rate[2][3] = {}, tls_p50 = 0, plain_p50 = 0; // [sim][peer, agent, agent over TLS]
    for (int sim = 1; sim >= 0; sim--) {
        if (!opt.fed_by(sim == 1))
            continue;
        session agent(opt, true, sim == 1), peer(opt, false, sim == 1);
        std::unique_ptr<session> secure;
        if (sim == 0 && tls(opt) != nullptr)
            secure = std::make_unique<session>(opt, true, false, tls(opt));
        session *all[3] = {&peer, &agent, secure.get()};
        const int n = secure ? 3 : 2;
        ping_figures fig[3];
        // Warm-up, then alternating blocks, so a change of load touches all alike.
        for (int block = -1; block < k_blocks; block++) {
            for (int i = n - 1; i >= 0; i--) {
                ping_figures warm;
                int count = block < 0 ? std::min(200, opt.pings) : opt.pings / k_blocks;
                if (!all[i]->ok() || !measure_pings(*all[i], count, block < 0 ? &warm : &fig[i])) {
                    fprintf(stderr, "dg_bench: ping with %s failed\n%s\n", all[i]->name().c_str(),
                            all[i]->log_tail().c_str());
                    return false;
                }
            }
        }
        for (int i = n - 1; i >= 0; i--) {
            rate[sim][i] = fig[i].per_second();
            double p50 = fig[i].percentile(50);
            printf("%-30s %10.0f round trips/s   p50 %7.1f us   p99 %7.1f us\n", all[i]->name().c_str(), rate[sim][i],
                   p50, fig[i].percentile(99));
            if (sim == 0 && i >= 1)
                (i == 2 ? tls_p50 : plain_p50) = p50;
        }
    }
    auto ratio = [](double a, double b) { return b > 0 ? a / b : 0.0; };
    printf("RESULT ping via-sim agent %.0f/s minimal-peer %.0f/s ratio %.2f | direct agent %.0f/s minimal-peer "
           "%.0f/s ratio %.2f | tls agent %.0f/s p50 %.1f us ratio-to-plain %.2f (plain p50 %.1f us)\n",
           rate[1][1], rate[1][0], ratio(rate[1][1], rate[1][0]), rate[0][1], rate[0][0], ratio(rate[0][1], rate[0][0]),
           rate[0][2], tls_p50, ratio(rate[0][2], rate[0][1]), plain_p50);
    return true;
}

// ---- patch transfer ------------------------------------------------------------------------------

bool make_patch_file(const std::string &path, long mib)
{
    fd_guard fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (fd.fd < 0)
        return false;
    std::vector<uint64_t> block(1 << 17); // 1 MiB of xorshift words: nothing to gain from compression
    uint64_t x = 88172645463325252ull;
    for (long i = 0; i < mib; i++) {
        for (uint64_t &w : block) {
            x ^= x << 13;
            x ^= x >> 7;
            x ^= x << 17;
            w = x;
        }
        if (dg_wire::write_all(fd.fd, {reinterpret_cast<const char *>(block.data()), block.size() * 8}) != 0)
            return false;
    }
    return true;
}

// Writes back what the last run left dirty, so each run starts from the same page cache state.
void settle(const std::string &dir)
{
    fd_guard fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.fd >= 0)
        syncfs(fd.fd);
}

// The floor: a sender that reads the file in 64 KiB pieces and send()s them over loopback, a
// receiver that recv()s 64 KiB pieces and write()s them to a file on the same file system. Returns
// the seconds from the sender's open to the receiver's close, or -1.
double floor_run(const std::string &src, const std::string &dst, uint64_t bytes)
{
    fd_guard listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (listener.fd < 0 || bind(listener.fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
        listen(listener.fd, 1) != 0 || getsockname(listener.fd, reinterpret_cast<sockaddr *>(&addr), &len) != 0)
        return -1;
    uint64_t received = 0;
    steady::time_point end;
    std::thread receiver([&] {
        fd_guard conn(accept4(listener.fd, nullptr, nullptr, SOCK_CLOEXEC));
        fd_guard out(open(dst.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0755));
        std::vector<char> buf(k_chunk);
        // MSG_WAITALL: whole 64 KiB pieces, so the file sees the writes a chunk receiver makes.
        for (ssize_t n; conn.fd >= 0 && out.fd >= 0 && (n = recv(conn.fd, buf.data(), buf.size(), MSG_WAITALL)) != 0;) {
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0 || dg_wire::write_all(out.fd, {buf.data(), static_cast<size_t>(n)}) != 0)
                break;
            received += static_cast<uint64_t>(n);
        }
        out.reset();
        end = steady::now();
    });
    auto t0 = steady::now();
    {
        fd_guard in(open(src.c_str(), O_RDONLY | O_CLOEXEC));
        fd_guard sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (in.fd >= 0 && sock.fd >= 0 && connect(sock.fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0) {
            std::vector<char> buf(k_chunk);
            for (ssize_t n; (n = read(in.fd, buf.data(), buf.size())) > 0;)
                if (dg_wire::write_all(sock.fd, {buf.data(), static_cast<size_t>(n)}) != 0)
                    break;
        }
    } // closing the socket ends the receiver's loop
    receiver.join();
    unlink(dst.c_str());
    return received == bytes ? std::chrono::duration<double>(end - t0).count() : -1;
}

struct transfer {
    double seconds = -1;
    long peak_rss_kib = 0; // sampled VmRSS maximum during the transfer
    long hwm_kib = 0;      // VmHWM after it (reset just before)
    double cpu_seconds = 0; // the receiver's run time over the transfer, all threads
};

// One patch of `src` to the receiver's "write success" result; then, for the agent, its done
// result (the patch program cannot run: the run path does not exist), so the next transfer
// finds the agent free.
bool session_run(session &s, const std::string &src, uint64_t bytes, int run, transfer *out)
{
    char agent_id[48];
    snprintf(agent_id, sizeof agent_id, "0b6f2d7e-5c1a-4e8f-9d3b-7a2c4e6f%04d", run % 10000);
    std::string exec = "bench-" + std::to_string(run);
    std::string name = "patch-" + std::to_string(run) + ".bin";
    settle(s.home());
    reset_peak(s.pid());
    size_t from = s.mark();
    rss_sampler sampler(s.pid());
    std::string error;
    const long long cpu0 = cpu_ns(s.pid());
    auto t0 = steady::now();
    if (!s.patch(src, bytes, exec, agent_id, name, &error)) {
        fprintf(stderr, "dg_bench: transfer %d to %s: %s\n", run, s.name().c_str(), error.c_str());
        return false;
    }
    auto answer = s.wait_result(
        [&](const result_line &r) {
            return r.execution_id == exec && (r.result != 1 || r.message.find("write success") != std::string::npos);
        },
        900s, from);
    out->seconds = seconds_since(t0);
    out->cpu_seconds = static_cast<double>(cpu_ns(s.pid()) - cpu0) / 1e9;
    out->peak_rss_kib = sampler.stop();
    out->hwm_kib = status_kib(s.pid(), "VmHWM:");
    if (!answer || answer->result != 1) {
        fprintf(stderr, "dg_bench: transfer %d to %s: %s\n%s\n", run, s.name().c_str(),
                answer ? answer->message.c_str() : "no write success within 900 s", s.log_tail().c_str());
        return false;
    }
    struct stat st{};
    std::string received = s.manager() + "/tmp/" + name;
    if (stat(received.c_str(), &st) == 0 && static_cast<uint64_t>(st.st_size) != bytes) {
        fprintf(stderr, "dg_bench: %s holds %lld bytes, not %" PRIu64 "\n", received.c_str(),
                static_cast<long long>(st.st_size), bytes);
        return false;
    }
    if (s.is_agent())
        s.wait_result([&](const result_line &r) { return r.execution_id == exec && r.phase == 2; }, 30s, from);
    unlink(received.c_str());
    return true;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    size_t n = v.size();
    return n == 0 ? 0 : n % 2 == 1 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

bool run_patch(const options &opt)
{
    const uint64_t bytes = static_cast<uint64_t>(opt.patch_mib) << 20;
    const double mb = static_cast<double>(bytes) / 1e6;
    printf("\n== patch transfer: %ld MiB in 64 KiB chunks, %d runs each, median (MB = 10^6 bytes) ==\n",
           opt.patch_mib, opt.runs);
    printf("   from the patch_start to the receiver's 60002 \"write success\"; the floor from the\n"
           "   sender's open to the receiver's close\n");
    std::string work = opt.dir + "/dg_bench_patch.XXXXXX";
    if (mkdtemp(work.data()) == nullptr)
        return false;
    struct cleanup {
        std::string dir;
        ~cleanup()
        {
            std::error_code ec;
            std::filesystem::remove_all(dir, ec);
        }
    } clean{work};
    std::string src = work + "/patch.bin";
    if (!make_patch_file(src, opt.patch_mib)) {
        fprintf(stderr, "dg_bench: cannot write %s\n", src.c_str());
        return false;
    }
    // [0] agent <- minimal DG, [1] peer <- minimal DG, [2] agent <- sim, [3] peer <- sim,
    // [4] agent <- minimal DG over TLS
    constexpr int k_sessions = 5;
    std::unique_ptr<session> sessions[k_sessions];
    for (int i = 0; i < k_sessions; i++) {
        if (!opt.fed_by(i == 2 || i == 3) || (i == 4 && tls(opt) == nullptr) || (opt.feed == "tls" && i != 4))
            continue;
        sessions[i] = std::make_unique<session>(opt, i % 2 == 0, i == 2 || i == 3, i == 4 ? tls(opt) : nullptr);
        if (!sessions[i]->ok()) {
            fprintf(stderr, "dg_bench: %s did not start\n%s\n", sessions[i]->name().c_str(),
                    sessions[i]->log_tail().c_str());
            return false;
        }
    }
    std::vector<double> floor_rate, rate[k_sessions], cpu[k_sessions];
    long peak[k_sessions] = {};
    // Interleaved, so a change of load on the shared machine touches every pairing alike.
    for (int run = 1; run <= opt.runs; run++) {
        settle(work);
        double secs = floor_run(src, work + "/floor.bin", bytes);
        if (secs <= 0) {
            fprintf(stderr, "dg_bench: the floor transfer failed\n");
            return false;
        }
        floor_rate.push_back(mb / secs);
        printf("run %d: floor %.1f", run, floor_rate.back());
        for (int i = 0; i < k_sessions; i++) {
            if (!sessions[i])
                continue;
            transfer t;
            if (!session_run(*sessions[i], src, bytes, run, &t))
                return false;
            rate[i].push_back(mb / t.seconds);
            cpu[i].push_back(t.cpu_seconds * 1024.0 / static_cast<double>(opt.patch_mib)); // s per GiB
            peak[i] = std::max({peak[i], t.peak_rss_kib, t.hwm_kib});
            printf(" | %s %.1f", sessions[i]->name().c_str(), rate[i].back());
        }
        printf(" MB/s\n");
    }
    double f = median(floor_rate), r[k_sessions];
    // Run-by-run ratios: a load that changes between runs touches both sides of each pair alike.
    auto paired = [&](const char *what, const std::vector<double> &a, const std::vector<double> &b) {
        std::vector<double> ratios;
        printf("%s, run by run:", what);
        for (size_t i = 0; i < a.size() && i < b.size(); i++) {
            ratios.push_back(a[i] / b[i]);
            printf(" %.2f", ratios.back());
        }
        printf(" (median %.2f)\n", median(ratios));
        return median(ratios);
    };
    if (sessions[0])
        paired("agent <- minimal DG / floor", rate[0], floor_rate);
    double tls_ratio = sessions[0] && sessions[4] ? paired("agent over TLS / agent over TCP", rate[4], rate[0]) : 0;
    if (sessions[4])
        printf("TLS: %s\n", sessions[4]->feeder()->tls_name().c_str());
    printf("%-30s %8.1f MB/s\n", "floor (send/recv/write)", f);
    for (int i = 0; i < k_sessions; i++) {
        r[i] = median(rate[i]);
        if (sessions[i])
            printf("%-30s %8.1f MB/s   %.2f of the floor   peak RSS %6.2f MiB   receiver CPU %.2f s/GiB\n",
                   sessions[i]->name().c_str(), r[i], r[i] / f, peak[i] / 1024.0, median(cpu[i]));
    }
    printf("RESULT patch floor %.1f MB/s | direct agent %.1f MB/s ratio-to-floor %.2f minimal-peer %.1f MB/s | "
           "via-sim agent %.1f MB/s minimal-peer %.1f MB/s ratio %.2f | agent-peak-rss %.2f MiB\n",
           f, r[0], r[0] / f, r[1], r[2], r[3], r[3] > 0 ? r[2] / r[3] : 0.0, std::max(peak[0], peak[2]) / 1024.0);
    printf("RESULT patch-tls agent %.1f MB/s tcp %.1f MB/s ratio-to-tcp %.2f (median of run-by-run) peak-rss %.2f MiB "
           "| agent CPU tls %.2f s/GiB tcp %.2f s/GiB\n",
           r[4], r[0], tls_ratio, peak[4] / 1024.0, median(cpu[4]), median(cpu[0]));
    return true;
}

// ---- connect time ---------------------------------------------------------------------------------

// The agent reconnects to the minimal DG over TCP and over TLS side by side, every 5 s: from
// the DG's accept to the end of the TLS handshake, and to the agent's identity (10043).
bool run_connect(const options &opt)
{
    printf("\n== connect: %d reconnections over TCP and over TLS (cert mode, ECDSA P-256), median ==\n",
           opt.connects);
    printf("   from the DG's accept() to the TLS handshake's end and to the agent's 10043\n");
    if (tls(opt) == nullptr)
        return false;
    session plain(opt, true, false), secure(opt, true, false, tls(opt));
    std::vector<double> handshake, identity[2];
    for (int i = 0; i < opt.connects; i++) {
        session *both[2] = {&plain, &secure};
        for (int k = 0; k < 2; k++) {
            dg_feeder *feeder = both[k]->feeder();
            if (i > 0 && !(feeder->accept_one(30s) && feeder->wait_handshake(30s))) {
                fprintf(stderr, "dg_bench: reconnection %d of %s failed\n%s\n", i, both[k]->name().c_str(),
                        both[k]->log_tail().c_str());
                return false;
            }
            identity[k].push_back(feeder->identity_seconds() * 1e3);
            if (k == 1)
                handshake.push_back(feeder->tls_seconds() * 1e3);
        }
        for (session *s : both)
            s->feeder()->drop(); // the agent reconnects after its 5 s pause
    }
    printf("TCP: accept to 10043 %.2f ms | TLS: accept to handshake end %.2f ms, to 10043 %.2f ms\n",
           median(identity[0]), median(handshake), median(identity[1]));
    printf("RESULT connect tls-handshake %.2f ms tls-to-identity %.2f ms tcp-to-identity %.2f ms | %d reconnections\n",
           median(handshake), median(identity[1]), median(identity[0]), opt.connects);
    return true;
}

// ---- idle footprint ------------------------------------------------------------------------------

bool run_idle(const options &opt)
{
    printf("\n== idle footprint: connected to quil-dg-sim, no commands, %d s ==\n", opt.idle_seconds);
    session agent(opt, true, true), peer(opt, false, true);
    if (!agent.ok() || !peer.ok()) {
        fprintf(stderr, "dg_bench: sessions did not start\n%s\n", agent.log_tail().c_str());
        return false;
    }
    std::this_thread::sleep_for(2s); // past the handshake and the start-up work
    session *both[] = {&agent, &peer};
    long long ticks0[2], ns0[2];
    long rss_max[2] = {0, 0};
    for (int i = 0; i < 2; i++) {
        ticks0[i] = cpu_ticks(both[i]->pid());
        ns0[i] = cpu_ns(both[i]->pid());
    }
    auto t0 = steady::now();
    while (seconds_since(t0) < opt.idle_seconds) {
        std::this_thread::sleep_for(250ms);
        for (int i = 0; i < 2; i++)
            rss_max[i] = std::max(rss_max[i], status_kib(both[i]->pid(), "VmRSS:"));
    }
    double elapsed = seconds_since(t0);
    const double hz = static_cast<double>(sysconf(_SC_CLK_TCK));
    double pct[2];
    for (int i = 0; i < 2; i++) {
        pid_t pid = both[i]->pid();
        double tick_pct = 100.0 * static_cast<double>(cpu_ticks(pid) - ticks0[i]) / hz / elapsed;
        pct[i] = 100.0 * static_cast<double>(cpu_ns(pid) - ns0[i]) / 1e9 / elapsed;
        printf("%-30s CPU %.4f %% of one core (utime+stime: %.3f %%)   VmRSS max %6.2f MiB   VmHWM %6.2f MiB\n",
               both[i]->name().c_str(), pct[i], tick_pct, rss_max[i] / 1024.0, status_kib(pid, "VmHWM:") / 1024.0);
    }
    printf("RESULT idle agent-cpu %.4f %% agent-rss %.2f MiB agent-hwm %.2f MiB | minimal-peer-cpu %.4f %% "
           "minimal-peer-rss %.2f MiB | over %.0f s\n",
           pct[0], rss_max[0] / 1024.0, status_kib(agent.pid(), "VmHWM:") / 1024.0, pct[1], rss_max[1] / 1024.0,
           elapsed);
    return true;
}

bool parse(int argc, char **argv, options *opt)
{
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (a == "--help") {
            fputs(k_usage, stdout);
            exit(0);
        }
        if (i + 1 >= argc)
            return false;
        const char *v = argv[++i];
        if (a == "--pings")
            opt->pings = atoi(v);
        else if (a == "--patch-mib")
            opt->patch_mib = atol(v);
        else if (a == "--runs")
            opt->runs = atoi(v);
        else if (a == "--idle-seconds")
            opt->idle_seconds = atoi(v);
        else if (a == "--connects")
            opt->connects = atoi(v);
        else if (a == "--only")
            opt->only = v;
        else if (a == "--feed")
            opt->feed = v;
        else if (a == "--dir")
            opt->dir = v;
        else
            return false;
    }
    return opt->pings > 0 && opt->patch_mib > 0 && opt->runs > 0 && opt->idle_seconds > 0 && opt->connects > 0 &&
           (opt->feed == "minimal" || opt->feed == "sim" || opt->feed == "both" || opt->feed == "tls");
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 4 && strcmp(argv[1], "--peer") == 0)
        return run_peer(atoi(argv[2]), argv[3]);
    options opt;
    if (!parse(argc, argv, &opt)) {
        fputs(k_usage, stderr);
        return 2;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    signal(SIGPIPE, SIG_IGN);
    bool ok = true;
    if (opt.wants("ping"))
        ok = run_ping(opt) && ok;
    if (opt.wants("patch"))
        ok = run_patch(opt) && ok;
    if (opt.wants("connect"))
        ok = run_connect(opt) && ok;
    if (opt.wants("idle"))
        ok = run_idle(opt) && ok;
    if (s_tls) {
        std::error_code ec;
        std::filesystem::remove_all(s_tls->dir, ec);
    }
    return ok ? 0 : 1;
}
