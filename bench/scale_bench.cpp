/*
 * What one event costs against the number of watched directories: from the backend's callback to the client's queue and
 * off it again. The directories lie three levels below a recursive watch whatever their number. No kernel events are
 * needed: the tree exists in the cache only.
 */
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "event.h"
#include "fmon.h"
#include "list.h"

namespace
{

constexpr size_t kBusy = 1000; /* directories that change at a time */
constexpr char kTop[] = "/srv";

/* A backend without a kernel: a watch is attached to the dentry of its path, and that is all. */
int attach(struct fmon *monitor, struct watch *w)
{
    w->dentry = dcache_add(&monitor->dcache, w->path);
    list_add_tail(&w->link, &owner_of(w->dentry)->watches);
    return 0;
}

int detach(struct fmon *, struct watch *w)
{
    list_unlink(&w->link);
    return 0;
}

struct fmon_method_t kernel_free_method()
{
    struct fmon_method_t method = {};
    method.name = "bench";
    method.init = [](struct fmon *) { return 0; };
    method.deinit = [] {};
    method.add_watch = attach;
    method.del_watch = detach;
    method.del_global = [](uint32_t) { return 0; };
    return method;
}

/* A started monitor that watches `directories` directories of the cache. */
class WatchedTree
{
public:
    explicit WatchedTree(int directories) : saved_(fmon_method)
    {
        fmon_method = kernel_free_method();
        fmon_init(10000, DCACHE_MAX_ENTRIES, 30000);
        id_ = fmon_create_instance("bench");
        fmon_add_watch(id_, kTop, FMON_ALL_EVENTS, FMON_DIR | FMON_RECURSIVE, 0, 0);
        fill(dcache_find(&fmon.dcache, kTop), directories);
        std::shuffle(leaves_.begin(), leaves_.end(), std::mt19937(1));
    }
    ~WatchedTree()
    {
        fmon_destroy_instance(id_);
        fmon_deinit();
        fmon_method = saved_;
    }
    WatchedTree(const WatchedTree &) = delete;
    WatchedTree &operator=(const WatchedTree &) = delete;

    int id() const { return id_; }
    const std::vector<struct dentry *> &leaves() const { return leaves_; }

private:
    void fill(struct dentry *top, int directories)
    {
        const int width = static_cast<int>(std::ceil(std::cbrt(directories)));
        for (int i = 0; i < directories; i++) {
            struct dentry *first = child(top, i / (width * width));
            struct dentry *second = child(first, i / width % width);
            leaves_.push_back(child(second, i % width));
        }
    }
    static struct dentry *child(struct dentry *parent, int number)
    {
        return dcache_add_sub(&fmon.dcache, parent, ("branch" + std::to_string(number)).c_str());
    }

    struct fmon_method_t saved_;
    int id_ = -1;
    std::vector<struct dentry *> leaves_;
};

/* `all`: every event in another directory; else a thousand of them take turns. */
void run(benchmark::State &state, bool all)
{
    WatchedTree tree(static_cast<int>(state.range(0)));
    const size_t used = all ? tree.leaves().size() : std::min(kBusy, tree.leaves().size());
    size_t i = 0;
    for (auto _ : state) {
        event_process(&fmon, tree.leaves()[i], "report.txt", FMON_CREATE, 0, 3, nullptr);
        fmon_drop_event(tree.id());
        i = i + 1 == used ? 0 : i + 1;
    }
    if (fmon.event_count != 0)
        state.SkipWithError("records were left behind");
    state.SetItemsProcessed(state.iterations());
}

/* Reads what an event must read, the names and watch lists up to the root, and does nothing with it. */
size_t touch(struct dentry *d)
{
    size_t sum = 0;
    for (; d; d = d->parent)
        sum += d->len + static_cast<size_t>(list_empty(&owner_of(d)->watches));
    return sum;
}

/* A thousand of the directories are busy, the others are only watched: an ordinary machine. */
void scale_event_in_busy_directories(benchmark::State &state) { run(state, false); }
BENCHMARK(scale_event_in_busy_directories)->RangeMultiplier(10)->Range(1000, 1000000);

/* Every event in another directory, in random order: the worst case for the processor's caches. */
void scale_event_in_any_directory(benchmark::State &state) { run(state, true); }
BENCHMARK(scale_event_in_any_directory)->RangeMultiplier(10)->Range(1000, 1000000);

/* The part of that which is memory alone. */
void scale_touch_any_directory(benchmark::State &state)
{
    const WatchedTree tree(static_cast<int>(state.range(0)));
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(touch(tree.leaves()[i]));
        i = i + 1 == tree.leaves().size() ? 0 : i + 1;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(scale_touch_any_directory)->RangeMultiplier(10)->Range(1000, 1000000);

}  // namespace
