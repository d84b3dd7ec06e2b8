/* Tests of event_dispatch.cpp: whether a watch takes an event, and when it is held back. */

#include <tuple>

#include "core_fixture.h"

namespace
{

using namespace testlib;

enum Outcome { kNothing, kHold, kDeliver };

constexpr uint32_t A = FMON_ACCESS, M = FMON_MODIFY, W = FMON_CLOSE_WRITE, N = FMON_CLOSE_NOWRITE, C = FMON_CREATE;

/* One watch on a directory, whose mask and flags each case sets, and raw events of the file "f" in it. */
class EventMatch : public CoreTest
{
protected:
    EventMatch() : dir(tree.dir("a/b"))
    {
        id = instance();
        EXPECT_EQ(0, add(id, dir, FMON_MODIFY));
        w = find(id, dir);
    }

    Outcome outcome(const std::string &path)
    {
        struct event *ev = record(path);
        Outcome result = !ev ? kNothing : ev->ref ? kDeliver : kHold;
        if (ev) {
            EXPECT_EQ(result == kDeliver ? 1u : 0u, ev->ref);
            EXPECT_EQ(result == kHold ? 1u : 0u, ev->pending);
        }
        EXPECT_EQ(result == kDeliver ? 1u : 0u, queued(id));
        forget();
        return result;
    }

    /* The outcome of one raw event with all kinds. */
    Outcome offer(uint32_t watch_mask, uint32_t flags, uint32_t event_mask)
    {
        w->mask = watch_mask;
        w->flags = flags;
        EXPECT_EQ(0, process(dir, "f", event_mask));
        return outcome(dir + "/f");
    }

    void forget()
    {
        fmon_drop_event(id);
        for (struct event *ev : table_records())
            event_free(&fmon, ev);
        ASSERT_EQ(0, fmon.event_count);
    }

    std::string dir;
    int id;
    struct watch *w;
};

TEST_F(EventMatch, WithoutDelayAnySharedKindDelivers)
{
    for (int i = 0; i < 12; i++)
        for (int j = 0; j < 13; j++)
            EXPECT_EQ(i == j ? kDeliver : kNothing, offer(1U << i, FMON_DIR, 1U << j)) << i << " " << j;
}

/* Every combination of the four kinds of a delayed watch against every combination in the record: rows are the watch's
 * mask, columns the record's, both counting A = 1, M = 2, W = 4, N = 8. "." nothing, "h" hold, "D" deliver. */
TEST_F(EventMatch, DelayTruthTable)
{
    const char *const table[16] = {
        /* -    */ "................",
        /* A    */ ".h.h.h.h.h.h.h.h",
        /* M    */ "..hh..DD..hh..DD",
        /* AM   */ ".hhh.hDD.hhh.hDD",
        /* W    */ "................",
        /* AW   */ ".h.h.D.D.h.h.D.D",
        /* MW   */ "..hh..DD..hh..DD",
        /* AMW  */ ".hhh.DDD.hhh.DDD",
        /* N    */ "................",
        /* AN   */ ".h.h.h.h.D.D.D.D",
        /* MN   */ "..hh..DD..hh..DD",
        /* AMN  */ ".hhh.hDD.DhD.DDD",
        /* WN   */ "................",
        /* AWN  */ ".h.h.D.D.D.D.D.D",
        /* MWN  */ "..hh..DD..hh..DD",
        /* AMWN */ ".hhh.DDD.DhD.DDD",
    };
    const uint32_t kinds[] = {A, M, W, N};
    auto bits = [&](int combination) {
        uint32_t mask = 0;
        for (int i = 0; i < 4; i++)
            mask |= combination & 1 << i ? kinds[i] : 0;
        return mask;
    };
    for (int row = 0; row < 16; row++)
        for (int column = 0; column < 16; column++) {
            Outcome got = offer(bits(row), FMON_DIR | FMON_DELAY, bits(column));
            EXPECT_EQ(table[row][column], ".hD"[got]) << "watch " << row << " record " << column;
        }
}

/* The same kinds with one more outside the delayed ones, in the watch, in the record, and in both. */
TEST_F(EventMatch, DelayTruthTableWithAnotherKind)
{
    const uint32_t delayed[] = {0,     A,     M,     W,         N,         A | M,     A | W,     A | N,
                                M | W, M | N, W | N, A | M | W, A | M | N, A | W | N, M | W | N, A | M | W | N};
    for (uint32_t watch_mask : delayed)
        for (uint32_t mask : delayed) {
            Outcome alone = offer(watch_mask, FMON_DIR | FMON_DELAY, mask);
            EXPECT_EQ(alone, offer(watch_mask | C, FMON_DIR | FMON_DELAY, mask)) << watch_mask << " " << mask;
            EXPECT_EQ(alone, offer(watch_mask, FMON_DIR | FMON_DELAY, mask | C)) << watch_mask << " " << mask;
            EXPECT_EQ(kDeliver, offer(watch_mask | C, FMON_DIR | FMON_DELAY, mask | C)) << watch_mask << " " << mask;
        }
}

TEST_F(EventMatch, EveryKindOutsideTheDelayedOnesDeliversAtOnce)
{
    for (int i = 0; i < 12; i++) {
        uint32_t kind = 1U << i;
        Outcome expected = kind & (A | M) ? kHold : kind & (W | N) ? kNothing : kDeliver;
        EXPECT_EQ(expected, offer(0xfff, FMON_DIR | FMON_DELAY, kind)) << kind;
    }
}

/* The record's close_write completes a modify even for a watch without close_write; an access needs its own close. */
TEST_F(EventMatch, ModifyLooksAtTheWholeRecordAccessAtTheShare)
{
    EXPECT_EQ(kDeliver, offer(M, FMON_DIR | FMON_DELAY, M | W));
    EXPECT_EQ(kHold, offer(A, FMON_DIR | FMON_DELAY, A | W | N));
}

TEST_F(EventMatch, BareCloseIsNothingForADelayedWatch)
{
    EXPECT_EQ(kNothing, offer(A | M | W | N, FMON_DIR | FMON_DELAY, W));
    EXPECT_EQ(kNothing, offer(A | M | W | N, FMON_DIR | FMON_DELAY, N));
    EXPECT_EQ(kNothing, offer(A | M | W | N, FMON_DIR | FMON_DELAY, W | N));
}

TEST_F(EventMatch, ModifyAloneIsHeldUntilTheClose)
{
    w->mask = M | W;
    w->flags = FMON_DIR | FMON_DELAY;
    ASSERT_EQ(0, process(dir, "f", M));
    EXPECT_EQ(0u, queued(id));
    ASSERT_NE(nullptr, record(dir + "/f"));
    EXPECT_EQ(1u, record(dir + "/f")->pending);

    ASSERT_EQ(0, process(dir, "f", M));
    EXPECT_EQ(0u, queued(id));
    ASSERT_EQ(0, process(dir, "f", W));
    ASSERT_EQ(1u, queued(id));
    EXPECT_EQ(M | W, fmon_peek_event(id)->mask);
    EXPECT_EQ(0u, fmon_peek_event(id)->pending);
    EXPECT_EQ(1u, fmon_peek_event(id)->ref);
    fmon_drop_event(id);
    EXPECT_EQ(0, fmon.event_count);
}

TEST_F(EventMatch, PidKeepsAHeldModifyApart)
{
    w->mask = M | W;
    w->flags = FMON_DIR | FMON_DELAY;
    process(dir, "f", M, 10);
    process(dir, "f", W, 11); /* another process closes: a bare close, nothing */
    EXPECT_EQ(0u, queued(id));
    EXPECT_EQ(1, fmon.event_count);
    process(dir, "f", W, 10);
    EXPECT_EQ(1u, queued(id));
}

/* Paths against a watch on DIR = .../a/b. */
TEST_F(EventMatch, PlainDirectoryTakesItselfAndItsDirectEntries)
{
    w->mask = C;
    w->flags = FMON_DIR;
    tree.dir("a/b/c");
    ASSERT_NE(nullptr, dcache_add(&fmon.dcache, (dir + "/c").c_str()));

    process(dir, "", C);
    EXPECT_EQ(kDeliver, outcome(dir));
    process(dir, "f", C);
    EXPECT_EQ(kDeliver, outcome(dir + "/f"));
    process(dir, "c", C);
    EXPECT_EQ(kDeliver, outcome(dir + "/c"));
    process(dir + "/c", "f", C);
    EXPECT_EQ(kNothing, outcome(dir + "/c/f"));
    process_path(dir + "/c/f", C);
    EXPECT_EQ(kNothing, outcome(dir + "/c/f"));
    process_path(dir + "/f", C);
    EXPECT_EQ(kDeliver, outcome(dir + "/f"));
}

TEST_F(EventMatch, RecursiveDirectoryTakesAllBelow)
{
    w->mask = C;
    w->flags = FMON_DIR | FMON_RECURSIVE;
    ASSERT_NE(nullptr, dcache_add(&fmon.dcache, (dir + "/c/d").c_str()));
    process(dir + "/c/d", "f", C);
    EXPECT_EQ(kDeliver, outcome(dir + "/c/d/f"));
}

TEST_F(EventMatch, FileAndMountWatchesAreNotHeldToTheDirectory)
{
    w->mask = C;
    ASSERT_NE(nullptr, dcache_add(&fmon.dcache, (dir + "/c").c_str()));
    for (uint32_t flags : {FMON_FILE, FMON_MOUNT}) {
        w->flags = flags;
        process(dir + "/c", "f", C);
        EXPECT_EQ(kDeliver, outcome(dir + "/c/f")) << flags;
    }
}

/* Only the record's directory part is compared, as a prefix of the watch's path. */
TEST_F(EventMatch, DirectoryPartIsComparedAsAPrefix)
{
    w->mask = C;
    w->flags = FMON_DIR;
    std::string long_path = dir + "/f";
    std::string saved = w->path;
    struct Case {
        std::string watch_path;
        Outcome expected;
    };
    const Case cases[] = {{dir, kDeliver},
                          {dir + "x", kDeliver},
                          {dir + "/f", kDeliver},
                          {dir.substr(0, dir.size() - 1), kNothing},
                          {dir.substr(0, 1), kNothing},
                          {dir.substr(0, dir.size() - 1) + "x", kNothing}};
    for (const Case &c : cases) {
        free(w->path);
        w->path = strdup(c.watch_path.c_str());
        process(dir, "f", C);
        EXPECT_EQ(c.expected, outcome(long_path)) << c.watch_path;
    }
    free(w->path);
    w->path = strdup(saved.c_str());
}

class RootMatch : public CoreTest
{
};

TEST_F(RootMatch, RootTakesWhatLiesDirectlyInIt)
{
    int id = instance();
    ASSERT_EQ(0, add(id, "/", C));
    EXPECT_EQ(0, process("/", "f", C));
    EXPECT_NE(nullptr, record("/f"));
    EXPECT_EQ(0, process("/", "", C));
    EXPECT_NE(nullptr, record("/"));
    ASSERT_NE(nullptr, dcache_add(&fmon.dcache, "/nosuch"));
    EXPECT_EQ(0, process("/nosuch", "f", C));
    EXPECT_EQ(nullptr, record("/nosuch/f"));
}

TEST_F(RootMatch, PathWithoutSlashIsNotHeldToTheDirectory)
{
    int id = instance();
    ASSERT_EQ(0, add(id, "/", C));
    EXPECT_EQ(0, process_path("pipe:[7]", C));
    EXPECT_NE(nullptr, record("pipe:[7]"));
}

}  // namespace
