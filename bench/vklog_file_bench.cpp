// vklog_file_bench: what a logged line costs. Compares vklog's file output (DEFAULT preset
// header: time with microseconds, pid, level; file opened per line, size checked for
// rotation) with a plain write() of a line of the same length on an already open descriptor,
// and prints lines/second for both and their ratio; an open/write/close loop shows the floor
// that opening the file per line sets.
#include "vklog.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <string>
#include <unistd.h>

namespace
{

std::string g_dir;

void set(vklog_config_t *c, vklog_cfg_type_t key, const std::string &v)
{
    (void)vklog_config_set(c, key, static_cast<unsigned>(v.size()), v.c_str());
}

void BM_vklog_file(benchmark::State &state)
{
    vklog_config_t *c = vklog_config_new_from_preset(VKLOG_CFG_PRESET_DEFAULT);
    set(c, VKLOG_CFG_TYPE_NAME, "bench");
    set(c, VKLOG_CFG_TYPE_OUTPUT_TYPE, "file");
    set(c, VKLOG_CFG_TYPE_DIRECTORY, g_dir);
    set(c, VKLOG_CFG_TYPE_LEVEL, "info");
    int err = 0;
    if (vklog_initialize_with_config(c, &err) != 0) {
        state.SkipWithError("vklog set-up failed");
        return;
    }
    vklog_t *cat = vklog_get_category("bench");
    int i = 0;
    for (auto _ : state)
        VKLOG_INFO(cat, "[BM_vklog_file] message number %d with a little payload\n", i++);
    state.SetItemsProcessed(state.iterations());
    vklog_fini();
}

void BM_plain_write(benchmark::State &state)
{
    std::string path = g_dir + "/plain.log";
    int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
    if (fd < 0) {
        state.SkipWithError("open failed");
        return;
    }
    // Same length as a vklog line: header "[dd hh:mm:ss.uuuuuu][pid][INFO]" and the message.
    char line[160];
    int len = snprintf(line, sizeof(line),
                       "[01 00:00:00.000000][%d][INFO][BM_vklog_file] message number %d with a "
                       "little payload\n",
                       static_cast<int>(getpid()), 123456);
    for (auto _ : state)
        benchmark::DoNotOptimize(write(fd, line, static_cast<size_t>(len)));
    state.SetItemsProcessed(state.iterations());
    close(fd);
    unlink(path.c_str());
}

// The floor that opening the file for every line sets: open, write, close, nothing else.
void BM_plain_open_per_line(benchmark::State &state)
{
    std::string path = g_dir + "/reopen.log";
    const char line[] =
        "[01 00:00:00.000000][4711][INFO][BM_vklog_file] message number 123456 with a little payload\n";
    for (auto _ : state) {
        int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
        benchmark::DoNotOptimize(write(fd, line, sizeof(line) - 1));
        close(fd);
    }
    state.SetItemsProcessed(state.iterations());
    unlink(path.c_str());
}

BENCHMARK(BM_vklog_file)->UseRealTime(); // file I/O: wall time is what a caller waits
BENCHMARK(BM_plain_write)->UseRealTime();
BENCHMARK(BM_plain_open_per_line)->UseRealTime();

// Keeps each benchmark's lines/second for the closing comparison.
class rate_reporter : public benchmark::ConsoleReporter
{
  public:
    rate_reporter() : ConsoleReporter(OO_None) {} // plain text: the figures end up in reports
    std::map<std::string, double> rates;
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs) {
            // With repetitions, the median stands for the benchmark.
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median")
                continue;
            auto it = run.counters.find("items_per_second");
            if (it != run.counters.end())
                rates[run.run_name.function_name] = it->second.value;
        }
        ConsoleReporter::ReportRuns(runs);
    }
};

} // namespace

int main(int argc, char **argv)
{
    char tmpl[] = "/tmp/vklog_bench_XXXXXX";
    if (mkdtemp(tmpl) == nullptr)
        return 1;
    g_dir = tmpl;
    benchmark::Initialize(&argc, argv);
    rate_reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    std::error_code ec;
    std::filesystem::remove_all(g_dir, ec);

    double vk = reporter.rates["BM_vklog_file"];
    double plain = reporter.rates["BM_plain_write"];
    printf("\nvklog file output : %12.0f lines/second\n", vk);
    printf("plain write()     : %12.0f lines/second\n", plain);
    double reopen = reporter.rates["BM_plain_open_per_line"];
    printf("open/write/close  : %12.0f lines/second\n", reopen);
    if (vk > 0)
        printf("ratio plain/vklog : %12.2f\n", plain / vk);
    if (reopen > 0)
        printf("vklog / open/write/close : %5.2f (target at least 0.8)\n", vk / reopen);
    return 0;
}
