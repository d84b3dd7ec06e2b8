/*
 * The container library on a made-up /proc of 500 containers with 40 mounts each, whose files are in memory as /proc's
 * are. Limits: a look-up that hits under 1 us, a census under 250 ms.
 */
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "orx_sensitivedir.h"
#include "testlib/container_world/container_world.h"

namespace
{

constexpr int kContainers = 500, kMounts = 40, kProcesses = 3; /* of one container: mounts and processes */

/* In /dev/shm where there is one: a disk's slowness is not what is measured. */
class World
{
public:
    World()
    {
        char shm[] = "/dev/shm/fmon-bench-XXXXXX", tmp[] = "/tmp/fmon-bench-XXXXXX";
        const char *made = mkdtemp(shm);
        root_ = made ? made : mkdtemp(tmp) ? tmp : "";
        const testlib::ContainerWorld world(root_);
        world.add({1, 100, "/init.scope", {1, 2, 3}});
        for (int i = 0; i < kContainers; i++)
            for (int j = 0; j < kProcesses; j++)
                world.add(process(i, j));
        orx_container_set_roots(world.proc().c_str(), root_.c_str());
    }
    ~World()
    {
        orx_container_set_roots(nullptr, nullptr);
        std::filesystem::remove_all(root_);
    }
    World(const World &) = delete;
    World &operator=(const World &) = delete;

private:
    static testlib::ContainerWorld::Process process(int i, int j)
    {
        const auto number = static_cast<unsigned>(i);
        testlib::ContainerWorld::Process made = {1000 + i * 10 + j, 1000 + number,
                                                 "/system.slice/docker-" + testlib::made_id(number) + ".scope"};
        for (int k = 0; k < kMounts; k++)
            made.mounts.push_back(1000 + i * kMounts + k);
        return made;
    }

    std::string root_;
};

void container_census(benchmark::State &state)
{
    const World world;
    struct orx_container_census census = {};
    for (auto _ : state)
        orx_container_survey(&census);
    state.counters["containers"] = census.containers;
    state.counters["mounts"] = census.mounts;
}
BENCHMARK(container_census)->Unit(benchmark::kMillisecond);

/* Every mount in turn, so that the table does not stay in the nearest cache. Long runs take a census by age now and
 * then, in the library's own thread. */
void container_hit(benchmark::State &state)
{
    const World world;
    struct orx_container_census census;
    orx_container_survey(&census);
    std::vector<std::string> ids;
    for (int i = 0; i < kContainers * kMounts; i++)
        ids.push_back(std::to_string(1000 + i * 7919 % (kContainers * kMounts)));
    size_t i = 0, hits = 0;
    for (auto _ : state) {
        hits += _orx_get_container_mount(ids[i].c_str()) != nullptr;
        i = i + 1 < ids.size() ? i + 1 : 0;
    }
    if (hits != static_cast<size_t>(state.iterations()))
        state.SkipWithError("not every look-up was a hit");
}
BENCHMARK(container_hit);

/* Of the host's mounts, of which most events are. */
void container_host_hit(benchmark::State &state)
{
    const World world;
    struct orx_container_census census;
    orx_container_survey(&census);
    for (auto _ : state)
        benchmark::DoNotOptimize(_orx_get_container_mount("2"));
}
BENCHMARK(container_host_hit);

}  // namespace
