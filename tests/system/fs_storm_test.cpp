/*
 * Storms of renames, new directories, removals and exchanges by several processes, read at once and after pauses: no
 * path that never was, nothing missing.
 */
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <list>
#include <thread>
#include <tuple>

#include "fs_group.h"
#include "fs_model.h"
#include "orx_fmon.h"

using namespace systest;

namespace
{

constexpr uint64_t kEntries = FMON_CREATE | FMON_DELETE | kRename | kOnDir;

struct Verdict {
    unsigned told = 0, exact = 0, joined = 0;
    unsigned elsewhere = 0; /* at a path that the file had at another time */
    unsigned never = 0;     /* at a path that it never had */
    unsigned missing = 0;
};

class FsStorm : public testing::TestWithParam<std::tuple<const char *, int>>
{
protected:
    FsStorm() : fs_(std::get<0>(GetParam())) {}

    void SetUp() override
    {
        NEED(can_hear_file_systems(), "whole file systems cannot be heard");
        NEED(fs_.mounted(), "cannot mount");
        mkdir(fs_.path("w").c_str(), 0755);
        mkdir(fs_.path("o").c_str(), 0755);
    }

    static unsigned number(const char *variable, unsigned otherwise)
    {
        const char *text = getenv(variable);
        return text ? static_cast<unsigned>(strtoul(text, nullptr, 10)) : otherwise;
    }

    static std::string name_of(const std::string &path) { return path.substr(path.rfind('/') + 1); }

    using Event = std::tuple<uint32_t, std::string, int>; /* kind, path, pid */

    static std::vector<Event> file_events(const FsGroup &group)
    {
        std::vector<Event> out;
        for (const Told &told : group.told)
            for (uint32_t kind = 1; kind < 0x1000; kind <<= 1)
                if ((told.kinds & kind) && name_of(told.path)[0] == 'f')
                    out.emplace_back(kind, told.path, told.pid);
        return out;
    }

    static bool is_same(const Happened &one, const Event &event)
    {
        return one.kind == std::get<0>(event) && one.pid == std::get<2>(event) &&
               name_of(one.path) == name_of(std::get<1>(event));
    }

    static Verdict judge(const FsGroup &group, const FsModel &model)
    {
        Verdict verdict;
        std::list<Happened> due(model.happened.begin(), model.happened.end());
        std::vector<Event> left;
        for (const Event &event : file_events(group)) {
            const auto at = std::find_if(due.begin(), due.end(), [&](const Happened &one) {
                return one.path == std::get<1>(event) && is_same(one, event);
            });
            verdict.told++;
            if (at == due.end()) {
                left.push_back(event);
                continue;
            }
            verdict.exact++;
            due.erase(at);
        }
        for (const Event &event : left)
            judge_place(event, model, due, verdict);
        verdict.missing = static_cast<unsigned>(
            std::count_if(due.begin(), due.end(), [](const Happened &one) { return one.watched && !one.joined; }));
        return verdict;
    }

    /* Told of another moment's path. */
    static void judge_place(const Event &event, const FsModel &model, std::list<Happened> &due, Verdict &verdict)
    {
        const std::string &path = std::get<1>(event);
        const auto at = std::find_if(due.begin(), due.end(), [&](const Happened &one) { return is_same(one, event); });
        const auto places = model.places.find(name_of(path));
        const bool was = places != model.places.end() && places->second.count(path);
        if (!was || at == due.end())
            verdict.never++;
        else if (at->joined)
            verdict.joined++;
        else
            verdict.elsewhere++;
        if (!was || at == due.end())
            ADD_FAILURE() << "never: " << std::hex << std::get<0>(event) << " " << path;
        if (at != due.end())
            due.erase(at);
    }

    OwnFileSystem fs_;
};

TEST_P(FsStorm, NoPathThatNeverWasAndNothingMissing)
{
    const unsigned seed = number("FMON_SEED", 1), steps = number("FMON_STEPS", 3000);
    const int nap = std::get<1>(GetParam());
    FsModel model(fs_.path("w"), fs_.path("o"), seed, 3);
    FsGroup group(fs_.path(), kEntries, number("FMON_LIMIT", 65536));
    ASSERT_EQ(0, group.anchor(fs_.path("w")));
    std::atomic<bool> over{false};
    std::thread reader([&] {
        while (!over) {
            group.take();
            if (nap)
                std::this_thread::sleep_for(std::chrono::milliseconds(nap));
        }
    });
    while (model.steps < steps)
        model.step();
    over = true;
    reader.join();
    group.take();
    const Verdict verdict = judge(group, model);
    const struct fs_counts counts = group.counts();
    printf("%u told, %u exact, %u joined, %u elsewhere, %u never, %u missing; %lu asked, %lu unresolved\n",
           verdict.told, verdict.exact, verdict.joined, verdict.elsewhere, verdict.never, verdict.missing,
           static_cast<unsigned long>(counts.asked), static_cast<unsigned long>(counts.lost[FS_LOST_UNRESOLVED]));
    EXPECT_EQ(0u, verdict.never);
    EXPECT_LE(verdict.missing, counts.lost[FS_LOST_UNRESOLVED]);
}

INSTANTIATE_TEST_SUITE_P(On, FsStorm, testing::Combine(testing::Values("tmpfs", "ext4"), testing::Values(0, 1, 2, 20)),
                         [](const auto &param) {
                             return std::string(std::get<0>(param.param)) + "_" +
                                    std::to_string(std::get<1>(param.param));
                         });

}  // namespace
