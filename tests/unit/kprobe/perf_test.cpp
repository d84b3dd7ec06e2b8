/* Records as they stand in a ring, and rings that are made up. */
#include "perf.h"

#include <gtest/gtest.h>
#include <linux/perf_event.h>
#include <unistd.h>

#include <cstring>
#include <random>

#include "testlib/fault.h"
#include "testlib/kernel_double/fake_perf.h"
#include "testlib/kernel_double/kernel_double.h"
#include "testlib/random_bytes.h"

using namespace kprobe;
using testlib::Fault;
using testlib::KernelDouble;
using Bytes = std::vector<unsigned char>;
using Cpus = std::vector<int>;

namespace
{

constexpr size_t kRing = 8192;

struct Sink {
    std::vector<Bytes> raw;
    std::vector<uint64_t> times, losses;
    void sample(const Sample &sample)
    {
        raw.emplace_back(sample.raw, sample.raw + sample.raw_size);
        times.push_back(sample.time);
    }
    void lost(uint64_t count) { losses.push_back(count); }
};

/* A ring of CPU 0 and the memory behind it. */
struct Fixture {
    KernelDouble kernel;
    Ring ring;
    unsigned char *map = nullptr;
    size_t map_size = 0;

    explicit Fixture(size_t size = kRing)
    {
        EXPECT_EQ(0, ring.open(0, size));
        map = kernel.perf.map_of(ring.fd());
        map_size = size + static_cast<size_t>(sysconf(_SC_PAGESIZE));
    }
    bool put(const Bytes &entry) { return testlib::put_entry(map, map_size, entry); }
    bool put_raw(uint64_t time, const Bytes &raw) { return put(testlib::sample_entry(5, 1, 2, time, raw)); }
    Sink drain()
    {
        Sink sink;
        ring.drain(sink);
        return sink;
    }
};

Bytes header_only(uint32_t type, uint16_t size)
{
    const perf_event_header header = {type, 0, size};
    Bytes bytes(std::max<size_t>(size, sizeof(header)));
    memcpy(bytes.data(), &header, sizeof(header));
    return bytes;
}

}  // namespace

/* ---- one record ---- */

TEST(KprobePerf, ASample)
{
    const Bytes raw = {1, 2, 3, 4}, entry = testlib::sample_entry(0x123456789a, 77, 78, 99, raw);
    Sample sample;
    uint64_t lost = 0;
    ASSERT_EQ(Entry::kSample, parse_entry(entry.data(), entry.size(), sample, lost));
    EXPECT_EQ(0x123456789au, sample.stream);
    EXPECT_EQ(77u, sample.pid);
    EXPECT_EQ(78u, sample.tid);
    EXPECT_EQ(99u, sample.time);
    ASSERT_EQ(4u, sample.raw_size);
    EXPECT_EQ(0, memcmp(raw.data(), sample.raw, raw.size()));
}

TEST(KprobePerf, LossesAndOtherKinds)
{
    Sample sample;
    uint64_t lost = 0;
    const Bytes entry = testlib::lost_entry(183);
    EXPECT_EQ(Entry::kLost, parse_entry(entry.data(), entry.size(), sample, lost));
    EXPECT_EQ(183u, lost);
    for (const uint32_t type : {0u, 1u, 3u, 5u, 13u, 0xffffffffu}) {
        const Bytes other = header_only(type, 64);
        EXPECT_EQ(Entry::kOther, parse_entry(other.data(), other.size(), sample, lost)) << type;
    }
}

/* Every length, each in a block of its own, so that a byte too far is seen. */
TEST(KprobePerf, TruncatedRecords)
{
    const Bytes whole = testlib::sample_entry(1, 2, 3, 4, Bytes(20, 7)), lost_whole = testlib::lost_entry(9);
    Sample sample;
    uint64_t lost = 1;
    for (size_t size = 0; size < whole.size(); size++) {
        const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_EQ(Entry::kMalformed, parse_entry(cut.data(), size, sample, lost)) << size;
    }
    for (size_t size = 0; size < lost_whole.size(); size++) {
        const Bytes cut(lost_whole.begin(), lost_whole.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_EQ(size < 8 ? Entry::kMalformed : Entry::kOther, parse_entry(cut.data(), size, sample, lost)) << size;
    }
    EXPECT_EQ(1u, lost);
}

TEST(KprobePerf, ASizeOfRawBytesThatCannotBe)
{
    Bytes entry = testlib::sample_entry(1, 2, 3, 4, Bytes(20, 7));
    Sample sample;
    uint64_t lost;
    for (const uint32_t size : {21u, 1000u, 0x7fffffffu, 0xffffffffu}) {
        memcpy(entry.data() + 32, &size, sizeof(size));
        EXPECT_EQ(Entry::kMalformed, parse_entry(entry.data(), entry.size(), sample, lost)) << size;
    }
    memset(entry.data() + 32, 0, 4);
    ASSERT_EQ(Entry::kSample, parse_entry(entry.data(), entry.size(), sample, lost));
    EXPECT_EQ(0u, sample.raw_size);
}

/* ---- a ring ---- */

TEST(KprobePerf, RecordsOverTheRingsEnd)
{
    Fixture f;
    std::mt19937 random(5);
    uint64_t time = 0;
    for (int round = 0; round < 2000; round++) {
        std::vector<Bytes> put;
        for (size_t i = random() % 6; i-- > 0;) {
            const size_t size = (random() % 150) * 8 + 4;
            put.push_back(testlib::random_bytes(random, size));
            ASSERT_TRUE(f.put_raw(++time, put.back()));
        }
        const Sink sink = f.drain();
        ASSERT_EQ(put, sink.raw) << round;
        ASSERT_TRUE(sink.losses.empty());
    }
}

TEST(KprobePerf, WhatIsReadMakesRoom)
{
    Fixture f;
    const Bytes raw(1004);
    int held = 0;
    while (f.put_raw(1, raw))
        held++;
    EXPECT_EQ(7, held);
    EXPECT_EQ(7u, f.drain().raw.size());
    EXPECT_TRUE(f.put(testlib::lost_entry(12)));
    EXPECT_TRUE(f.put(header_only(PERF_RECORD_COMM, 48)));
    EXPECT_TRUE(f.put_raw(2, raw));
    const Sink sink = f.drain();
    EXPECT_EQ(std::vector<uint64_t>{12}, sink.losses);
    EXPECT_EQ(1u, sink.raw.size());
    EXPECT_TRUE(f.put_raw(3, raw));
    f.ring.forget();
    EXPECT_TRUE(f.drain().raw.empty());
}

/* A kernel does not write such; to run on or out of the ring would be worse than to stop. */
TEST(KprobePerf, RingsFullOfRubbish)
{
    std::mt19937 random(6);
    Fixture f(4096);
    for (int round = 0; round < 20000; round++) {
        const Bytes rubbish = testlib::random_bytes(random, 4096);
        const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        memcpy(f.map + page, rubbish.data(), rubbish.size());
        auto *control = reinterpret_cast<perf_event_mmap_page *>(f.map);
        control->data_head = random() % 3 == 0 ? random() : random() % 4096;
        control->data_tail = random() % 4 == 0 ? random() % 4096 / 8 * 8 : 0;
        if (random() % 2)
            memcpy(f.map + page, testlib::sample_entry(1, 2, 3, 4, Bytes(random() % 100)).data(), 40);
        f.drain();
        EXPECT_LE(control->data_tail, std::max<uint64_t>(control->data_head, 4096));
    }
}

TEST(KprobePerf, SmallerRingsWhereMemoryIsShort)
{
    KernelDouble kernel;
    Ring ring;
    {
        const Fault fault("mmap", 1, EPERM, 3);
        EXPECT_EQ(0, ring.open(1, 65536));
        EXPECT_EQ(4, fault.calls());
    }
    EXPECT_EQ(1, ring.cpu());
    EXPECT_EQ(8192 + static_cast<size_t>(sysconf(_SC_PAGESIZE)), kernel.perf.map_size_of(ring.fd()));
    {
        const Fault fault("mmap", 1, EPERM, 100);
        EXPECT_EQ(-EPERM, ring.open(1, 65536));
        EXPECT_EQ(5, fault.calls()); /* 64 KiB to 4 */
    }
    EXPECT_LT(ring.fd(), 0);
    EXPECT_EQ(0u, kernel.perf.open_events());
    Sink sink;
    ring.drain(sink); /* a ring without memory is an empty one */
    ring.forget();
    EXPECT_TRUE(sink.raw.empty());
    const Fault fault("perf_event_open", 1, EACCES);
    EXPECT_EQ(-EACCES, ring.open(0, 65536));
}

/* ---- events ---- */

TEST(KprobePerf, EventsThatCannotBeOpened)
{
    KernelDouble kernel;
    Ring first, second;
    ASSERT_EQ(0, first.open(0, kRing));
    ASSERT_EQ(0, second.open(1, kRing));
    EventSet events;
    bool bad_filter = true;
    {
        const Fault fault("perf_event_open", 2, EMFILE);
        EXPECT_EQ(-EMFILE, events.open(7, {&first, &second}, "", bad_filter));
        EXPECT_FALSE(bad_filter);
        EXPECT_FALSE(events.is_open());
    }
    for (const int nth : {1, 2, 3, 4}) { /* filter and output of each */
        const Fault fault("ioctl", nth, ENOMEM);
        EXPECT_EQ(-ENOMEM, events.open(7, {&first, &second}, "m==1", bad_filter)) << nth;
        EXPECT_EQ(nth % 2 == 1, bad_filter) << nth;
        EXPECT_FALSE(events.is_open());
        EXPECT_EQ(2u, kernel.perf.open_events()); /* the rings' */
    }
    EXPECT_EQ(-EINVAL, events.open(7, {&first, &second}, "nofield==1", bad_filter));
    EXPECT_TRUE(bad_filter);
    EXPECT_EQ(0, events.open(7, {&first, &second}, "m==1", bad_filter));
    EXPECT_EQ((std::vector<std::string>{"m==1", "m==1"}), kernel.perf.filters(7));
    EXPECT_EQ(4u, kernel.perf.open_events());
}

TEST(KprobePerf, SwitchedOnAndOff)
{
    Fixture f;
    EventSet events;
    bool bad_filter;
    ASSERT_EQ(0, events.open(7, {&f.ring}, "m==1", bad_filter));
    EXPECT_FALSE(f.kernel.perf.enabled(7));
    EXPECT_EQ(0, f.kernel.perf.hit(7, 0, 1, 2, 3, Bytes(12))); /* off at first */
    events.enable(true);
    EXPECT_EQ(1, f.kernel.perf.hit(7, 0, 1, 2, 4, Bytes(12)));
    events.enable(false);
    EXPECT_EQ(0, f.kernel.perf.hit(7, 0, 1, 2, 5, Bytes(12)));
    EXPECT_EQ((std::vector<uint64_t>{4}), f.drain().times);
}

/* ---- CPUs ---- */

TEST(KprobePerf, ListsOfCpus)
{
    EXPECT_EQ(Cpus{0}, parse_cpus("0\n"));
    EXPECT_EQ((Cpus{0, 1, 2, 3, 8}), parse_cpus("0-3,8"));
    EXPECT_EQ((Cpus{0, 2, 4, 5}), parse_cpus("0,2,4-5\n"));
    EXPECT_EQ(Cpus{}, parse_cpus(""));
    EXPECT_EQ(Cpus{}, parse_cpus("\n"));
    EXPECT_EQ(Cpus{}, parse_cpus("all"));
    EXPECT_EQ(Cpus{}, parse_cpus("-3"));
    EXPECT_EQ(Cpus{}, parse_cpus("3-1"));
    EXPECT_EQ(Cpus{4}, parse_cpus("4,,5"));
}

TEST(KprobePerf, ListsBeyondAnyMachine)
{
    EXPECT_EQ(65536u, parse_cpus("0-99999999").size());
    EXPECT_EQ(Cpus{}, parse_cpus("99999999999999999999"));
    EXPECT_EQ(Cpus{}, parse_cpus("9223372036854775807-9223372036854775807"));
    EXPECT_EQ(Cpus{1}, parse_cpus("1,4294967296"));
    for (const int cpu : parse_cpus("2147483640-2147483650"))
        EXPECT_GE(cpu, 0);
}

TEST(KprobePerf, ThisMachinesCpus) { EXPECT_FALSE(online_cpus().empty()); }
