/* Tests of queue.h and intake.h: events on their way from the monitor thread to the command. */

#include "agent/queue.h"

#include <poll.h>

#include <thread>

#include "agent/intake.h"
#include "orx_fmon.h"
#include "unit/agent/agent_testing.h"

using namespace agent;
using agent_testing::event_of;

namespace
{

bool is_readable(int fd)
{
    struct pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, 0) == 1;
}

struct event record_of(char *path, uint32_t mask, uint32_t pid = 0)
{
    struct event event = {};
    event.path = path;
    event.mask = mask;
    event.pid = pid;
    return event;
}

}  // namespace

TEST(CliQueue, KeepsOrderAndContent)
{
    EventQueue queue(10, 1000);
    Batch batch;
    EXPECT_FALSE(queue.take(batch));
    Event event = event_of("/a", 1, 5);
    event.container = "box";
    event.dir = Known::kYes;
    event.move = 77;
    EXPECT_TRUE(queue.push(event, nullptr));
    EXPECT_TRUE(queue.push(event_of("", 2), std::make_shared<ProcessInfo>(ProcessInfo{"cat", "", "", 0, 0, 0})));
    ASSERT_TRUE(queue.take(batch));
    ASSERT_EQ(2u, batch.size());
    EXPECT_EQ("/a", batch.event(0).path);
    EXPECT_EQ('\0', batch.event(0).path.data()[2]);
    EXPECT_EQ("box", batch.event(0).container);
    EXPECT_EQ(5u, batch.event(0).pid);
    EXPECT_EQ(Known::kYes, batch.event(0).dir);
    EXPECT_EQ(77u, batch.event(0).move);
    EXPECT_EQ(Known::kUnknown, batch.event(1).dir);
    EXPECT_EQ(nullptr, batch.event(0).process);
    EXPECT_EQ("", batch.event(1).path);
    EXPECT_EQ("", batch.event(1).container);
    EXPECT_EQ("cat", batch.event(1).process->name);
    EXPECT_FALSE(queue.take(batch));
    EXPECT_TRUE(batch.empty());
}

TEST(CliQueue, IsBoundedInEventsAndBytes)
{
    EventQueue queue(2, 1000);
    EXPECT_TRUE(queue.push(event_of("/a", 1), nullptr));
    EXPECT_FALSE(queue.full());
    EXPECT_TRUE(queue.push(event_of("/b", 1), nullptr));
    EXPECT_TRUE(queue.full());
    EXPECT_FALSE(queue.push(event_of("/c", 1), nullptr));
    Batch batch;
    queue.take(batch);
    EXPECT_EQ(2u, batch.size());
    EXPECT_TRUE(queue.push(event_of("/c", 1), nullptr));
    EventQueue small(100, 10);
    EXPECT_TRUE(small.push(event_of("/0123456789", 1), nullptr));
    EXPECT_FALSE(small.push(event_of("/", 1), nullptr));
}

TEST(CliQueue, WakesOnlyWhoSleeps)
{
    EventQueue queue(10, 1000);
    queue.push(event_of("/a", 1), nullptr);
    EXPECT_FALSE(is_readable(queue.wake_fd()));
    EXPECT_FALSE(queue.prepare_to_sleep());  // there is something to take
    Batch batch;
    queue.take(batch);
    EXPECT_TRUE(queue.prepare_to_sleep());
    EXPECT_FALSE(is_readable(queue.wake_fd()));
    queue.push(event_of("/b", 1), nullptr);
    EXPECT_TRUE(is_readable(queue.wake_fd()));
    queue.clear_wake();
    queue.push(event_of("/c", 1), nullptr);
    EXPECT_FALSE(is_readable(queue.wake_fd()));  // once is enough
    queue.wake();
    EXPECT_TRUE(is_readable(queue.wake_fd()));
}

TEST(CliQueue, NothingIsLostBetweenTwoThreads)
{
    constexpr uint32_t kEvents = 200000;
    EventQueue queue(64, 4096);
    std::thread producer([&] {
        for (uint32_t i = 0; i < kEvents;)
            if (queue.push(event_of("/x", 1, i), nullptr))
                i++;
            else
                std::this_thread::yield();
    });
    Batch batch;
    uint32_t next = 0;
    while (next < kEvents) {
        if (!queue.take(batch)) {
            struct pollfd p = {queue.wake_fd(), POLLIN, 0};
            if (queue.prepare_to_sleep()) {
                ASSERT_EQ(1, poll(&p, 1, 10000));
            }
            queue.clear_wake();
        }
        for (size_t i = 0; i < batch.size(); i++)
            ASSERT_EQ(batch.event(i).pid, next++);
    }
    producer.join();
}

TEST(CliIntake, PassesOnWhatIsWanted)
{
    EventQueue queue(2, 1000);
    Intake intake(queue);
    const fmon_client_cb callback = intake.add_source(FMON_CREATE | FMON_MODIFY);
    char path[] = "/a";
    struct event wanted = record_of(path, FMON_CREATE | FMON_ATTRIB), other = record_of(path, FMON_ATTRIB);
    EXPECT_EQ(0, callback(&wanted));
    EXPECT_EQ(0, callback(&other));
    Batch batch;
    queue.take(batch);
    ASSERT_EQ(1u, batch.size());
    EXPECT_EQ(uint32_t{FMON_CREATE}, batch.event(0).mask);
}

TEST(CliIntake, AsksTheModuleWhatMoreIsKnown)
{
    EventQueue queue(2, 1000);
    Intake intake(queue);
    intake.ask([](const struct event *event, struct fmon_event_details *out) {
        EXPECT_EQ(sizeof *out, out->size);
        out->dir = event->mask == FMON_CREATE ? FMON_DIR_YES : FMON_DIR_NO;
        out->move = 7;
        return 0;
    });
    const fmon_client_cb callback = intake.add_source(FMON_ALL_EVENTS);
    char path[] = "/a";
    struct event directory = record_of(path, FMON_CREATE), file = record_of(path, FMON_MODIFY);
    EXPECT_EQ(0, callback(&directory));
    EXPECT_EQ(0, callback(&file));
    Batch batch;
    queue.take(batch);
    ASSERT_EQ(2u, batch.size());
    EXPECT_EQ(Known::kYes, batch.event(0).dir);
    EXPECT_EQ(Known::kNo, batch.event(1).dir);
    EXPECT_EQ(7u, batch.event(1).move);
}

TEST(CliIntake, ItsOwnDoingsAreNothing)
{
    EventQueue queue(2, 1000);
    Intake intake(queue);
    char path[] = "/a";
    struct event own = record_of(path, FMON_MODIFY, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(0, intake.add_source(FMON_MODIFY)(&own));
    Batch batch;
    EXPECT_FALSE(queue.take(batch));
}

TEST(CliIntake, AsksForAPauseWhenTheQueueIsFull)
{
    EventQueue queue(1, 1000);
    Intake intake(queue);
    const fmon_client_cb callback = intake.add_source(FMON_MODIFY);
    char path[] = "/a";
    struct event event = record_of(path, FMON_MODIFY), by_process = record_of(path, FMON_MODIFY, 1);
    EXPECT_EQ(0, callback(&event));
    EXPECT_GT(callback(&event), 0);
    EXPECT_GT(callback(&by_process), 0);
    Batch batch;
    queue.take(batch);
    EXPECT_EQ(0, callback(&by_process));
}

TEST(CliIntake, EachSourceHasItsOwnCallback)
{
    EventQueue queue(10, 1000);
    Intake intake(queue);
    char path[] = "/a";
    struct event event = record_of(path, FMON_MODIFY);
    for (uint32_t i = 0; i < Intake::kMaxSources; i++)
        EXPECT_EQ(0, intake.add_source(FMON_MODIFY)(&event));
    EXPECT_EQ(nullptr, intake.add_source(FMON_MODIFY));
    Batch batch;
    queue.take(batch);
    for (uint32_t i = 0; i < Intake::kMaxSources; i++)
        EXPECT_EQ(batch.event(i).source, i);
}

TEST(CliIntake, SeveralShareTheMonitorsInstances)
{
    EventQueue queue(8, 1024), other_queue(8, 1024);
    Processes processes;
    Intake intake(queue, processes);
    std::vector<std::unique_ptr<Intake>> others;
    const fmon_client_cb first = intake.add_source(FMON_CREATE);
    char path[] = "/a";
    struct event event = {};
    event.path = path;
    event.mask = FMON_CREATE;
    fmon_client_cb last = nullptr;
    for (size_t taken = 1; taken < FMON_MAX_INSTANCES; taken++) {
        if ((taken - 1) % Intake::kMaxSources == 0)
            others.push_back(std::make_unique<Intake>(other_queue, processes));
        last = others.back()->add_source(FMON_CREATE);
        ASSERT_NE(nullptr, last) << taken;
    }
    Intake none(other_queue, processes);
    EXPECT_EQ(nullptr, none.add_source(FMON_CREATE));
    EXPECT_EQ(0, first(&event));
    EXPECT_EQ(1u, queue.size());
    EXPECT_EQ(0, last(&event));
    EXPECT_EQ(1u, other_queue.size());
    others.pop_back();
    EXPECT_EQ(0, last(&event)); /* nobody's any more */
    EXPECT_EQ(1u, other_queue.size());
    EXPECT_NE(nullptr, none.add_source(FMON_CREATE));
}

TEST(CliIntake, TheMonitorThreadCountsAsTheCommand)
{
    EventQueue queue(2, 1000);
    Intake intake(queue);
    const fmon_client_cb callback = intake.add_source(FMON_CREATE);
    char path[] = "/log";
    std::thread([&] {
        struct event own = record_of(path, FMON_CREATE, static_cast<uint32_t>(gettid()));
        EXPECT_EQ(0, callback(&own));
    }).join();
    Batch batch;
    EXPECT_FALSE(queue.take(batch));
}

TEST(CliIntake, WhileHeldEventsStayWhereTheyAre)
{
    EventQueue queue(2, 1000);
    Intake intake(queue);
    const fmon_client_cb callback = intake.add_source(FMON_CREATE);
    char path[] = "/a";
    struct event wanted = record_of(path, FMON_CREATE), other = record_of(path, FMON_ATTRIB);
    intake.hold(true);
    EXPECT_EQ(Intake::kPauseMs, callback(&wanted));
    EXPECT_EQ(0, callback(&other));
    Batch batch;
    EXPECT_FALSE(queue.take(batch));
    intake.hold(false);
    EXPECT_EQ(0, callback(&wanted));
    EXPECT_TRUE(queue.take(batch));
}
