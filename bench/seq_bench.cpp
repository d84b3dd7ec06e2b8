/* The watch-descriptor table, from a thousand to a million entries. */
#include "linux/seq.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <vector>

namespace
{

constexpr uint64_t kDentry = 0x1000;

class Table
{
public:
    explicit Table(int entries)
    {
        for (int wd = 1; wd <= entries; wd++)
            seq_set(&t, wd, kDentry);
    }
    ~Table() { free(t.entries); }
    Table(const Table &) = delete;
    Table &operator=(const Table &) = delete;

    struct seq_table t = {};
};

int size_of(const benchmark::State &state) { return static_cast<int>(state.range(0)); }

/* The same descriptors in an order that caches cannot foresee. */
std::vector<int> shuffled(int entries)
{
    std::vector<int> wds;
    for (int wd = 1; wd <= entries; wd++)
        wds.push_back(wd);
    std::shuffle(wds.begin(), wds.end(), std::mt19937(1));
    return wds;
}

/* Watch descriptors rise, as the kernel hands them out. */
void seq_fill(benchmark::State &state)
{
    for (auto _ : state) {
        const Table table(size_of(state));
        benchmark::DoNotOptimize(table.t.entries);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(seq_fill)->RangeMultiplier(10)->Range(1000, 1000000)->Unit(benchmark::kMicrosecond);

void seq_look_up(benchmark::State &state)
{
    Table table(size_of(state));
    const std::vector<int> wds = shuffled(size_of(state));
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(seq_get(&table.t, wds[i]));
        i = i + 1 == wds.size() ? 0 : i + 1;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(seq_look_up)->RangeMultiplier(10)->Range(1000, 1000000);

void seq_overwrite(benchmark::State &state)
{
    Table table(size_of(state));
    const std::vector<int> wds = shuffled(size_of(state));
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(seq_set(&table.t, wds[i], SEQ_POISON));
        i = i + 1 == wds.size() ? 0 : i + 1;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(seq_overwrite)->RangeMultiplier(10)->Range(1000, 1000000);

/* Deletions with their sweeps: every 256th passes over the whole table. */
void seq_delete(benchmark::State &state)
{
    const std::vector<int> wds = shuffled(size_of(state));
    const int deletions = std::min(size_of(state), 100 * SEQ_SWEEP);
    for (auto _ : state) {
        state.PauseTiming();
        Table table(size_of(state));
        state.ResumeTiming();
        for (int i = 0; i < deletions; i++)
            seq_del(&table.t, wds[static_cast<size_t>(i)]);
    }
    state.SetItemsProcessed(state.iterations() * deletions);
}
BENCHMARK(seq_delete)->RangeMultiplier(10)->Range(1000, 1000000)->Unit(benchmark::kMicrosecond);

}  // namespace
