/*
 * Naming the process of an event: one that is known, in a turn of the monitor that has looked at it already and in a
 * new one, and one that is not known.
 */
#include <benchmark/benchmark.h>
#include <unistd.h>

#include "agent/process_info.h"

namespace
{

void process_in_turn(benchmark::State &state)
{
    agent::ProcessCache cache;
    const auto pid = static_cast<uint32_t>(getpid());
    for (auto _ : state)
        benchmark::DoNotOptimize(cache.find(pid, 1, 0));
}
BENCHMARK(process_in_turn);

void process_new_turn(benchmark::State &state)
{
    agent::ProcessCache cache;
    const auto pid = static_cast<uint32_t>(getpid());
    uint64_t turn = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(cache.find(pid, ++turn, 0));
}
BENCHMARK(process_new_turn);

void process_not_known(benchmark::State &state)
{
    agent::ProcessCache cache;
    const auto pid = static_cast<uint32_t>(getpid());
    uint64_t now = 0;
    for (auto _ : state) {
        now += agent::ProcessCache::kRefreshMs;
        benchmark::DoNotOptimize(cache.find(pid, now, now));
    }
}
BENCHMARK(process_not_known);

}  // namespace
