/* One turn's delivery: rows in order, pauses, the wrap of the 32-bit timer. */
#include "shell_fixture.h"

namespace
{

/* What the callbacks were given, as "row:file kinds", and what they answer. */
std::vector<std::string> seen;
std::vector<int32_t> answers[3]; /* taken from the front, then 0 */

int32_t note(int row, struct event *ev)
{
    seen.push_back(std::to_string(row) + ":" + (strrchr(ev->path, '/') + 1) + " " + event_str(ev->mask));
    if (answers[row].empty())
        return 0;
    const int32_t answer = answers[row].front();
    answers[row].erase(answers[row].begin());
    return answer;
}
int32_t first(struct event *ev) { return note(0, ev); }
int32_t second(struct event *ev) { return note(1, ev); }
int32_t third(struct event *ev) { return note(2, ev); }

using Seen = std::vector<std::string>;

class Deliver : public ShellTest
{
protected:
    Deliver()
    {
        seen.clear();
        for (auto &list : answers)
            list.clear();
        start();
    }
    /* What one turn at `now` hands out. */
    static Seen turn(uint32_t now)
    {
        seen.clear();
        shell_deliver(now);
        return seen;
    }
    static uint32_t next_call(int row) { return fmon_shell.rows[row].next_call; }
};

TEST_F(Deliver, NothingToNobody)
{
    EXPECT_EQ(Seen{}, turn(0));
    client("a", first);
    EXPECT_EQ(Seen{}, turn(1));
}

TEST_F(Deliver, RowsInOrderOfCreationEventsInOrderOfArrival)
{
    client("a", first);
    client("b", second);
    happens("b", "1");
    happens("a", "2");
    happens("a", "3");
    happens("b", "4");
    EXPECT_EQ((Seen{"0:2 create", "0:3 create", "1:1 create", "1:4 create"}), turn(5));
    EXPECT_EQ(0, fmon.event_count);
    EXPECT_EQ(Seen{}, turn(6));
}

TEST_F(Deliver, TheRowIsLoggedNotTheInstance)
{
    client("a", first);
    client("b", second);
    ASSERT_EQ(0, _orx_fmon_del_instance(0)); /* instance 1 is row 0 now */
    happens("b", "x");
    testlib::log_clear();
    turn(1);
    EXPECT_EQ(1, testlib::log_count(4, "inst 0 cb happened"));
    EXPECT_EQ("fmon_shell.c", testlib::log_lines().front().file);
}

TEST_F(Deliver, APauseKeepsTheEventForItsRowOnly)
{
    client("a", first);
    client("b", second);
    answers[0] = {500};
    happens("a", "1");
    happens("b", "2");
    EXPECT_EQ((Seen{"0:1 create", "1:2 create"}), turn(1000));
    EXPECT_EQ(1500u, next_call(0));
    EXPECT_EQ(1, fmon.event_count);

    happens("b", "3");
    EXPECT_EQ(Seen{"1:3 create"}, turn(1499));
    EXPECT_EQ(Seen{"0:1 create"}, turn(1500));
    EXPECT_EQ(0, fmon.event_count);
}

TEST_F(Deliver, APauseEndsTheRowsTurn)
{
    client("a", first);
    answers[0] = {0, 10, 0};
    for (const char *file : {"1", "2", "3"})
        happens("a", file);
    EXPECT_EQ((Seen{"0:1 create", "0:2 create"}), turn(100));
    EXPECT_EQ((Seen{"0:2 create", "0:3 create"}), turn(110));
}

TEST_F(Deliver, AKeptEventGoesOnMerging)
{
    client("a", first);
    answers[0] = {1};
    happens("a", "1", FMON_CREATE);
    turn(100);
    happens("a", "1", FMON_MODIFY);
    EXPECT_EQ(Seen{"0:1 modify,create"}, turn(101));
}

TEST_F(Deliver, PausesCanFollowEachOther)
{
    client("a", first);
    answers[0] = {5, 7, 0};
    happens("a", "1");
    EXPECT_EQ(1u, turn(100).size());
    EXPECT_EQ(0u, turn(104).size());
    EXPECT_EQ(1u, turn(105).size());
    EXPECT_EQ(112u, next_call(0));
    EXPECT_EQ(0u, turn(111).size());
    EXPECT_EQ(1u, turn(112).size());
    EXPECT_EQ(0u, turn(113).size());
}

TEST_F(Deliver, ZeroAndBelowConsume)
{
    client("a", first);
    answers[0] = {0, -1, INT32_MIN};
    for (const char *file : {"1", "2", "3", "4"})
        happens("a", file);
    EXPECT_EQ(4u, turn(1).size());
    EXPECT_EQ(0, fmon.event_count);
    EXPECT_EQ(0u, next_call(0));
}

TEST_F(Deliver, ANullCallbackConsumes)
{
    client("a", nullptr);
    happens("a", "1");
    EXPECT_EQ(Seen{}, turn(1));
    EXPECT_EQ(0, fmon.event_count);
}

TEST_F(Deliver, EmptiesAQueueInOneTurn)
{
    client("a", first);
    for (int i = 0; i < 50; i++)
        happens("a", std::to_string(i));
    EXPECT_EQ(50u, turn(1).size());
}

TEST_F(Deliver, AnEventOfTwoClientsIsFreedByTheLast)
{
    client("a", first);
    _orx_fmon_create_instance("b", second);
    ASSERT_EQ(0, _orx_fmon_add_watch(1, tree.path("a").c_str(), FMON_ALL_EVENTS, FMON_DIR, 0, 0));
    answers[1] = {10};
    happens("a", "1");
    EXPECT_EQ((Seen{"0:1 create", "1:1 create"}), turn(100));
    EXPECT_EQ(1, fmon.event_count);
    EXPECT_EQ(Seen{"1:1 create"}, turn(110));
    EXPECT_EQ(0, fmon.event_count);
}

TEST_F(Deliver, ManyRows)
{
    for (int i = 0; i < FMON_MAX_INSTANCES; i++)
        client("c" + std::to_string(i), third);
    for (int i = FMON_MAX_INSTANCES - 1; i >= 0; i--)
        happens("c" + std::to_string(i), std::to_string(i));
    const Seen all = turn(1);
    ASSERT_EQ(static_cast<size_t>(FMON_MAX_INSTANCES), all.size());
    for (int i = 0; i < FMON_MAX_INSTANCES; i++)
        EXPECT_EQ("2:" + std::to_string(i) + " create", all[static_cast<size_t>(i)]);
}

/* ---- the timer's wrap, every 49.7 days ---- */

TEST_F(Deliver, APauseAcrossTheWrap)
{
    client("a", first);
    answers[0] = {0x200};
    happens("a", "1");
    EXPECT_EQ(1u, turn(0xffffff00).size());
    EXPECT_EQ(0x100u, next_call(0));
    EXPECT_EQ(0u, turn(0xffffff80).size());
    EXPECT_EQ(0u, turn(0xffffffff).size());
    EXPECT_EQ(0u, turn(0).size());
    EXPECT_EQ(0u, turn(0xff).size());
    EXPECT_EQ(1u, turn(0x100).size());
}

/* A next-call time just before the wrap does not lie ahead once the wrap is past. */
TEST_F(Deliver, APauseThatEndedBeforeTheWrap)
{
    client("a", first);
    answers[0] = {0x10};
    happens("a", "1");
    EXPECT_EQ(1u, turn(0xffffff00).size());
    EXPECT_EQ(0xffffff10u, next_call(0));
    EXPECT_EQ(1u, turn(5).size());
}

TEST_F(Deliver, APauseThatEndsAtZeroIsStillAPause)
{
    client("a", first);
    answers[0] = {0x10};
    happens("a", "1");
    EXPECT_EQ(1u, turn(0xfffffff0).size());
    EXPECT_EQ(0u, turn(0xffffffff).size());
    EXPECT_EQ(1u, turn(1).size());
}

TEST_F(Deliver, NeverPausedIsServedInEveryHalfOfTheRange)
{
    client("a", first);
    for (uint32_t now : {1u, 0x7fffffffu, 0x80000000u, 0x80000001u, 0xffffffffu}) {
        happens("a", "1");
        EXPECT_EQ(1u, turn(now).size()) << now;
    }
}

TEST_F(Deliver, AnExpiredPauseDoesNotComeBackHalfARangeLater)
{
    client("a", first);
    answers[0] = {10};
    happens("a", "1");
    turn(100);
    EXPECT_EQ(1u, turn(110).size());
    EXPECT_EQ(0u, next_call(0));
    happens("a", "2");
    EXPECT_EQ(1u, turn(110 + 0x80000001u).size());
}

TEST_F(Deliver, ATurnWithoutEventsAlsoEndsAnExpiredPause)
{
    client("a", first);
    fmon_shell.rows[0].next_call = 110;
    turn(110);
    EXPECT_EQ(0u, next_call(0));
}

TEST_F(Deliver, TheLongestPause)
{
    client("a", first);
    answers[0] = {INT32_MAX};
    happens("a", "1");
    EXPECT_EQ(1u, turn(1).size());
    EXPECT_EQ(0x80000000u, next_call(0));
    EXPECT_EQ(0u, turn(1).size());
    EXPECT_EQ(0u, turn(0x7fffffff).size());
    EXPECT_EQ(1u, turn(0x80000000).size());
}

}  // namespace
