// codec_bench: time per message of the agent's own codec (the pbtools runtime behind
// command and common_agent_info) beside libprotobuf at its best (one reused message object,
// SerializeToArray into a reused buffer, ParseFromArray into the reused object), on the same
// values: a command result, the agent information and a 64 KiB patch chunk. The encodings
// are checked byte for byte before anything is timed; the closing table gives agent/libprotobuf.
#include "command.h"
#include "common_agent_info.h"

#include "dg_protocol.pb.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace
{

// ---- the values -------------------------------------------------------------------------------

const char k_manager_id[] = "3f2c1a9e-0b7d-4c55-9a61-5d2e8f0c1b47";
const char k_agent_id[] = "0b6f2d7e-5c1a-4e8f-9d3b-7a2c4e6f8a10";
const char k_execution_id[] = "exec-20250218-104417-0001";
const char k_command_id[] = "cmd-20250218-104417-0001-restart";
// About 200 characters, what a restart's result carries: the scripts' output and keywords.
const char k_result_message[] =
    "[agent manager] command(agent_restart) success\n"
    "stopping sample agent (pid 48213)\nvkSuccess\n"
    "starting sample agent from /opt/sample/bin with /opt/sample/conf/agent.conf\n"
    "started (pid 48377)\nvkSuccess\n";

constexpr size_t k_chunk_bytes = 64 * 1024;
constexpr size_t k_buffer_bytes = 128 * 1024; // encode output and workspace: room for a chunk
constexpr size_t k_decode_extra = 4096;       // what the agent adds to a body for its decode workspace

std::vector<uint8_t> &chunk_data()
{
    static std::vector<uint8_t> data = [] {
        std::vector<uint8_t> d(k_chunk_bytes);
        uint32_t x = 2463534242u; // xorshift: incompressible, reproducible
        for (uint8_t &b : d) {
            x ^= x << 13;
            x ^= x >> 17;
            x ^= x << 5;
            b = static_cast<uint8_t>(x);
        }
        return d;
    }();
    return data;
}

// Eight interface addresses (IPv4 and IPv6 alternating) and four MACs, as on a host with four
// interfaces that carry one address of each family.
struct address_set {
    uint8_t ip[8][16];
    uint8_t ip_len[8];
    uint8_t mac[4][6];
    address_set()
    {
        for (int i = 0; i < 8; i++) {
            ip_len[i] = i % 2 == 0 ? 4 : 16;
            for (int j = 0; j < 16; j++)
                ip[i][j] = static_cast<uint8_t>(i % 2 == 0 ? (j == 0 ? 10 : 17 * i + j) : 0x20 + 31 * i + j);
        }
        for (int i = 0; i < 4; i++)
            for (int j = 0; j < 6; j++)
                mac[i][j] = static_cast<uint8_t>(j == 0 ? 0x52 : 0x40 + 11 * i + j);
    }
};
const address_set g_addresses;

// ---- the same values in both codecs ---------------------------------------------------------------

struct workspace {
    std::unique_ptr<uint64_t[]> words{new uint64_t[k_buffer_bytes / 8]()};
    void *get() { return words.get(); }
};

res_command_message_t *agent_result(workspace &ws)
{
    res_command_message_t *m = res_command_message_new(ws.get(), k_buffer_bytes);
    if (m == nullptr)
        return nullptr;
    m->manager_id = k_manager_id;
    m->time = 1739871857123ull;
    m->phase_type = 2;
    m->execution_id = k_execution_id;
    m->command_id = k_command_id;
    m->cmd_type = 1;
    m->agent_id = k_agent_id;
    m->agent_type = 7;
    m->result = 1;
    m->result_message = k_result_message;
    return m;
}

void proto_result(dg::res_command_message *m)
{
    m->set_manager_id(k_manager_id);
    m->set_time(1739871857123ull);
    m->set_phase_type(dg::done);
    m->set_execution_id(k_execution_id);
    m->set_command_id(k_command_id);
    m->set_cmd_type(dg::agent_restart);
    m->set_agent_id(k_agent_id);
    m->set_agent_type(static_cast<dg::agent_type_e>(7));
    m->set_result(dg::SUCCESS);
    m->set_result_message(k_result_message);
}

common_req_agent_info_message_t *agent_info(workspace &ws)
{
    common_req_agent_info_message_t *m = common_req_agent_info_message_new(ws.get(), k_buffer_bytes);
    if (m == nullptr || common_req_agent_info_message_ip_infos_alloc(m, 8) != 0 ||
        common_req_agent_info_message_mac_infos_alloc(m, 4) != 0 ||
        common_req_agent_info_message_custom_infos_alloc(m, 1) != 0)
        return nullptr;
    m->agent_time = 1739871857123;
    m->agent_type_name = "quil-manager-agent";
    m->agent_version = "3.0.11 (0xd6f006f 0x2e71ff7 0xdb3edcf)";
    m->agent_kind = 4;
    m->agent_mode = 1;
    m->protocol_version = 20241111;
    m->host_name = "app-server-017.prod.example.internal";
    m->machine_id = "8d2f6b1c0e4a4f7e9b3c5d7f1a2e4c6b";
    m->os_kind = 4;
    m->os_version = "Debian GNU/Linux 12 (bookworm) 6.1.0-18-amd64";
    m->cpu_count = 2;
    m->cpu_core_count = 16;
    m->cpu_thread_count = 32;
    for (int i = 0; i < 8; i++) {
        m->ip_infos.items_p[i].ip_version = g_addresses.ip_len[i] == 4 ? 4 : 6;
        m->ip_infos.items_p[i].ip_address = {const_cast<uint8_t *>(g_addresses.ip[i]), g_addresses.ip_len[i]};
    }
    for (int i = 0; i < 4; i++)
        m->mac_infos.items_p[i].mac_address = {const_cast<uint8_t *>(g_addresses.mac[i]), 6};
    m->custom_infos.items_p[0].key = "manager_id";
    m->custom_infos.items_p[0].value = k_manager_id;
    m->boot_time = 1739001234000;
    return m;
}

void proto_info(dg::common_req_agent_info_message *m)
{
    m->set_agent_time(1739871857123);
    m->set_agent_type_name("quil-manager-agent");
    m->set_agent_version("3.0.11 (0xd6f006f 0x2e71ff7 0xdb3edcf)");
    m->set_agent_kind(4);
    m->set_agent_mode(1);
    m->set_protocol_version(20241111);
    m->set_host_name("app-server-017.prod.example.internal");
    m->set_machine_id("8d2f6b1c0e4a4f7e9b3c5d7f1a2e4c6b");
    m->set_os_kind(4);
    m->set_os_version("Debian GNU/Linux 12 (bookworm) 6.1.0-18-amd64");
    m->set_cpu_count(2);
    m->set_cpu_core_count(16);
    m->set_cpu_thread_count(32);
    for (int i = 0; i < 8; i++) {
        dg::common_ip_info *ip = m->add_ip_infos();
        ip->set_ip_version(g_addresses.ip_len[i] == 4 ? 4 : 6);
        ip->set_ip_address(g_addresses.ip[i], g_addresses.ip_len[i]);
    }
    for (int i = 0; i < 4; i++)
        m->add_mac_infos()->set_mac_address(g_addresses.mac[i], 6);
    (*m->mutable_custom_infos())["manager_id"] = k_manager_id;
    m->set_boot_time(1739001234000);
}

req_file_chunk_message_t *agent_chunk(workspace &ws)
{
    req_file_chunk_message_t *m = req_file_chunk_message_new(ws.get(), k_buffer_bytes);
    if (m == nullptr || req_file_chunk_message_target_file_info_alloc(m) != 0)
        return nullptr;
    m->execution_id = k_execution_id;
    m->agent_id = k_agent_id;
    m->target_file_info->file_name = "setup.bin";
    m->target_file_info->file_size = 1ull << 30;
    m->chunk_size = k_chunk_bytes;
    m->chunk_index = 4242;
    m->chunk_count = 16384;
    m->chunk_data = {chunk_data().data(), k_chunk_bytes};
    return m;
}

void proto_chunk(dg::req_file_chunk_message *m)
{
    m->set_execution_id(k_execution_id);
    m->set_agent_id(k_agent_id);
    m->mutable_target_file_info()->set_file_name("setup.bin");
    m->mutable_target_file_info()->set_file_size(1ull << 30);
    m->set_chunk_size(k_chunk_bytes);
    m->set_chunk_index(4242);
    m->set_chunk_count(16384);
    m->set_chunk_data(chunk_data().data(), k_chunk_bytes);
}

// ---- one message in both codecs ---------------------------------------------------------------------

// The agent side of a message type: its record and the three generated operations.
template <typename R> struct agent_ops {
    R *(*make)(workspace &);
    R *(*fresh)(void *, size_t); // M_new
    int (*encode)(const R *, uint8_t *, size_t);
    int (*decode)(R *, const uint8_t *, size_t);
};

std::string hex_prefix(const uint8_t *p, size_t n)
{
    std::string out;
    char b[4];
    for (size_t i = 0; i < n && i < 48; i++) {
        snprintf(b, sizeof b, "%02x", p[i]);
        out += b;
    }
    return out;
}

// Builds both, checks that they encode to the same bytes (and that the agent's decode of them
// encodes back to the same bytes), then registers the four timings. Exits with a message when
// the encodings differ: a ratio between two different outputs would mean nothing.
template <typename R, typename P>
void register_message(const char *name, agent_ops<R> ops, void (*fill)(P *))
{
    struct state_t {
        workspace ws, decode_ws, body;
        R *record = nullptr;
        P proto;
        std::vector<uint8_t> out = std::vector<uint8_t>(k_buffer_bytes);
        std::string encoded;
    };
    auto s = std::make_shared<state_t>();
    s->record = ops.make(s->ws);
    fill(&s->proto);
    if (s->record == nullptr || !s->proto.SerializeToString(&s->encoded)) {
        fprintf(stderr, "codec_bench: %s: could not build the message\n", name);
        exit(2);
    }
    int n = ops.encode(s->record, s->out.data(), s->out.size());
    if (n < 0 || static_cast<size_t>(n) != s->encoded.size() || memcmp(s->out.data(), s->encoded.data(), s->encoded.size()) != 0) {
        fprintf(stderr,
                "codec_bench: %s: the encodings differ (agent %d bytes, libprotobuf %zu bytes)\n"
                "  agent       %s\n  libprotobuf %s\n",
                name, n, s->encoded.size(), hex_prefix(s->out.data(), n < 0 ? 0 : static_cast<size_t>(n)).c_str(),
                hex_prefix(reinterpret_cast<const uint8_t *>(s->encoded.data()), s->encoded.size()).c_str());
        exit(2);
    }
    // Both codecs decode the body from a buffer of its own, as the receive path has it, not from
    // the std::string it was serialised into. A copy whose destination starts a few bytes past
    // its source modulo 4 KiB is slowed by false dependencies between its loads and stores; the
    // string's place put the agent's 64 KiB chunk copy 23 bytes past its source, so that line
    // measured where the buffers happened to lie (here the destination is about 120 bytes past).
    memcpy(s->body.get(), s->encoded.data(), s->encoded.size());
    const auto *wire = static_cast<const uint8_t *>(s->body.get());
    const size_t wire_size = s->encoded.size();
    const size_t decode_ws_size = wire_size + k_decode_extra;
    {
        R *back = ops.fresh(s->decode_ws.get(), decode_ws_size);
        std::vector<uint8_t> again(k_buffer_bytes);
        if (back == nullptr || ops.decode(back, wire, wire_size) != static_cast<int>(wire_size) ||
            ops.encode(back, again.data(), again.size()) != n || memcmp(again.data(), wire, wire_size) != 0) {
            fprintf(stderr, "codec_bench: %s: the agent's decode does not give the message back\n", name);
            exit(2);
        }
        P parsed;
        if (!parsed.ParseFromArray(wire, static_cast<int>(wire_size)) ||
            parsed.SerializeAsString() != s->encoded) {
            fprintf(stderr, "codec_bench: %s: libprotobuf does not give the message back\n", name);
            exit(2);
        }
    }
    printf("%-12s %6zu bytes encoded, identical in both codecs\n", name, wire_size);

    const std::string base = name;
    const int64_t bytes = static_cast<int64_t>(wire_size);
    benchmark::RegisterBenchmark(("encode/" + base + "/agent").c_str(), [s, ops, bytes](benchmark::State &st) {
        for (auto _ : st) {
            int r = ops.encode(s->record, s->out.data(), s->out.size());
            benchmark::DoNotOptimize(r);
            benchmark::ClobberMemory();
        }
        st.SetBytesProcessed(st.iterations() * bytes);
    });
    benchmark::RegisterBenchmark(("encode/" + base + "/libprotobuf").c_str(), [s, bytes](benchmark::State &st) {
        for (auto _ : st) {
            bool ok = s->proto.SerializeToArray(s->out.data(), static_cast<int>(s->out.size()));
            benchmark::DoNotOptimize(ok);
            benchmark::ClobberMemory();
        }
        st.SetBytesProcessed(st.iterations() * bytes);
    });
    // The agent decodes every body into a fresh record on a workspace of body + 4096 bytes.
    benchmark::RegisterBenchmark(("decode/" + base + "/agent").c_str(),
                                 [s, ops, wire, wire_size, decode_ws_size, bytes](benchmark::State &st) {
                                     for (auto _ : st) {
                                         R *r = ops.fresh(s->decode_ws.get(), decode_ws_size);
                                         int got = ops.decode(r, wire, wire_size);
                                         benchmark::DoNotOptimize(got);
                                         benchmark::ClobberMemory();
                                     }
                                     st.SetBytesProcessed(st.iterations() * bytes);
                                 });
    benchmark::RegisterBenchmark(("decode/" + base + "/libprotobuf").c_str(),
                                 [wire, wire_size, bytes](benchmark::State &st) {
                                     P target;
                                     for (auto _ : st) {
                                         bool ok = target.ParseFromArray(wire, static_cast<int>(wire_size));
                                         benchmark::DoNotOptimize(ok);
                                         benchmark::ClobberMemory();
                                     }
                                     st.SetBytesProcessed(st.iterations() * bytes);
                                 });
    // What the agent's receive path adds on top: a workspace allocated per body.
    benchmark::RegisterBenchmark(("decode+alloc/" + base + "/agent").c_str(),
                                 [ops, wire, wire_size, decode_ws_size, bytes](benchmark::State &st) {
                                     for (auto _ : st) {
                                         std::unique_ptr<void, decltype(&free)> ws(malloc(decode_ws_size), free);
                                         R *r = ops.fresh(ws.get(), decode_ws_size);
                                         int got = ops.decode(r, wire, wire_size);
                                         benchmark::DoNotOptimize(got);
                                         benchmark::ClobberMemory();
                                     }
                                     st.SetBytesProcessed(st.iterations() * bytes);
                                 });
}

// Keeps each benchmark's CPU time per operation (the median when repetitions are asked for)
// for the closing comparison.
class ratio_reporter : public benchmark::ConsoleReporter
{
  public:
    ratio_reporter() : ConsoleReporter(OO_None) {}
    std::map<std::string, double> ns_per_op;
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs) {
            if (run.error_occurred)
                continue;
            const std::string &key = run.run_name.function_name;
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median")
                ns_per_op[key] = run.GetAdjustedCPUTime();
            else if (run.run_type == Run::RT_Iteration && run.repetitions <= 1)
                ns_per_op[key] = run.GetAdjustedCPUTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }
};

} // namespace

int main(int argc, char **argv)
{
    GOOGLE_PROTOBUF_VERIFY_VERSION;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    static const char *const names[] = {"result", "agent_info", "chunk_64k"};
    register_message<res_command_message_t, dg::res_command_message>(
        names[0], {agent_result, res_command_message_new, res_command_message_encode, res_command_message_decode},
        proto_result);
    register_message<common_req_agent_info_message_t, dg::common_req_agent_info_message>(
        names[1],
        {agent_info, common_req_agent_info_message_new, common_req_agent_info_message_encode,
         common_req_agent_info_message_decode},
        proto_info);
    register_message<req_file_chunk_message_t, dg::req_file_chunk_message>(
        names[2],
        {agent_chunk, req_file_chunk_message_new, req_file_chunk_message_encode, req_file_chunk_message_decode},
        proto_chunk);
    printf("\n");
    fflush(stdout);

    ratio_reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    printf("\n%-12s %-7s %14s %14s %8s   %s\n", "message", "dir", "agent ns/op", "libprotobuf", "ratio",
           "(agent/libprotobuf, CPU time; under 1.0 is faster)");
    for (const char *name : names) {
        for (const char *dir : {"encode", "decode"}) {
            std::string stem = std::string(dir) + "/" + name;
            auto a = reporter.ns_per_op.find(stem + "/agent");
            auto p = reporter.ns_per_op.find(stem + "/libprotobuf");
            if (a == reporter.ns_per_op.end() || p == reporter.ns_per_op.end() || p->second <= 0)
                continue; // filtered out
            printf("%-12s %-7s %14.1f %14.1f %8.2f\n", name, dir, a->second, p->second, a->second / p->second);
        }
        auto c = reporter.ns_per_op.find(std::string("decode+alloc/") + name + "/agent");
        auto p = reporter.ns_per_op.find(std::string("decode/") + name + "/libprotobuf");
        if (c != reporter.ns_per_op.end() && p != reporter.ns_per_op.end() && p->second > 0)
            printf("%-12s %-7s %14.1f %14.1f %8.2f   (with the receive path's workspace malloc per body)\n", name,
                   "decode", c->second, p->second, c->second / p->second);
    }
    google::protobuf::ShutdownProtobufLibrary();
    return 0;
}
