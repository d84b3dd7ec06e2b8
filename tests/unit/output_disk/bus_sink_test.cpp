/* An output into a bus that answers as it likes: all that was accepted arrives or is counted, and is safe when it did.
 */
#include "output/sinks/bus_sink.h"

#include <filesystem>

#include "agent/time_format.h"
#include "fake_bus.h"
#include "spool_testing.h"
#include "testlib/fault.h"

using namespace output;
using fake_bus::Sent;
using fake_bus::world;

namespace
{

constexpr uint64_t kPatience = 60'000; /* milliseconds: a sanitizer on a busy machine is slow */

class BusSinkTest : public testing::Test
{
protected:
    BusSinkTest()
    {
        fake_bus::World &all = world();
        all.answer = nullptr;
        all.refuses_to_open.clear();
        all.takes = true;
        all.condition.clear();
        all.sent.clear();
        all.opened = all.closed = 0;
        fake_bus::answers().clear();
        std::string ignored;
        plan.bus.plugin = &fake_bus::kPlugin;
        plan.bus.origin = {"host", "boot", "web"};
        plan.bus.subject.parse("fmon.{host}.{kind}", false, ignored);
        plan.bus.settings = [](auto &texts, std::string &) {
            texts.push_back({"servers", "a\nb\n"});
            return true;
        };
        plan.spool = tree.path("spool");
        plan.heartbeat_ms = 0;
    }

    bool open()
    {
        sink.reset();
        sink = std::make_unique<BusSink>(plan);
        return sink->open(error);
    }

    size_t put(uint64_t first, uint64_t last)
    {
        std::vector<std::string> texts;
        std::vector<Record> records;
        for (uint64_t number = first; number <= last; number++)
            texts.push_back("record " + std::to_string(number) + "\n");
        for (uint64_t number = first; number <= last; number++)
            records.push_back({number, 0, "note", texts[number - first], nullptr});
        return sink->accept(records);
    }

    /* Waits until what was sent meets the condition. */
    template <typename Ready>
    bool await(Ready ready)
    {
        fake_bus::World &all = world();
        std::unique_lock<std::mutex> guard(all.mutex);
        return all.changed.wait_for(guard, std::chrono::milliseconds(kPatience), [&] { return ready(all.sent); });
    }
    static bool await_state(const std::function<bool()> &is_so)
    {
        const uint64_t end = agent::steady_ms() + kPatience;
        while (!is_so()) {
            if (agent::steady_ms() > end)
                return false;
            std::this_thread::yield();
        }
        return true;
    }
    bool await_condition(bool stuck, const std::string &text)
    {
        return await_state([&] {
            const Condition now = sink->condition();
            return now.stuck == stuck && now.text == text;
        });
    }
    bool await_safe(uint64_t number)
    {
        return await_state([&] { return sink->safe() == number; });
    }
    /* The numbers of this boot's records, as they were sent. */
    static std::vector<std::string> ids()
    {
        std::vector<std::string> out;
        for (const Sent &sent : world().sent)
            out.push_back(sent.id);
        return out;
    }

    testlib::TempTree tree;
    BusPlan plan;
    std::unique_ptr<BusSink> sink;
    std::string error;
};

}  // namespace

TEST_F(BusSinkTest, ARecordArrivesWithItsNames)
{
    ASSERT_TRUE(open()) << error;
    agent::Event event = {};
    event.mask = 0x100; /* create */
    event.path = "/data/a";
    const Record record = {9, 0, "event", "{}\n", &event};
    EXPECT_EQ(1u, sink->accept({&record, 1}));
    ASSERT_TRUE(sink->drain(kPatience));
    ASSERT_EQ(1u, world().sent.size());
    const Sent &sent = world().sent[0];
    EXPECT_EQ("fmon.host." + std::string(bus_kind(record)), sent.subject);
    EXPECT_EQ("boot:web:9", sent.id);
    EXPECT_EQ("host", sent.host);
    EXPECT_EQ("/data/a", sent.key);
    EXPECT_EQ("{}", sent.text);
    EXPECT_EQ("a\nb\n", world().settings["servers"]);
    EXPECT_EQ(9u, sink->safe());
    const SinkFigures figures = sink->figures();
    EXPECT_EQ(1u, figures.accepted);
    EXPECT_EQ(3u, figures.bytes);
    EXPECT_EQ(0u, figures.waiting + figures.dropped + figures.retries);
    sink.reset();
    EXPECT_EQ(1, world().closed);
}

TEST_F(BusSinkTest, TheKeyMayBeTheHost)
{
    plan.bus.key_is_host = true;
    ASSERT_TRUE(open());
    put(1, 1);
    ASSERT_TRUE(sink->drain(kPatience));
    EXPECT_EQ("host", world().sent[0].key);
}

TEST_F(BusSinkTest, ManyArriveInOrderAndOnce)
{
    ASSERT_TRUE(open());
    std::vector<std::string> expected;
    for (uint64_t first = 1; first < 20'000; first += 100)
        ASSERT_EQ(100u, put(first, first + 99));
    for (uint64_t number = 1; number <= 20'000; number++)
        expected.push_back("boot:web:" + std::to_string(number));
    ASSERT_TRUE(sink->drain(kPatience));
    EXPECT_EQ(expected, ids());
    EXPECT_EQ(20'000u, sink->safe());
}

TEST_F(BusSinkTest, WhatFailsIsSentAgainUntilItArrives)
{
    std::map<uint64_t, int> tries;
    world().answer = [&](const Sent &sent) {
        return sent.number % 3 == 0 && tries[sent.number]++ < 1 ? &fake_bus::kAgain : &fake_bus::kStored;
    };
    ASSERT_TRUE(open());
    put(1, 30);
    ASSERT_TRUE(sink->drain(kPatience));
    EXPECT_EQ(40u, world().sent.size());
    EXPECT_EQ(10u, sink->figures().retries);
    EXPECT_EQ(30u, sink->safe());
    EXPECT_FALSE(sink->condition().stuck);
}

TEST_F(BusSinkTest, OneThatFailsSaysWhyAndHoldsBackWhatIsSafe)
{
    world().answer = [](const Sent &sent) { return sent.number == 3 ? &fake_bus::kAgain : &fake_bus::kStored; };
    ASSERT_TRUE(open());
    put(1, 3);
    EXPECT_TRUE(await_condition(true, "because"));
    EXPECT_TRUE(await_safe(2));
    EXPECT_EQ(1u, sink->figures().waiting);
    EXPECT_FALSE(sink->drain(1));
    {
        const std::lock_guard<std::mutex> guard(world().mutex);
        world().answer = nullptr;
    }
    EXPECT_TRUE(sink->drain(kPatience));
    EXPECT_TRUE(await_condition(false, ""));
}

TEST_F(BusSinkTest, WhatWillNeverBeTakenIsCountedAndTold)
{
    world().answer = [](const Sent &sent) { return sent.number == 2 ? &fake_bus::kRefused : &fake_bus::kStored; };
    ASSERT_TRUE(open());
    put(1, 3);
    ASSERT_TRUE(await([](const auto &sent) { return sent.size() == 4; }));
    EXPECT_EQ(1u, sink->figures().dropped);
    EXPECT_EQ(3u, sink->safe());
    EXPECT_EQ("refused a record: because", sink->condition().text);
    EXPECT_FALSE(sink->condition().stuck);
    const Sent &loss = world().sent[3];
    EXPECT_EQ("fmon.host.loss", loss.subject);
    EXPECT_NE(loss.text.find(R"("source":"output","count":1)"), std::string::npos) << loss.text;
    EXPECT_EQ(0u, loss.id.find("boot:web:o")) << loss.id;
}

TEST_F(BusSinkTest, AFullSpoolDropsTheOldestAndTells)
{
    plan.limits.bytes = 64 << 10;
    world().takes = false;
    ASSERT_TRUE(open());
    EXPECT_EQ(5000u, put(1, 5000));
    uint64_t told = 0, total = 0;
    {
        const std::lock_guard<std::mutex> guard(world().mutex);
        world().takes = true;
    }
    ASSERT_TRUE(await([](const auto &sent) { return !sent.empty() && sent.back().subject == "fmon.host.loss"; }));
    ASSERT_TRUE(sink->drain(kPatience));
    size_t arrived = 0;
    for (const Sent &sent : world().sent) {
        arrived += sent.subject == "fmon.host.note";
        if (sent.subject == "fmon.host.loss") {
            told += std::stoull(sent.text.substr(sent.text.find("\"count\":") + 8));
            total = std::stoull(sent.text.substr(sent.text.find("\"total\":") + 8));
        }
    }
    EXPECT_EQ(total, sink->figures().dropped);
    EXPECT_LE(told, total); /* a loss record that was made meanwhile may itself have been dropped */
    EXPECT_LE(5000u, arrived + total);
    EXPECT_GT(5000u, arrived);
    EXPECT_EQ(5000u, sink->safe());
}

TEST_F(BusSinkTest, WhatWasNotAcknowledgedIsSentByTheNextRun)
{
    world().answer = [](const Sent &sent) { return sent.number <= 40 ? &fake_bus::kStored : nullptr; };
    ASSERT_TRUE(open());
    put(1, 100);
    ASSERT_TRUE(await([](const auto &sent) { return sent.size() == 100; }));
    EXPECT_FALSE(sink->drain(1));
    EXPECT_TRUE(await_safe(40));
    sink.reset();
    world().sent.clear();
    world().answer = nullptr;
    plan.bus.origin.boot = "next";
    ASSERT_TRUE(open());
    put(1, 2);
    ASSERT_TRUE(sink->drain(kPatience));
    ASSERT_EQ(62u, world().sent.size());
    EXPECT_EQ("boot:web:41", world().sent[0].id);
    EXPECT_EQ("boot:web:100", world().sent[59].id);
    EXPECT_EQ("next:web:1", world().sent[60].id);
    EXPECT_EQ(2u, sink->safe());
}

TEST_F(BusSinkTest, ABusThatCannotBeOpenedIsSaidAndRecordsWait)
{
    world().refuses_to_open = "no certificate";
    ASSERT_TRUE(open());
    EXPECT_EQ(3u, put(1, 3));
    EXPECT_TRUE(await_condition(true, "no certificate"));
    EXPECT_GT(sink->condition().since_ms, 0u);
    EXPECT_EQ(3u, sink->figures().waiting);
    {
        const std::lock_guard<std::mutex> guard(world().mutex);
        world().refuses_to_open.clear();
    }
    EXPECT_TRUE(sink->drain(kPatience));
    EXPECT_TRUE(await_condition(false, ""));
}

TEST_F(BusSinkTest, ASettingThatCannotBeReadIsSaid)
{
    plan.bus.settings = [](auto &, std::string &why) {
        why = "password: others may read it";
        return false;
    };
    ASSERT_TRUE(open());
    EXPECT_TRUE(await_condition(true, "password: others may read it"));
    EXPECT_EQ(0, world().opened);
}

TEST_F(BusSinkTest, WhatTheBusSaysOfItselfIsTheCondition)
{
    world().condition = "connection refused";
    world().answer = [](const Sent &) { return nullptr; };
    ASSERT_TRUE(open());
    put(1, 1);
    EXPECT_TRUE(await_condition(true, "connection refused"));
}

TEST_F(BusSinkTest, AHeartbeatComesByItself)
{
    plan.heartbeat_ms = 1;
    ASSERT_TRUE(open());
    put(1, 1);
    /* Those from before the record say that none was accepted. */
    EXPECT_TRUE(await([](const auto &sent) {
        const std::string text = sent.empty() ? "" : sent.back().text;
        return text.find(R"("type":"heartbeat")") != std::string::npos &&
               text.find(R"("accepted":1,)") != std::string::npos && sent.back().subject == "fmon.host.heartbeat";
    }));
}

TEST_F(BusSinkTest, AFullDiskTakesNoMoreAndSaysSo)
{
    world().takes = false;
    ASSERT_TRUE(open());
    EXPECT_EQ(1u, put(1, 1));
    {
        const testlib::Fault fault("pwrite", 1, ENOSPC);
        EXPECT_EQ(0u, put(2, 5));
    }
    EXPECT_TRUE(await_condition(true, "spool " + plan.spool + ": No space left on device"));
    EXPECT_EQ(4u, put(2, 5));
    EXPECT_TRUE(await_condition(false, ""));
    EXPECT_EQ(5u, sink->figures().accepted);
}

TEST_F(BusSinkTest, WithoutAThreadItDoesNotOpen)
{
    const testlib::Fault fault("pthread_create", 1, EAGAIN);
    EXPECT_FALSE(open());
    EXPECT_EQ("the system gives no thread", error);
}

TEST_F(BusSinkTest, ASpoolThatIsInUseDoesNotOpen)
{
    ASSERT_TRUE(open());
    BusSink second(plan);
    EXPECT_FALSE(second.open(error));
    EXPECT_NE(error.find("another output uses it"), std::string::npos);
}
