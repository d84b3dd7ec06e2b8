/* An instance's events on their way to outputs that take them, take some, or take none. */
#include "output/fanout.h"

#include <functional>
#include <future>

#include "agent/time_format.h"
#include "orx_fmon.h"
#include "output/formats.h"
#include "unit/agent/agent_testing.h"

using namespace output;
using agent_testing::event_of;
using Texts = std::vector<std::string>;

namespace
{

/* What a sink was given, and how much it may take. */
struct World {
    std::atomic<size_t> room = SIZE_MAX;
    common::Mutex lock;
    Texts taken;
    std::vector<uint64_t> numbers;
    size_t flushes = 0, drains = 0;
    Condition condition;
    size_t waiting = 0;
    bool keeps = false; /* what waits */
    std::function<void()> while_draining;

    Texts all()
    {
        const common::Lock hold(lock);
        return taken;
    }
};

class FakeSink : public Sink
{
public:
    explicit FakeSink(World &world) : world_(world) {}

    bool open(std::string &) override { return true; }
    size_t accept(std::span<const Record> records) override
    {
        const common::Lock hold(world_.lock);
        const size_t count = std::min<size_t>(world_.room, records.size());
        world_.room -= world_.room == SIZE_MAX ? 0 : count;
        for (const Record &record : records.first(count)) {
            world_.taken.emplace_back(record.text);
            world_.numbers.push_back(record.number);
            if (record.event) {
                EXPECT_NE(std::string::npos, record.text.find(record.event->path)) << record.text;
            }
        }
        return count;
    }
    void flush() override { world_.flushes++; }
    bool drain(uint64_t) override
    {
        if (world_.while_draining)
            world_.while_draining();
        return ++world_.drains > 0;
    }
    uint64_t safe() const override { return world_.numbers.empty() ? 0 : world_.numbers.back(); }
    Condition condition() const override { return world_.condition; }
    bool keeps_waiting() const override { return world_.keeps; }
    SinkFigures figures() const override { return {world_.taken.size(), 0, 0, 0, world_.waiting}; }

private:
    World &world_;
};

class FanoutTest : public testing::Test
{
protected:
    static std::unique_ptr<Outlet> opened(World &world, const std::string &key, const std::string &format = "%e %p")
    {
        std::string error;
        return std::make_unique<Outlet>(key, "fake", format, make_formatter(format, {}, error),
                                        std::make_unique<FakeSink>(world));
    }
    void add(World &world, const std::string &key, const std::string &format = "%e %p")
    {
        fanout.add_outlet(opened(world, key, format));
    }

    void create(const std::string &path) { fanout.event(event_of(path, FMON_CREATE), {FMON_CREATE}); }

    World first, second;
    Fanout fanout{{"host", "boot", "web"}};
};

}  // namespace

TEST_F(FanoutTest, EachOutputGetsEachEventInItsForm)
{
    add(first, "1");
    add(second, "2", "%p");
    create("/a");
    create("/b");
    fanout.flush();
    EXPECT_EQ((Texts{"create /a\n", "create /b\n"}), first.all());
    EXPECT_EQ((Texts{"/a\n", "/b\n"}), second.all());
    EXPECT_EQ(first.numbers, second.numbers);
    EXPECT_LT(first.numbers[0], first.numbers[1]);
    EXPECT_EQ(2u, fanout.figures().events);
    EXPECT_EQ(2u, fanout.figures().latencies.count);
}

TEST_F(FanoutTest, NumbersOfALaterServiceAreHigher)
{
    add(first, "1");
    create("/a");
    fanout.flush();
    Fanout later({"host", "boot", "web"});
    EXPECT_GT(later.number(), first.numbers[0]);
}

TEST_F(FanoutTest, ABigBatchIsHandedOverInParts)
{
    add(first, "1");
    const std::string name(1000, 'x');
    for (int i = 0; i < 100; i++)
        create("/" + name);
    EXPECT_FALSE(first.all().empty());
    fanout.flush();
    EXPECT_EQ(100u, first.all().size());
}

TEST_F(FanoutTest, AnOutputThatTakesNothingIsWaitedFor)
{
    add(first, "1");
    add(second, "2");
    first.room = 1;
    create("/a");
    create("/b");
    std::future<void> flushed = std::async(std::launch::async, [&] { fanout.flush(); });
    while (!fanout.is_waiting())
        std::this_thread::yield();
    EXPECT_EQ(2u, second.all().size());  // the others have theirs
    EXPECT_EQ(1u, first.all().size());
    first.room = SIZE_MAX;
    flushed.wait();
    EXPECT_EQ((Texts{"create /a\n", "create /b\n"}), first.all());
    EXPECT_FALSE(fanout.is_waiting());
}

TEST_F(FanoutTest, EventsOfAnotherWatchMayComeMeanwhile)
{
    add(first, "1");
    first.room = 0;
    create("/a");
    std::future<void> flushed = std::async(std::launch::async, [&] { fanout.flush(); });
    while (!fanout.is_waiting())
        std::this_thread::yield();
    create("/b");
    first.room = SIZE_MAX;
    flushed.wait();
    fanout.flush();
    EXPECT_EQ((Texts{"create /a\n", "create /b\n"}), first.all());
}

TEST_F(FanoutTest, WhatASpoolKeepsIsNotLost)
{
    add(first, "1");
    add(second, "2");
    first.waiting = 3;
    second.waiting = 5;
    second.keeps = true;
    const Leftover left = fanout.drain();
    EXPECT_EQ(3u, left.lost);
    EXPECT_EQ(5u, left.kept);
    const Leftover gone = fanout.replace_outlets({"1"}, {}, 0);
    EXPECT_EQ(0u, gone.lost);
    EXPECT_EQ(5u, gone.kept);
}

TEST_F(FanoutTest, AfterTheDeadlineWhatIsNotTakenIsCounted)
{
    add(first, "1");
    first.room = 1;
    fanout.set_deadline(agent::steady_ms());
    for (const char *path : {"/a", "/b", "/c"})
        create(path);
    fanout.flush();
    EXPECT_EQ(2u, fanout.drain().lost);
    EXPECT_EQ(1u, first.drains);
    EXPECT_EQ(Texts{"create /a\n"}, first.all());
}

TEST_F(FanoutTest, OutputsThatGoAreDrainedAndOthersStay)
{
    add(first, "1");
    add(second, "2");
    create("/a");
    EXPECT_EQ(0u, fanout.replace_outlets({"2"}, {}, 1000).lost);
    EXPECT_EQ(Texts{"create /a\n"}, first.all());
    EXPECT_EQ(1u, first.drains);
    create("/b");
    fanout.flush();
    EXPECT_EQ((Texts{"create /a\n", "create /b\n"}), second.all());
    EXPECT_EQ(1u, fanout.outlet_figures().size());
}

TEST_F(FanoutTest, WhatComesWhileAnOutputIsReplacedGoesToTheNewOne)
{
    add(first, "1");
    create("/a");
    first.while_draining = [&] {
        create("/b");
        fanout.flush();
    };
    std::vector<std::unique_ptr<Outlet>> fresh;
    fresh.push_back(opened(second, "2"));
    EXPECT_EQ(0u, fanout.replace_outlets({}, std::move(fresh), 1000).lost);
    EXPECT_EQ(Texts{"create /a\n"}, first.all());
    EXPECT_EQ(Texts{"create /b\n"}, second.all());
}

TEST_F(FanoutTest, PathsAreShownAsGivenAndFilteredAsTheyAre)
{
    add(first, "1");
    FilterOptions filter;
    filter.include = {"^/real/"};
    fanout.set_filter(filter, {});
    agent::Root root;
    root.path = "/real";
    root.given = "/link";
    GivenPaths given;
    given.add(root);
    for (const char *path : {"/real/a", "/link/b", "/real/c"})
        fanout.event(event_of(path, FMON_CREATE), {FMON_CREATE, &given});
    fanout.flush();
    EXPECT_EQ((Texts{"create /link/a\n", "create /link/c\n"}), first.all());
}

TEST_F(FanoutTest, WhatTheSourceDoesNotSayIsLookedAtForThoseWhoAsk)
{
    const agent_testing::Directory directory;
    add(first, "1");
    create(directory.root());
    add(second, "2", "%p %d");
    create(directory.root());
    fanout.event(event_of(directory.root(), FMON_CREATE), {FMON_CREATE | FMON_DELETE});
    fanout.flush();
    EXPECT_EQ((Texts{directory.root() + " dir\n", directory.root() + " \n"}), second.all());
}

TEST_F(FanoutTest, FiltersAndHiddenFilesAreCounted)
{
    add(first, "1");
    FilterOptions filter;
    filter.exclude = {"swp$"};
    fanout.set_filter(filter, {"/var/log/fmon/events.json"});
    for (const char *path :
         {"/a", "/a.swp", "/var/log/fmon/events.json", "/var/log/fmon/events.json.1", "/var/log/fmon/events.jsonx"})
        create(path);
    fanout.flush();
    EXPECT_EQ((Texts{"create /a\n", "create /var/log/fmon/events.jsonx\n"}), first.all());
    EXPECT_EQ(5u, fanout.figures().events_in);
    EXPECT_EQ(3u, fanout.figures().filtered);
}

TEST_F(FanoutTest, PacingIsCountedAndReported)
{
    add(first, "1", "json");
    fanout.set_pacing({0, 1, 60'000});
    for (const char *path : {"/d/a", "/d/b", "/d/c"})
        create(path);
    fanout.drain();
    ASSERT_EQ(2u, first.all().size());
    EXPECT_NE(std::string::npos, first.all()[1].find("\"type\":\"burst\"")) << first.all()[1];
    EXPECT_NE(std::string::npos, first.all()[1].find("\"count\":2"));
    EXPECT_EQ(2u, fanout.figures().summarised);
    fanout.set_pacing({1, 1, 0});
    for (const char *path : {"/a", "/b", "/c"})
        create(path);
    fanout.set_pacing({});
    fanout.flush();
    EXPECT_NE(std::string::npos, first.all().back().find("\"source\":\"rate_limit\",\"count\":2"))
        << first.all().back();
    EXPECT_EQ(2u, fanout.figures().limited);
}

TEST_F(FanoutTest, OtherRecordsHaveTheirForm)
{
    add(first, "1", "json");
    add(second, "2"); /* a template has none for them */
    fanout.record("loss",
                  [](Formatter &form, uint64_t time, std::string &out) { form.loss(time, "inotify", 3, "", out); });
    fanout.flush();
    ASSERT_EQ(1u, first.all().size());
    EXPECT_NE(std::string::npos, first.all()[0].find("\"source\":\"inotify\",\"count\":3"));
    EXPECT_TRUE(second.all().empty());
}

TEST_F(FanoutTest, WhatASinkSaysIsNewsOnce)
{
    add(first, "1");
    EXPECT_EQ(Texts{}, fanout.news());
    first.condition = {true, 5, "the disk is full"};
    EXPECT_EQ(Texts{"output fake is stuck: the disk is full"}, fanout.news());
    EXPECT_EQ(Texts{}, fanout.news());
    first.condition = {};
    EXPECT_EQ(Texts{"output fake goes on"}, fanout.news());
    first.condition.text = "a torn line was cut";
    EXPECT_EQ(Texts{"output fake: a torn line was cut"}, fanout.news());
}
