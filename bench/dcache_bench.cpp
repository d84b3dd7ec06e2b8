/*
 * The directory cache, from a thousand to two million directories, ten to a directory where nothing else is said.
 * Look-ups go to them in random order, so that the larger sizes show what misses of the processor's caches cost.
 */
#include "dcache.h"

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

namespace
{

constexpr size_t kFanOut = 10, kWideFanOut = 1000;

/* Names and places of the directories; the parent of each stands before it. */
struct Plan {
    const size_t fan_out;
    std::vector<std::string> names, paths;

    struct dentry *parent(size_t i, const std::vector<struct dentry *> &dentries, struct dentry *root) const
    {
        return i < fan_out ? root : dentries[i / fan_out - 1];
    }

    explicit Plan(int64_t entries, bool with_paths = false, size_t per_directory = kFanOut) : fan_out(per_directory)
    {
        for (int64_t i = 0; i < entries; i++) {
            char name[32];
            snprintf(name, sizeof(name), "dir-%06llx", static_cast<unsigned long long>(i * 40503 % 16777213));
            names.push_back(name);
            if (with_paths)
                paths.push_back((names.size() <= fan_out ? "" : paths[paths.size() / fan_out - 1]) + "/" + name);
        }
    }
};

/* A filled cache; `dentries` in the order of the plan, parents first. */
struct Filled {
    struct dcache cache;
    std::vector<struct dentry *> dentries;

    explicit Filled(const Plan &plan)
    {
        dcache_init(&cache, DCACHE_MAX_ENTRIES, nullptr);
        dentries.reserve(plan.names.size());
        fill(plan);
    }
    ~Filled() { dcache_destroy(&cache); }
    Filled(const Filled &) = delete;
    Filled &operator=(const Filled &) = delete;

    void fill(const Plan &plan)
    {
        for (size_t i = 0; i < plan.names.size(); i++) {
            struct dentry *parent = plan.parent(i, dentries, cache.root);
            dentries.push_back(dcache_add_sub(&cache, parent, plan.names[i].c_str()));
        }
    }
};

std::vector<uint32_t> random_order(size_t entries)
{
    std::vector<uint32_t> order(entries);
    for (uint32_t i = 0; i < entries; i++)
        order[i] = i;
    std::shuffle(order.begin(), order.end(), std::mt19937(1));
    return order;
}

size_t heap_bytes()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

/* Runs `step` on one directory after the other, in random order. */
template <typename F>
void step_through(benchmark::State &state, size_t entries, F step)
{
    const std::vector<uint32_t> order = random_order(entries);
    size_t next = 0;
    for (auto _ : state) {
        step(order[next]);
        next = next + 1 == entries ? 0 : next + 1;
    }
    state.SetItemsProcessed(state.iterations());
}

/* One directory after the other below its parent, as a tree on disk is taken in. The table's growth is included. */
void add_all(benchmark::State &state, size_t fan_out)
{
    const Plan plan(state.range(0), false, fan_out);
    double bytes = 0;
    std::vector<struct dentry *> dentries(plan.names.size());
    for (auto _ : state) {
        state.PauseTiming();
        const size_t before = heap_bytes();
        struct dcache cache;
        dcache_init(&cache, DCACHE_MAX_ENTRIES, nullptr);
        state.ResumeTiming();
        for (size_t i = 0; i < plan.names.size(); i++) {
            struct dentry *parent = plan.parent(i, dentries, cache.root);
            dentries[i] = dcache_add_sub(&cache, parent, plan.names[i].c_str());
        }
        state.PauseTiming();
        bytes = static_cast<double>(heap_bytes() - before);
        dcache_destroy(&cache);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.counters["bytes/entry"] = bytes / static_cast<double>(state.range(0));
}

void dcache_adding(benchmark::State &state) { add_all(state, kFanOut); }
void dcache_adding_wide(benchmark::State &state) { add_all(state, kWideFanOut); }

void dcache_adding_by_path(benchmark::State &state)
{
    const Plan plan(state.range(0), true);
    for (auto _ : state) {
        state.PauseTiming();
        struct dcache cache;
        dcache_init(&cache, DCACHE_MAX_ENTRIES, nullptr);
        state.ResumeTiming();
        for (const std::string &path : plan.paths)
            benchmark::DoNotOptimize(dcache_add(&cache, path.c_str()));
        state.PauseTiming();
        dcache_destroy(&cache);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void dcache_finding(benchmark::State &state)
{
    const Plan plan(state.range(0), true);
    Filled filled(plan);
    step_through(state, plan.paths.size(),
                 [&](size_t i) { benchmark::DoNotOptimize(dcache_find(&filled.cache, plan.paths[i].c_str())); });
}

void dcache_finding_child(benchmark::State &state)
{
    const Plan plan(state.range(0));
    Filled filled(plan);
    step_through(state, plan.names.size(), [&](size_t i) {
        struct dentry *parent = plan.parent(i, filled.dentries, filled.cache.root);
        benchmark::DoNotOptimize(dcache_find_sub(&filled.cache, parent, plan.names[i].c_str()));
    });
}

/* What an event on a file asks: its name is not cached. Nine directories in ten have no children. */
void dcache_missing_child(benchmark::State &state)
{
    const Plan plan(state.range(0));
    Filled filled(plan);
    step_through(state, plan.names.size(), [&](size_t i) {
        benchmark::DoNotOptimize(dcache_find_sub(&filled.cache, filled.dentries[i], "report-2024.txt"));
    });
}

void dcache_building_path(benchmark::State &state)
{
    const Plan plan(state.range(0));
    Filled filled(plan);
    step_through(state, plan.names.size(),
                 [&](size_t i) { benchmark::DoNotOptimize(dentry_path_null(filled.dentries[i])); });
}

/* Children before parents; the table's shrinking is included. */
void dcache_deleting(benchmark::State &state)
{
    const Plan plan(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        Filled filled(plan);
        state.ResumeTiming();
        for (size_t i = filled.dentries.size(); i-- > 0;)
            benchmark::DoNotOptimize(dcache_del(&filled.cache, filled.dentries[i]));
        state.PauseTiming();
        filled.dentries.clear();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void dcache_traversing(benchmark::State &state)
{
    const Plan plan(state.range(0));
    Filled filled(plan);
    for (auto _ : state) {
        struct dcache_traverse walk;
        dcache_traverse_start(&walk, filled.cache.root, nullptr);
        while (dcache_traverse_next_safe(&walk))
            ;
        dcache_traverse_end(&walk);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void dcache_hashing(benchmark::State &state)
{
    const std::string name(static_cast<size_t>(state.range(0)), 'n');
    uint64_t salt = 0x55550000a010;
    for (auto _ : state)
        benchmark::DoNotOptimize(salt = full_name_hash(salt, name.data(), static_cast<uint32_t>(name.size())));
    state.SetItemsProcessed(state.iterations());
}

void sizes(benchmark::internal::Benchmark *bench)
{
    bench->ArgName("entries");
    for (int64_t entries : {1000, 10000, 100000, 1000000, 2000000})
        bench->Arg(entries);
}

BENCHMARK(dcache_adding)->Apply(sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(dcache_adding_wide)->Apply(sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(dcache_adding_by_path)->Apply(sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(dcache_finding)->Apply(sizes);
BENCHMARK(dcache_finding_child)->Apply(sizes);
BENCHMARK(dcache_missing_child)->Apply(sizes);
BENCHMARK(dcache_building_path)->Apply(sizes);
BENCHMARK(dcache_deleting)->Apply(sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(dcache_traversing)->Apply(sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(dcache_hashing)->ArgName("bytes")->Arg(3)->Arg(7)->Arg(8)->Arg(16)->Arg(64)->Arg(255);

}  // namespace
