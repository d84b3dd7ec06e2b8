/* Tests of process_table.h: processes by what the kernel reports, with a made-up /proc and a clock that is moved by
 * hand. */
#include "agent/process_table.h"

#include "unit/agent/process_messages.h"

using namespace agent;
using namespace process_messages;

namespace
{

constexpr uint64_t kMs = 1'000'000, kSecond = 1000 * kMs;
constexpr uint32_t kShell = 10, kChild = 20;

uint64_t g_now;

class ProcessTables : public testing::Test
{
protected:
    ProcessTables()
    {
        g_now = 100 * kSecond;
        proc.put(1, {.name = "init", .exe = "/sbin/init", .arguments = "init", .ppid = 0, .start = 1});
        proc.put(
            kShell,
            {.name = "sh", .exe = "/bin/dash", .arguments = std::string("sh\0-c", 5), .start = 7, .loginuid = "1000"});
    }
    void apply(const std::string &datagram)
    {
        ProcessMessages messages(datagram.data(), datagram.size());
        for (ProcessEvent event; messages.next(event);)
            table.apply(event);
    }
    /* A moment later. */
    static uint64_t later(uint64_t ns = 10 * kMs) { return g_now += ns; }
    void fork(uint32_t parent = kShell, uint32_t child = kChild) { apply(forked(later(), parent, child)); }
    void exec(uint32_t pid, const std::string &name, const std::string &arguments, int start = 9)
    {
        proc.put(pid, {.name = name, .exe = "/bin/" + name, .arguments = arguments, .ppid = kShell, .start = start});
        apply(executed(later(), pid));
        later();
    }
    void end(uint32_t pid = kChild)
    {
        proc.end(pid);
        apply(ended(later(), pid));
    }
    /* What is told: name|program|arguments. */
    std::string told(uint32_t pid = kChild) { return told_at(pid, g_now); }
    std::string told_at(uint32_t pid, uint64_t time_ns)
    {
        if (const std::optional<ProcessReading> reading = table.read(pid, time_ns))
            table.refresh(*reading);
        process = table.find(pid, time_ns);
        return process ? process->name + "|" + process->exe + "|" + process->cmdline : "none";
    }
    std::string ancestors() const
    {
        std::string text;
        append_ancestors(
            process->parent, [](const std::string &name, std::string &out) { out += name; }, text);
        return text;
    }

    MadeUpProc proc;
    ProcessLimits limits;
    ProcessTable table{proc.root(), limits, [] { return g_now; }};
    ProcessPtr process;
};

}  // namespace

TEST_F(ProcessTables, AProgramIsKnownAfterItsEnd)
{
    fork();
    exec(kChild, "cat", std::string("cat\0x", 5));
    end();
    EXPECT_EQ("cat|/bin/cat|cat x", told());
    EXPECT_EQ(kShell, process->ppid);
    EXPECT_EQ(1001u, process->uid);
    EXPECT_EQ(9u, process->start);
    EXPECT_EQ(wall_clock_of_tick(9), process->start_ns);
    EXPECT_EQ("sh[10] < init[1]", ancestors());
}

TEST_F(ProcessTables, AChildIsWhatItsParentIsUntilItExecutesSomething)
{
    fork();
    end();
    EXPECT_EQ("sh|/bin/dash|sh -c", told());
    EXPECT_EQ(kShell, process->ppid);
    EXPECT_EQ(1000u, process->loginuid);
    EXPECT_EQ(tick_of(g_now) - 1, process->start)
        << "20 ms ago it was heard of: one tick, of which it was the last part";
}

TEST_F(ProcessTables, AChildThatRunsIsLookedAt)
{
    fork();
    proc.put(kChild, {.name = "sh", .exe = "/usr/bin/other", .arguments = "other", .ppid = kShell, .start = 8});
    EXPECT_EQ("sh|/usr/bin/other|other", told());
    EXPECT_EQ(8u, process->start);
}

TEST_F(ProcessTables, ALoginUserThatIsNotSetIsLeftOut)
{
    fork();
    exec(kChild, "cat", "cat");
    told();
    EXPECT_EQ(std::nullopt, process->loginuid);
}

TEST_F(ProcessTables, EventsBeforeAnotherProgramAreTheOldOnes)
{
    fork();
    exec(kChild, "cat", "cat");
    const uint64_t before = later();
    exec(kChild, "rm", "rm x");
    EXPECT_EQ("cat|/bin/cat|cat", told_at(kChild, before));
    EXPECT_EQ("rm|/bin/rm|rm x", told());
}

/* The files of the first program are read when the second one runs already. */
TEST_F(ProcessTables, AProgramThatWasReadTooLateIsNotKnown)
{
    fork();
    const uint64_t first = later();
    proc.put(kChild, {.name = "rm", .exe = "/bin/rm", .arguments = "rm", .ppid = kShell, .start = 9});
    later();
    apply(executed(first, kChild));
    apply(executed(first + 5 * kMs, kChild));
    EXPECT_EQ("||", told_at(kChild, first));
    EXPECT_EQ(kShell, process->ppid);
    EXPECT_EQ("rm|/bin/rm|rm", told());
}

/* Until the kernel has put the arguments into their place, the new program has none. */
TEST_F(ProcessTables, AProgramThatIsJustBeingPutInPlaceIsNotKnown)
{
    fork();
    exec(kChild, "cat", "");
    EXPECT_EQ("cat||", told());
}

TEST_F(ProcessTables, AProcessThatHadEndedBeforeItWasReadHasAParent)
{
    fork();
    apply(executed(later(), kChild));
    end();
    EXPECT_EQ("||", told());
    EXPECT_EQ(kShell, process->ppid);
    EXPECT_EQ("sh[10] < init[1]", ancestors());
}

TEST_F(ProcessTables, UsersAndNamesChangeWithTheirEvents)
{
    fork();
    exec(kChild, "su", "su");
    const uint64_t before = g_now;
    apply(user(later(), kChild, 0, 33));
    apply(named(later(), kChild, "worker"));
    later();
    EXPECT_EQ("worker|/bin/su|su", told());
    EXPECT_EQ(33u, process->uid);
    EXPECT_EQ("su|/bin/su|su", told_at(kChild, before));
    EXPECT_EQ(1001u, process->uid);
}

TEST_F(ProcessTables, EventsOfAnUnknownProcessAreNothing)
{
    apply(user(later(), 77, 0, 33));
    apply(named(later(), 77, "x"));
    apply(ended(later(), 77));
    EXPECT_EQ("none", told(77));
}

TEST_F(ProcessTables, AProgramOfAnUnknownProcessTakesItIn)
{
    proc.put(77, {.name = "cat", .exe = "/bin/cat", .arguments = "cat", .ppid = kShell, .start = 9});
    apply(executed(later(), 77));
    EXPECT_EQ("cat|/bin/cat|cat", told(77));
    EXPECT_EQ("sh[10] < init[1]", ancestors());
    proc.end(78);
    apply(executed(later(), 78));
    EXPECT_EQ("||", told(78));
}

TEST_F(ProcessTables, APidThatIsUsedAgainIsAnotherProcess)
{
    fork();
    exec(kChild, "cat", "cat");
    end();
    const uint64_t before = g_now;
    fork(1, kChild);
    exec(kChild, "rm", "rm", 12);
    EXPECT_EQ("cat|/bin/cat|cat", told_at(kChild, before));
    EXPECT_EQ(9u, process->start);
    EXPECT_EQ("rm|/bin/rm|rm", told());
    EXPECT_EQ(12u, process->start);
    EXPECT_EQ("init[1]", ancestors());
}

/* Their name was the thread's, which is not that of the process. */
TEST_F(ProcessTables, AChildOfAThreadHasTheNameThatProcSays)
{
    proc.put(kChild, {.name = "worker", .exe = "/bin/dash", .arguments = "sh", .ppid = kShell});
    apply(forked(later(), kShell, kChild, kShell + 1));
    proc.end(kChild);
    EXPECT_EQ("worker|/bin/dash|sh -c", told());
    apply(forked(later(), kShell, 21, kShell + 1));
    EXPECT_EQ("|/bin/dash|sh -c", told(21));
}

TEST_F(ProcessTables, ParentsThatHaveEndedStayParents)
{
    fork(kShell, 20);
    exec(20, "cron", "cron");
    fork(20, 21);
    fork(21, 22);
    end(21);
    end(20);
    exec(22, "cat", "cat");
    EXPECT_EQ("cat|/bin/cat|cat", told(22));
    EXPECT_EQ(21u, process->ppid);
    EXPECT_EQ("cron[21] < cron[20] < sh[10] < init[1]", ancestors());
}

TEST_F(ProcessTables, ChainsOfProcessesThatMakeTheNextAreCut)
{
    for (uint32_t pid = 100; pid < 400; pid++) {
        fork(pid == 100 ? kShell : pid - 1, pid);
        end(pid);
    }
    told(399);
    EXPECT_LE(process->parent->depth, kMostAncestors);
    EXPECT_EQ(398u, process->parent->pid);
}

TEST_F(ProcessTables, EndedProcessesAreForgottenAfterAWhile)
{
    fork();
    end();
    later(limits.keep_ns - kSecond);
    fork(kShell, 21);
    EXPECT_NE("none", told());
    later(2 * kSecond);
    fork(kShell, 22);
    EXPECT_EQ("none", told());
}

/* The kernel reports the end of its first thread. */
TEST_F(ProcessTables, AProcessWhoseFirstThreadEndedIsKept)
{
    fork();
    exec(kChild, "cat", "cat");
    apply(ended(later(), kChild));
    for (int i = 0; i < 3; i++) {
        later(limits.keep_ns + kSecond);
        fork(kShell, 21);
        EXPECT_EQ("cat|/bin/cat|cat", told());
    }
    exec(kChild, "rm", "rm"); /* by another thread */
    EXPECT_EQ("rm|/bin/rm|rm", told());
    proc.end(kChild);
    apply(ended(later(), kChild));
    later(limits.keep_ns + kSecond);
    fork(kShell, 22);
    EXPECT_EQ("none", told());
}

TEST_F(ProcessTables, WhatChangesWithoutAnEventIsReadAgain)
{
    fork();
    exec(kChild, "cat", "cat 1");
    EXPECT_EQ("cat|/bin/cat|cat 1", told());
    const ProcessPtr first = process;
    proc.put(kChild, {.name = "cat", .exe = "/bin/cat", .arguments = "cat 2", .ppid = kShell, .start = 9});
    EXPECT_EQ("cat|/bin/cat|cat 1", told());
    EXPECT_EQ(first, process);
    later(limits.refresh_ns);
    EXPECT_EQ("cat|/bin/cat|cat 2", told());
    const ProcessPtr second = process;
    later(limits.refresh_ns);
    EXPECT_EQ("cat|/bin/cat|cat 2", told());
    EXPECT_EQ(second, process) << "nothing new is the same record";
}

/* What was read is of the program whose message came meanwhile. */
TEST_F(ProcessTables, AReadingThatAProgramOvertookIsThrownAway)
{
    fork();
    exec(kChild, "cat", "cat");
    const uint64_t then = later(2 * kSecond);
    proc.put(kChild, {.name = "rm", .exe = "/bin/rm", .arguments = "rm", .ppid = kShell, .start = 9});
    const std::optional<ProcessReading> reading = table.read(kChild, then);
    ASSERT_TRUE(reading);
    apply(executed(later(), kChild));
    table.refresh(*reading);
    EXPECT_EQ("cat|/bin/cat|cat", told_at(kChild, then));
    EXPECT_EQ("rm|/bin/rm|rm", told());
}

TEST_F(ProcessTables, AReadingOfAnotherProcessIsThrownAway)
{
    fork();
    exec(kChild, "cat", "cat");
    later(2 * kSecond);
    proc.put(kChild, {.name = "rm", .exe = "/bin/rm", .arguments = "rm", .ppid = kShell, .start = 99});
    EXPECT_EQ("cat|/bin/cat|cat", told());
    later(2 * kSecond);
    const std::optional<ProcessReading> reading = table.read(kChild, g_now);
    ASSERT_TRUE(reading);
    end();
    table.refresh(*reading);
    EXPECT_EQ("cat|/bin/cat|cat", told());
}

TEST_F(ProcessTables, ASurveyTakesInWhatRuns)
{
    proc.put(kChild, {.name = "cat", .exe = "/bin/cat", .arguments = "cat", .ppid = kShell, .start = 9});
    table.survey(g_now);
    EXPECT_EQ(3u, table.size());
    end();
    EXPECT_EQ("cat||", told()) << "its program had not been read";
    EXPECT_EQ("sh[10] < init[1]", ancestors());
    EXPECT_EQ("sh|/bin/dash|sh -c", told(kShell));
}

/* The message of its making was still to be read when the survey met it. */
TEST_F(ProcessTables, TheMessageOfOneThatTheSurveyMetIsOfTheSame)
{
    const uint64_t made = later();
    proc.put(kChild, {.name = "cat", .exe = "/bin/cat", .arguments = "cat", .ppid = kShell, .start = 9});
    later();
    table.survey(g_now);
    apply(forked(made, kShell, kChild));
    EXPECT_EQ("cat|/bin/cat|cat", told());
    EXPECT_EQ(9u, process->start);
}

TEST_F(ProcessTables, AfterALossWhatRunsIsReadAnew)
{
    fork();
    exec(kChild, "cat", "cat");
    fork(kShell, 21);
    fork(kShell, 22);
    end(22);
    proc.put(kChild, {.name = "rm", .exe = "/bin/rm", .arguments = "rm", .ppid = kShell, .start = 9});
    proc.put(30, {.name = "new", .exe = "/bin/new", .arguments = "new", .ppid = kChild, .start = 11});
    later();
    table.survey(g_now);
    later();
    EXPECT_EQ("rm|/bin/rm|rm", told());
    EXPECT_EQ("new|/bin/new|new", told(30));
    EXPECT_EQ("rm[20] < sh[10] < init[1]", ancestors());
    EXPECT_EQ("||", told(21)) << "it has gone, and what it had become is not known";
    EXPECT_EQ(kShell, process->ppid);
    EXPECT_EQ("sh|/bin/dash|sh -c", told(22)) << "its end was heard";
}

TEST_F(ProcessTables, WhatWasHeardAfterALossHolds)
{
    fork();
    const uint64_t lost = later();
    exec(kChild, "cat", "cat");
    fork(kShell, 21);
    proc.end(kChild); /* which the kernel has reported, and nobody read */
    table.survey(lost);
    EXPECT_EQ("cat|/bin/cat|cat", told());
    EXPECT_EQ("sh|/bin/dash|sh -c", told(21));
}

TEST_F(ProcessTables, ASurveySeesThatAPidOfTheDeadIsUsedAgain)
{
    fork();
    end();
    const uint64_t before = g_now;
    later();
    proc.put(kChild, {.name = "rm", .exe = "/bin/rm", .arguments = "rm", .ppid = 1, .start = 20000});
    table.survey(g_now);
    EXPECT_EQ("rm|/bin/rm|rm", told());
    EXPECT_EQ("init[1]", ancestors());
    EXPECT_EQ("sh|/bin/dash|sh -c", told_at(kChild, before)) << "who had it before";
}

TEST_F(ProcessTables, ASurveySeesPidsThatAreUsedAgain)
{
    fork();
    exec(kChild, "cat", "cat");
    proc.put(kChild, {.name = "rm", .exe = "/bin/rm", .arguments = "rm", .ppid = 1, .start = 99});
    later();
    table.survey(g_now);
    EXPECT_EQ("rm|/bin/rm|rm", told());
    EXPECT_EQ("init[1]", ancestors());
}

TEST_F(ProcessTables, WithoutProcThereIsNothing)
{
    ProcessTable empty(proc.root() + "/none");
    empty.survey(1);
    EXPECT_EQ(0u, empty.size());
    ProcessEvent event = {.kind = ProcessEvent::Kind::kFork, .pid = 20, .time_ns = 5, .parent = 10};
    empty.apply(event);
    EXPECT_EQ(10u, empty.find(20, 6)->ppid);
    EXPECT_EQ("", empty.find(20, 6)->name);
}

TEST_F(ProcessTables, TheNumberOfProcessesIsBounded)
{
    limits.processes = 500;
    ProcessTable small(proc.root(), limits, [] { return g_now; });
    for (uint32_t pid = 100; pid < 3000; pid++) {
        small.apply({.kind = ProcessEvent::Kind::kFork, .pid = pid, .time_ns = later(1000), .parent = kShell});
        if (pid % 2)
            small.apply({.kind = ProcessEvent::Kind::kExit, .pid = pid, .time_ns = g_now});
        EXPECT_LE(small.size(), limits.processes);
    }
    EXPECT_NE(nullptr, small.find(2998, g_now));
    EXPECT_EQ(nullptr, small.find(101, g_now)) << "those that ended first go first";
}

TEST_F(ProcessTables, TheBytesAreBounded)
{
    limits.bytes = 1 << 19;
    const size_t before = CountedBytes::sum();
    {
        ProcessTable small(proc.root(), limits, [] { return g_now; });
        for (uint32_t pid = 1000; pid < 1400; pid++) {
            proc.put(pid, {.name = "big", .exe = "/bin/big", .arguments = std::string(4000, 'x'), .ppid = kShell});
            small.apply({.kind = ProcessEvent::Kind::kExec, .pid = pid, .time_ns = later(1000)});
            EXPECT_NE(nullptr, small.find(pid, g_now));
            EXPECT_LE(CountedBytes::sum() - before, limits.bytes + 20000);
            proc.end(pid);
        }
    }
    EXPECT_EQ(before, CountedBytes::sum()) << "all is given back";
}
