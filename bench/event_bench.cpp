/*
 * The event table: from the backend's callback to the instances' queues and off them again. The tree exists in the
 * cache only; no kernel event is needed.
 */
#include "event.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "fmon.h"
#include "list.h"
#include "quiet_monitor.h"

namespace
{

constexpr int kFd = 3;
constexpr char kTop[] = "/srv/shares/projects";
constexpr uint32_t kTree = FMON_DIR | FMON_RECURSIVE;

/* A watch is put on the dentry of its path, and that is all. */
class Monitor : public bench::QuietMonitor
{
public:
    using QuietMonitor::QuietMonitor;

    static int instance() { return fmon_create_instance(("bench" + std::to_string(fmon.inst_mask)).c_str()); }

    /* A watch whose path need not exist: it is made to wait, and then attached by hand. */
    static void watch(int id, struct dentry *d, uint32_t mask, uint32_t flags)
    {
        std::string path = "/nosuch/" + std::to_string(watches_made_++);
        fmon_add_watch(id, path.c_str(), mask, flags | FMON_DELETED, 0, 0);
        struct watch *w = FMON_RECORD(fmon.tbd.prev, struct watch, link);
        list_unlink(&w->link);
        free(w->path);
        w->path = dentry_path_dup(d);
        w->dentry = d;
        list_add_tail(&w->link, &owner_of(d)->watches);
    }

    static struct dentry *directory(const std::string &path) { return dcache_add(&fmon.dcache, path.c_str()); }

private:
    static inline int watches_made_ = 0;
};

void process(struct dentry *d, const std::string &name, uint32_t mask)
{
    event_process(&fmon, d, name.c_str(), mask, 0, kFd, nullptr);
}

/* ---- one record ---- */

/* Made, given to the number of instances, read and freed by all of them. */
void event_new_record(benchmark::State &state)
{
    Monitor monitor(10000);
    struct dentry *top = Monitor::directory(kTop);
    const int instances = static_cast<int>(state.range(0));
    for (int i = 0; i < instances; i++)
        Monitor::watch(Monitor::instance(), top, FMON_ALL_EVENTS, kTree);
    for (auto _ : state) {
        process(top, "report.txt", FMON_CREATE);
        for (int i = 0; i < instances; i++)
            fmon_drop_event(i);
    }
    if (fmon.event_count != 0)
        state.SkipWithError("records were left behind");
}
BENCHMARK(event_new_record)->ArgName("instances")->Arg(1)->Arg(32);

/* A second event of the same file and process, before the client has read the first. */
void event_merge(benchmark::State &state)
{
    Monitor monitor(10000);
    struct dentry *top = Monitor::directory(kTop);
    Monitor::watch(Monitor::instance(), top, FMON_ALL_EVENTS, kTree);
    for (auto _ : state)
        process(top, "report.txt", FMON_MODIFY);
    if (fmon.event_count != 1)
        state.SkipWithError("not merged");
}
BENCHMARK(event_merge);

/* An event that no watch wants. */
void event_unwanted(benchmark::State &state)
{
    Monitor monitor(10000);
    struct dentry *top = Monitor::directory(kTop);
    Monitor::watch(Monitor::instance(), top, FMON_CREATE, kTree);
    for (auto _ : state)
        process(top, "report.txt", FMON_MODIFY);
    if (fmon.event_count != 0)
        state.SkipWithError("a record was kept");
}
BENCHMARK(event_unwanted);

/* ---- matching ---- */

/* A merge below `depth` directories with `watches` watches on the topmost of them, each asked and none matching: plain
 * directory watches, which cost a comparison of paths. */
void event_match(benchmark::State &state)
{
    Monitor monitor(10000);
    std::string path = kTop;
    struct dentry *top = Monitor::directory(path);
    for (int i = 1; i < state.range(0); i++)
        path += "/level" + std::to_string(i);
    path += "/leaf";
    struct dentry *leaf = Monitor::directory(path);
    Monitor::watch(Monitor::instance(), leaf, FMON_ALL_EVENTS, kTree);
    int other = Monitor::instance();
    for (int i = 0; i < state.range(1); i++)
        Monitor::watch(other, top, FMON_ALL_EVENTS, FMON_DIR);
    for (auto _ : state)
        process(leaf, "report.txt", FMON_MODIFY);
    if (fmon_has_event(other) || fmon.event_count != 1)
        state.SkipWithError("not what was meant");
}
BENCHMARK(event_match)->ArgNames({"depth", "watches"})->ArgsProduct({{1, 10, 50}, {1, 10, 100}});

/* ---- against the number of records ---- */

/* A table as full as its limit, one record each in a thousand directories, and names that are not in it. */
class FullTable
{
public:
    explicit FullTable(int records) : monitor_(records + 1), records_(records)
    {
        struct dentry *top = Monitor::directory(kTop);
        Monitor::watch(Monitor::instance(), top, FMON_ALL_EVENTS, kTree);
        reader_ = Monitor::instance();
        Monitor::watch(reader_, top, FMON_OPEN, kTree);
        for (int i = 0; i < kDirectories; i++)
            directories_.push_back(Monitor::directory(std::string(kTop) + "/branch" + std::to_string(i)));
        order_.resize(static_cast<size_t>(records));
        std::iota(order_.begin(), order_.end(), 0);
        std::shuffle(order_.begin(), order_.end(), std::mt19937(1));
        for (int i : order_)
            process(directory(i), name(i), FMON_CREATE);
        std::shuffle(order_.begin(), order_.end(), std::mt19937(2));
    }

    struct dentry *directory(int i) const { return directories_[static_cast<size_t>(i % kDirectories)]; }
    static std::string name(int i) { return "report-" + std::to_string(i * 2654435761U) + ".txt"; }
    const std::vector<int> &order() const { return order_; }
    int records() const { return records_; }
    int reader() const { return reader_; }

private:
    static constexpr int kDirectories = 1000;
    Monitor monitor_;
    int records_, reader_;
    std::vector<struct dentry *> directories_;
    std::vector<int> order_;
};

/* Another event for a record of the table, each time another one, in random order. */
void event_merge_in_full_table(benchmark::State &state)
{
    FullTable table(static_cast<int>(state.range(0)));
    size_t i = 0;
    for (auto _ : state) {
        int number = table.order()[i];
        process(table.directory(number), FullTable::name(number), FMON_CREATE);
        i = i + 1 == table.order().size() ? 0 : i + 1;
    }
    if (fmon.event_count != table.records())
        state.SkipWithError("not merged");
}
BENCHMARK(event_merge_in_full_table)->ArgName("records")->RangeMultiplier(10)->Range(1000, 1000000);

/* A record that nobody wants is looked up, made, refused and freed; the lookup goes through the whole table's memory.
 */
void event_unwanted_in_full_table(benchmark::State &state)
{
    FullTable table(static_cast<int>(state.range(0)));
    for (int id : {0, table.reader()}) {
        struct watch *w = FMON_RECORD(fmon.instances[id].watches.next, struct watch, inst_link);
        w->mask = FMON_OPEN;
    }
    int number = table.records();
    for (auto _ : state) {
        process(table.directory(number), FullTable::name(number), FMON_MODIFY);
        number++;
    }
    if (fmon.event_count != table.records())
        state.SkipWithError("a record was kept");
}
BENCHMARK(event_unwanted_in_full_table)->ArgName("records")->RangeMultiplier(10)->Range(1000, 1000000);

/* A new record enters the table, is read by one instance and leaves it. */
void event_new_in_full_table(benchmark::State &state)
{
    FullTable table(static_cast<int>(state.range(0)));
    struct watch *w = FMON_RECORD(fmon.instances[0].watches.next, struct watch, inst_link);
    w->mask = FMON_CREATE; /* the instance that holds the others */
    int number = table.records();
    for (auto _ : state) {
        process(table.directory(number), FullTable::name(number), FMON_OPEN);
        fmon_drop_event(table.reader());
        number++;
    }
    if (fmon.event_count != table.records())
        state.SkipWithError("records were left behind");
}
BENCHMARK(event_new_in_full_table)->ArgName("records")->RangeMultiplier(10)->Range(1000, 1000000);

/* The whole table turns over: the oldest record is read, a new one comes in. */
void event_turnover_of_full_table(benchmark::State &state)
{
    FullTable table(static_cast<int>(state.range(0)));
    int number = table.records();
    for (auto _ : state) {
        process(table.directory(number), FullTable::name(number), FMON_CREATE);
        fmon_drop_event(0);
        number++;
    }
    if (fmon.event_count != table.records())
        state.SkipWithError("records were left behind");
}
BENCHMARK(event_turnover_of_full_table)->ArgName("records")->RangeMultiplier(10)->Range(1000, 1000000);

/* Records whose paths all have one djb2 hash, as somebody makes them who wants the lookups to be slow. */
void event_merge_in_flooded_table(benchmark::State &state)
{
    constexpr int kBlocks = 16; /* each "Ab" or "BA" */
    const int records = static_cast<int>(state.range(0));
    Monitor monitor(records + 1);
    struct dentry *top = Monitor::directory(kTop);
    Monitor::watch(Monitor::instance(), top, FMON_ALL_EVENTS, kTree);
    std::vector<std::string> names(static_cast<size_t>(records));
    for (int i = 0; i < records; i++)
        for (int block = 0; block < kBlocks; block++)
            names[static_cast<size_t>(i)] += i >> block & 1 ? "BA" : "Ab";
    for (const std::string &name : names)
        process(top, name, FMON_CREATE);
    size_t i = 0;
    for (auto _ : state) {
        process(top, names[i], FMON_CREATE);
        i = i + 1 == names.size() ? 0 : i + 1;
    }
    if (fmon.event_count != records)
        state.SkipWithError("not merged");
}
BENCHMARK(event_merge_in_flooded_table)->ArgName("records")->Arg(10)->Arg(10000);

}  // namespace
