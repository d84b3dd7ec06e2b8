/*
 * Two clients of one process, one of them slow: the slow one's records gather what happens meanwhile, and the other
 * does not wait for it and loses nothing.
 */
#include <gtest/gtest.h>

#include "harness.h"
#include "orx_fmon.h"

using namespace systest;
using testlib::can_fanotify;
using testlib::TempTree;

namespace
{

constexpr unsigned kWriting = FMON_OPEN | FMON_MODIFY | FMON_CLOSE_WRITE;
constexpr int kPauseMs = 600;

/* What one client was told of one path. */
struct Told {
    unsigned mask = 0;
    int deliveries = 0;
    bool gathered = false; /* one delivery held all of kWriting */
};

class TwoClients : public testing::Test
{
protected:
    /* Reads deliveries until `done` or time is up. */
    void follow(Process &agent, const std::function<bool()> &done)
    {
        int64_t deadline = now_ms() + kPatienceMs;
        while (!done() && now_ms() < deadline) {
            auto line = agent.line(100);
            auto delivery = line ? parse_delivery(*line) : std::nullopt;
            if (!delivery)
                continue;
            Told &told = told_[delivery->client][delivery->path];
            told.mask |= delivery->mask;
            told.deliveries++;
            told.gathered |= delivery->mask == kWriting;
        }
        EXPECT_TRUE(done());
    }

    TempTree tree_;
    std::map<std::string, std::map<std::string, Told>> told_;
};

TEST_F(TwoClients, TheSlowOneMergesAndTheFastOneLosesNothing)
{
    NEED(can_fanotify(), "inotify alone is read ten times a second, so that the fast one's records merge, too");
    std::string hot = tree_.file("hot");
    Agent agent(tree_.root(), {"-p", std::to_string(kPauseMs)});

    constexpr int kFiles = 100;
    for (int i = 0; i < kFiles; i++) {
        make_file(tree_.path("f" + std::to_string(i)));
        append_file(hot);
        pause_ms(20);
    }
    auto complete = [&](const char *client) {
        for (int i = 0; i < kFiles; i++)
            if (told_[client][tree_.path("f" + std::to_string(i))].mask != (FMON_CREATE | kWriting))
                return false;
        return told_[client][hot].mask == kWriting;
    };
    follow(agent, [&] { return complete("fast") && complete("slow"); });

    const Told &fast = told_["fast"][hot], &slow = told_["slow"][hot];
    EXPECT_TRUE(slow.gathered); /* opened, written and closed: one record; the very first may be the opening alone */
    /* With probes every descriptor is read ten times a second at most. */
    EXPECT_GE(fast.deliveries, probes_work() ? 5 : kFiles / 2);
    EXPECT_LE(slow.deliveries, kFiles / 4);
    EXPECT_GE(slow.deliveries, 1);
    agent.close_input();
    EXPECT_EQ(0, agent.wait()) << agent.errors();
}

/* Without a pause both are told the same. */
TEST_F(TwoClients, TwoFastOnesAreToldTheSame)
{
    Agent agent(tree_.root());
    for (int i = 0; i < 50; i++)
        make_file(tree_.path("f" + std::to_string(i)));
    auto complete = [&](const char *client) {
        int n = 0;
        for (const auto &[path, told] : told_[client])
            n += told.mask == (FMON_CREATE | kWriting);
        return n == 50;
    };
    follow(agent, [&] { return complete("fast") && complete("slow"); });
    agent.close_input();
    EXPECT_EQ(0, agent.wait()) << agent.errors();
}

}  // namespace
