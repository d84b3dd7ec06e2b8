/* What a log line costs that nobody reads. */
#include "log.h"

#include <benchmark/benchmark.h>

#include "event.h"

namespace
{

constexpr char kFile[] = "event.c";
constexpr char kPath[] = "/srv/data/projects/report.txt";

/* The agent's level for the life of one case. */
class Level
{
public:
    explicit Level(int level) : saved_(error_output_level) { error_output_level = level; }
    ~Level() { error_output_level = saved_; }
    Level(const Level &) = delete;
    Level &operator=(const Level &) = delete;

private:
    int saved_;
};

void write_line(uint32_t mask, int pid)
{
    FMON_LOG(4, kFile, "create new event: %s, len:%d, ev: %s, pid: %d\n", kPath, static_cast<int>(sizeof(kPath) - 1),
             event_str(mask), pid);
}

void log_empty_loop(benchmark::State &state)
{
    int pid = 1;
    for (auto _ : state) {
        benchmark::DoNotOptimize(pid);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(log_empty_loop);

/* A debug line under an agent that wants warnings. */
void log_above_level(benchmark::State &state)
{
    const Level level(ORX_LOG_WARNING);
    int pid = 1;
    for (auto _ : state) {
        benchmark::DoNotOptimize(pid);
        write_line(FMON_CREATE, pid);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(log_above_level);

void log_formatted(benchmark::State &state)
{
    const Level level(ORX_LOG_DEBUG);
    int pid = 1;
    for (auto _ : state) {
        benchmark::DoNotOptimize(pid);
        write_line(FMON_CREATE, pid);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(log_formatted);

}  // namespace
