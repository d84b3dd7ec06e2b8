/* The two halves of a rename as one event. */
#include "agent/rename_pairs.h"

#include "orx_fmon.h"
#include "unit/agent/agent_testing.h"
#include "unit/agent/session_fakes.h"

using namespace agent;
using Lines = std::vector<std::string>;

namespace
{

constexpr uint32_t kFrom = FMON_MOVED_FROM, kTo = FMON_MOVED_TO;

struct Raw {
    const char *path;
    uint32_t mask;
    uint64_t move;
    uint32_t source = 0;
};
using Raws = std::vector<Raw>;

Batch batch_of(const Raws &raws)
{
    Batch batch;
    for (const Raw &raw : raws) {
        Event event = agent_testing::event_of(raw.path, raw.mask);
        event.move = raw.move;
        event.source = raw.source;
        batch.append(event, nullptr);
    }
    return batch;
}

std::string line_of(const Event &event)
{
    return std::string(event.path) + (event.from.empty() ? "" : " from " + std::string(event.from)) +
           (event.mask & ~(kFrom | kTo) ? " +" : "") + (event.mask & kFrom ? " gone" : "");
}

/* What is left of them, joined. */
Lines joined(const Raws &raws)
{
    RenamePairs pairs;
    const Batch batch = batch_of(raws);
    pairs.begin(batch);
    Lines lines;
    for (size_t i = 0; i < batch.size(); i++) {
        Event event = batch.event(i);
        pairs.join(event);
        if (event.mask)
            lines.push_back(line_of(event));
    }
    return lines;
}

Lines paths_of(const Batch &batch)
{
    Lines paths;
    for (size_t i = 0; i < batch.size(); i++)
        paths.emplace_back(batch.event(i).path);
    return paths;
}

}  // namespace

TEST(RenamePairs, HalvesOfOneNumberAreOneEvent)
{
    EXPECT_EQ(Lines{"/b from /a"}, joined({{"/a", kFrom, 1}, {"/b", kTo, 1}}));
    EXPECT_EQ((Lines{"/d from /c", "/b from /a"}),
              joined({{"/a", kFrom, 1}, {"/c", kFrom, 2}, {"/d", kTo, 2}, {"/b", kTo, 1}}));
}

TEST(RenamePairs, TheSecondHalfMayStandFirst)
{
    EXPECT_EQ((Lines{"/b from /a +", "/c +"}),
              joined({{"/b", kTo | FMON_DELETE, 1}, {"/a", kFrom, 1}, {"/c", FMON_CREATE, 0}}));
}

TEST(RenamePairs, OtherKindsOfTheFirstHalfStay)
{
    EXPECT_EQ((Lines{"/a +", "/b from /a +"}), joined({{"/a", kFrom | FMON_CREATE, 1}, {"/b", kTo | FMON_MODIFY, 1}}));
}

TEST(RenamePairs, WhatHasNoOtherHalfStays)
{
    EXPECT_EQ(Lines{"/a gone"}, joined({{"/a", kFrom, 1}}));
    EXPECT_EQ(Lines{"/b"}, joined({{"/b", kTo, 1}}));
    EXPECT_EQ((Lines{"/a gone", "/b"}), joined({{"/a", kFrom, 0}, {"/b", kTo, 0}}));
    EXPECT_EQ((Lines{"/a gone", "/b"}), joined({{"/a", kFrom, 1}, {"/b", kTo, 2}}));
    EXPECT_EQ((Lines{"/a gone", "/b"}), joined({{"/a", kFrom, 1, 0}, {"/b", kTo, 1, 1}})) << "of another instance";
    EXPECT_EQ((Lines{"/a gone", "/b +"}), joined({{"/a", kFrom, 1}, {"/b", FMON_CREATE, 1}})) << "a half not asked for";
}

TEST(RenamePairs, SeveralPathsOfOneRenameStayApart)
{
    EXPECT_EQ((Lines{"/a gone", "/m/a gone", "/b", "/m/b"}),
              joined({{"/a", kFrom, 1}, {"/m/a", kFrom, 1}, {"/b", kTo, 1}, {"/m/b", kTo, 1}}));
    EXPECT_EQ((Lines{"/a gone", "/b", "/m/b"}), joined({{"/a", kFrom, 1}, {"/b", kTo, 1}, {"/m/b", kTo, 1}}));
}

TEST(RenamePairs, AFirstHalfAtTheEndIsHeldBack)
{
    RenamePairs pairs;
    Batch batch = batch_of({{"/x", FMON_CREATE, 0}, {"/a", kFrom, 1}});
    pairs.gather(batch, 1000, false);
    EXPECT_EQ(Lines{"/x"}, paths_of(batch));
    EXPECT_EQ(1000 + RenamePairs::kPatienceMs, pairs.due());
    batch = batch_of({{"/b", kTo, 1}, {"/y", FMON_CREATE, 0}});
    pairs.gather(batch, 1001, false);
    EXPECT_EQ((Lines{"/a", "/b", "/y"}), paths_of(batch));
    EXPECT_EQ(UINT64_MAX, pairs.due());
}

TEST(RenamePairs, ItIsShownWhenNothingComes)
{
    RenamePairs pairs;
    Batch batch = batch_of({{"/a", kFrom, 1}});
    pairs.gather(batch, 1000, false);
    EXPECT_TRUE(batch.empty());
    pairs.gather(batch, 1000 + RenamePairs::kPatienceMs - 1, false);
    EXPECT_TRUE(batch.empty());
    pairs.gather(batch, 1000 + RenamePairs::kPatienceMs, false);
    EXPECT_EQ(Lines{"/a"}, paths_of(batch));
    EXPECT_EQ(UINT64_MAX, pairs.due());
}

TEST(RenamePairs, TheLastBatchHoldsNothingBack)
{
    RenamePairs pairs;
    Batch batch = batch_of({{"/a", kFrom, 1}});
    pairs.gather(batch, 1000, false);
    batch = batch_of({{"/c", kFrom, 2}});
    pairs.gather(batch, 1000, true);
    EXPECT_EQ((Lines{"/a", "/c"}), paths_of(batch));
    batch.clear();
    pairs.gather(batch, 1000, true);
    EXPECT_TRUE(batch.empty());
}

TEST(RenamePairs, WhatHasItsOtherHalfIsNotHeldBack)
{
    RenamePairs pairs;
    for (const Raws &raws : {Raws{{"/b", kTo | FMON_DELETE, 1}, {"/a", kFrom, 1}},
                             Raws{{"/a", kFrom, 1}, {"/b", kTo, 1}}, Raws{{"/a", kFrom, 0}}, Raws{{"/b", kTo, 1}}}) {
        Batch batch = batch_of(raws);
        pairs.gather(batch, 1000, false);
        EXPECT_EQ(raws.size(), batch.size()) << raws[0].path;
        EXPECT_EQ(UINT64_MAX, pairs.due());
    }
}

namespace
{

class SessionRenames : public session_fakes::SessionTest
{
protected:
    void come(const Raws &raws) { events.batches.push_back(batch_of(raws)); }
};

}  // namespace

TEST_F(SessionRenames, AreShownAsTheirHalves)
{
    begin();
    come({{"/a", kFrom, 1}, {"/b", kTo, 1}});
    step();
    EXPECT_EQ((Lines{"/a", "/b"}), report.take());
}

TEST_F(SessionRenames, AreJoinedWhereThatIsAskedFor)
{
    request.pair_renames = true;
    begin();
    come({{"/a", kFrom, 1}, {"/b", kTo, 1}});
    step();
    EXPECT_EQ(Lines{"/b"}, report.take());
    EXPECT_EQ(1, watched.count("shown /a")) << "what looks after the tree sees both";
}

TEST_F(SessionRenames, AHalfWaitsNoLongerThanItMust)
{
    request.pair_renames = true;
    begin();
    step();
    come({{"/a", kFrom, 1}});
    step();
    EXPECT_EQ(Lines{}, report.take());
    EXPECT_EQ(RenamePairs::kPatienceMs, pause.ms);
    pass(RenamePairs::kPatienceMs);
    step();
    EXPECT_EQ(Lines{"/a"}, report.take());
}

TEST_F(SessionRenames, AHalfThatWaitsIsShownAtTheEnd)
{
    request.pair_renames = true;
    begin();
    come({{"/a", kFrom, 1}});
    step();
    EXPECT_EQ(Lines{}, report.take());
    end_told(0);
    EXPECT_EQ("/a", report.take().front());
}
