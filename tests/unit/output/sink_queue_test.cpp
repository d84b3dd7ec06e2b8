/* Tests of sinks/queued_sink.h and packets.h: the buffer, the thread, pauses, the end. */

#include "output/sinks/queued_sink.h"

#include <sys/eventfd.h>

#include <condition_variable>
#include <mutex>

#include "agent/time_format.h"
#include "unit/output/sink_testing.h"

using namespace output;
using namespace sink_testing;

namespace
{

/* What a test and a transport, on two threads, have in common. */
struct Script {
    std::mutex mutex;
    std::condition_variable changed;
    bool open = true;                               /* carry() goes on */
    std::function<Carried(const Packets &)> answer; /* null: all is done */
    std::vector<std::string> carried;               /* what carry() was given, a piece a call */
    int finished = 0, idled = 0;
    uint64_t lost = 0; /* found out when idle */
    bool finish_result = true;

    void let(bool on)
    {
        const std::lock_guard lock(mutex);
        open = on;
        changed.notify_all();
    }
    std::vector<std::string> calls()
    {
        const std::lock_guard lock(mutex);
        return carried;
    }
    void set(std::function<Carried(const Packets &)> what)
    {
        const std::lock_guard lock(mutex);
        answer = std::move(what);
    }
};

class Scripted : public Transport
{
public:
    explicit Scripted(Script &script) : script_(script) {}

    bool encode(const Record &record, std::string &out) override
    {
        if (std::string_view(record.type) == "unfit")
            return false;
        out += record.text;
        return true;
    }
    Carried carry(const Packets &packets, const Patience &) override
    {
        std::unique_lock lock(script_.mutex);
        script_.carried.emplace_back(packets.bytes());
        script_.changed.wait(lock, [this]() { return script_.open; });
        return script_.answer ? script_.answer(packets) : Carried{packets.size()};
    }
    int idle() override
    {
        const std::lock_guard lock(script_.mutex);
        script_.idled++;
        lose(std::exchange(script_.lost, 0));
        return -1;
    }
    bool finish(uint64_t, const Patience &) override
    {
        const std::lock_guard lock(script_.mutex);
        script_.finished++;
        return script_.finish_result;
    }
    using Transport::say;

private:
    Script &script_;
};

class SinkQueue : public testing::Test
{
protected:
    ~SinkQueue() override { script.let(true); }

    void start(const QueueLimits &limits = {})
    {
        auto own = std::make_unique<Scripted>(script);
        sink = std::make_unique<QueuedSink>(std::move(own), limits);
        std::string error;
        ASSERT_TRUE(sink->open(error)) << error;
    }
    std::string all()
    {
        std::string text;
        for (const std::string &piece : script.calls())
            text += piece;
        return text;
    }
    bool is_waiting(uint64_t count) const
    {
        return becomes([=, this]() { return sink->figures().waiting == count; });
    }

    Script script;
    std::unique_ptr<QueuedSink> sink;
};

}  // namespace

TEST_F(SinkQueue, WhatIsFlushedArrivesInOrderAndIsSafe)
{
    start();
    const Records records(5, 3);
    EXPECT_EQ(0u, sink->safe());
    EXPECT_EQ(3u, sink->accept(records));
    EXPECT_EQ(3u, sink->figures().waiting);
    EXPECT_TRUE(script.calls().empty()) << "nothing asked for it yet";
    sink->flush();
    EXPECT_TRUE(is_waiting(0));
    EXPECT_EQ(records.text(), all());
    EXPECT_EQ(7u, sink->safe());
    const SinkFigures figures = sink->figures();
    EXPECT_EQ(3u, figures.accepted);
    EXPECT_EQ(records.text().size(), figures.bytes);
    EXPECT_EQ(0u, figures.dropped + figures.retries);
    EXPECT_FALSE(sink->condition().stuck);
}

TEST_F(SinkQueue, MuchIsCarriedUnasked)
{
    start({.batch_bytes = 64, .batch_records = 1000});
    give(*sink, Records(1, 1));
    EXPECT_TRUE(is_waiting(0));
    EXPECT_EQ(20u, sink->accept(Records(2, 20)));
    EXPECT_TRUE(is_waiting(0));
    for (const std::string &piece : script.calls())
        EXPECT_LE(piece.size(), 64u);
    EXPECT_EQ(21u, sink->safe());
}

TEST_F(SinkQueue, BatchesHaveNoMoreRecordsThanTheyMay)
{
    start({.batch_records = 4});
    give(*sink, Records(1, 10));
    EXPECT_TRUE(is_waiting(0));
    for (const std::string &piece : script.calls())
        EXPECT_LE(std::count(piece.begin(), piece.end(), '\n'), 4);
    EXPECT_EQ(Records(1, 10).text(), all());
}

TEST_F(SinkQueue, FewerWaitForMore)
{
    start({.batch_records = 3, .linger_ms = 600'000});
    give(*sink, Records(1, 2));
    EXPECT_EQ(2u, sink->figures().waiting);
    give(*sink, Records(3, 1));
    EXPECT_TRUE(is_waiting(0));
    EXPECT_EQ(std::vector{Records(1, 3).text()}, script.calls());
}

TEST_F(SinkQueue, AndNotForEver)
{
    start({.linger_ms = 30});
    const uint64_t before = agent::steady_ms();
    give(*sink, Records(1, 2));
    EXPECT_TRUE(is_waiting(0));
    EXPECT_GE(agent::steady_ms() + 10, before + 30);
}

TEST_F(SinkQueue, AFullBufferTakesNoMoreAndComesBackSoon)
{
    script.let(false);
    start({.capacity = 1000, .batch_bytes = 100});
    const Records records(1, 100, 99);
    EXPECT_EQ(10u, sink->accept(records));
    const uint64_t before = agent::steady_ms();
    EXPECT_EQ(0u, sink->accept(records));
    EXPECT_LE(agent::steady_ms(), before + 5000) << "the buffer stays full";
    sink->flush();
    script.let(true);
    EXPECT_TRUE(is_waiting(0));
    EXPECT_EQ(10u, sink->safe());
    EXPECT_EQ(10u, sink->accept(records));
}

TEST_F(SinkQueue, ARecordLargerThanTheBufferGoesAlone)
{
    start({.capacity = 10, .batch_bytes = 10});
    give(*sink, Records(1, 3, 1000));
    EXPECT_TRUE(is_waiting(0));
    EXPECT_EQ(3u, script.calls().size());
}

TEST_F(SinkQueue, WhatFailsIsTriedAgainAndSaidMeanwhile)
{
    int attempts = 0;
    script.set([&](const Packets &packets) -> Carried {
        if (++attempts == 1)
            return {.done = 1, .trouble = "no way"};
        return attempts < 4 ? Carried{.trouble = "still none"} : Carried{packets.size()};
    });
    start();
    const uint64_t before = agent::steady_ms();
    give(*sink, Records(1, 3));
    EXPECT_TRUE(becomes([&]() { return sink->condition().text == "no way"; }));
    EXPECT_TRUE(sink->condition().stuck);
    EXPECT_GE(sink->condition().since_ms, before);
    EXPECT_EQ(1u, sink->safe());
    EXPECT_TRUE(is_waiting(0));
    EXPECT_EQ(3u, sink->figures().retries);
    EXPECT_EQ(0u, sink->figures().dropped);
    EXPECT_FALSE(sink->condition().stuck);
    EXPECT_GE(agent::steady_ms() + 20, before + 100 + 200 + 400) << "each pause is twice the last";
    EXPECT_EQ(Records(2, 2).text(), script.calls()[1]);
}

TEST_F(SinkQueue, WhatCannotArriveIsCounted)
{
    script.set([](const Packets &packets) { return Carried{.dropped = packets.size()}; });
    script.lost = 2;
    start();
    give(*sink, Records(1, 3));
    EXPECT_TRUE(is_waiting(0));
    EXPECT_TRUE(becomes([&]() { return sink->figures().dropped == 5; }));
    EXPECT_EQ(3u, sink->safe());
}

TEST_F(SinkQueue, AndSoIsWhatHasNoForm)
{
    start();
    give(*sink, std::vector{record_of(1, "a\n", "unfit")});
    EXPECT_EQ(1u, sink->safe());
    give(*sink, std::vector{record_of(2, "b\n"), record_of(3, "c\n", "unfit")});
    EXPECT_TRUE(is_waiting(0));
    EXPECT_EQ(3u, sink->safe());
    EXPECT_EQ("b\n", all());
    EXPECT_EQ(2u, sink->figures().dropped);
    EXPECT_EQ(3u, sink->figures().accepted);
}

TEST_F(SinkQueue, TheEndWaitsUntilAllIsSafe)
{
    start({.batch_records = 1, .linger_ms = 600'000});
    EXPECT_EQ(4u, sink->accept(Records(1, 4)));
    EXPECT_TRUE(sink->drain(kPatienceMs));
    EXPECT_EQ(4u, sink->safe());
    EXPECT_EQ(1, script.finished);
    EXPECT_EQ(0u, sink->accept(Records(5, 1))) << "that was the end";
}

TEST_F(SinkQueue, ButNoLongerThanSaid)
{
    script.set([](const Packets &) { return Carried{.trouble = "nobody there"}; });
    start();
    give(*sink, Records(1, 4));
    EXPECT_FALSE(sink->drain(20));
    EXPECT_EQ(4u, sink->figures().waiting);
    EXPECT_EQ(0, script.finished);
}

TEST_F(SinkQueue, AnEndThatIsNotSafeIsSaid)
{
    script.finish_result = false;
    start();
    EXPECT_FALSE(sink->drain(kPatienceMs));
    EXPECT_EQ(1, script.finished);
}

TEST_F(SinkQueue, TheEndTriesAtOnceWhatWouldHavePaused)
{
    int attempts = 0;
    script.set([&](const Packets &packets) {
        return ++attempts == 1 ? Carried{.trouble = "no", .pause_ms = 600'000} : Carried{packets.size()};
    });
    start();
    give(*sink, Records(1, 1));
    EXPECT_TRUE(becomes([&]() { return sink->condition().stuck; }));
    EXPECT_TRUE(sink->drain(kPatienceMs));
}

TEST_F(SinkQueue, IdleTransportsAreLeftAlone)
{
    start();
    give(*sink, Records(1, 1));
    EXPECT_TRUE(is_waiting(0));
    EXPECT_TRUE(sink->drain(kPatienceMs));
    const std::lock_guard lock(script.mutex);
    EXPECT_LE(script.idled, 6);
}

TEST_F(SinkQueue, NothingIsOpenedAndNothingWaits)
{
    sink = std::make_unique<QueuedSink>(std::make_unique<Scripted>(script), QueueLimits{});
    EXPECT_TRUE(sink->drain(kPatienceMs));
}

TEST(SinkPackets, AreTakenFromTheFront)
{
    PacketList list;
    for (uint64_t number = 1; number <= 5; number++) {
        list.text() += line_of(number);
        list.close(number);
    }
    EXPECT_EQ(5u, list.size());
    EXPECT_EQ(2u, list.front(2, 1000).size());
    EXPECT_EQ(1u, list.front(5, 1).size()) << "one at least";
    EXPECT_EQ(2u, list.front(5, 2 * line_of(1).size() + 1).size());
    list.drop_front(2);
    const Packets rest = list.front(5, 1000);
    EXPECT_EQ(3u, rest.size());
    EXPECT_EQ(line_of(4), rest[1]);
    EXPECT_EQ(4u, rest.number(1));
    EXPECT_EQ(line_of(3) + line_of(4), rest.first(2).bytes());
    EXPECT_EQ(0u, rest.whole_in(line_of(3).size() - 1));
    EXPECT_EQ(1u, rest.whole_in(line_of(3).size()));
    list.drop_front(3);
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(0u, list.bytes());
    EXPECT_TRUE(list.front(5, 1000).empty());
}
