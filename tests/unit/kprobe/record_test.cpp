/* Raw records of real kernels' forms, and what is handed on of them. */
#include "record.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>

#include <cstring>

#include "kprobe_facts.h"
#include "testlib/kernel_double/kernel_memory.h"

using namespace kprobe;
using namespace kprobe_facts;
using Bytes = std::vector<unsigned char>;

namespace
{

/* The format file that a kernel of that word makes of a plan: the fields follow each other without a gap. */
std::string format_of(const Plan &plan, size_t word)
{
    std::string text =
        "name: Kc_5\nID: 1500\nformat:\n"
        "\tfield:unsigned short common_type;\toffset:0;\tsize:2;\tsigned:0;\n"
        "\tfield:unsigned char common_flags;\toffset:2;\tsize:1;\tsigned:0;\n"
        "\tfield:unsigned char common_preempt_count;\toffset:3;\tsize:1;\tsigned:0;\n"
        "\tfield:int common_pid;\toffset:4;\tsize:4;\tsigned:1;\n\n"
        "\tfield:unsigned long __probe_ip;\toffset:8;\tsize:" +
        std::to_string(word) + ";\tsigned:0;\n";
    size_t at = 8 + word;
    for (const FetchArg &arg : plan.args) {
        const size_t bracket = arg.type.find('['), one = type_size(arg.type.substr(0, bracket), word);
        const size_t size = bracket == std::string::npos ? one : one * strtoul(&arg.type[bracket + 1], nullptr, 10);
        text += "\tfield:u" + std::to_string(one * 8) + " " + arg.name +
                (size == one ? "" : "[" + std::to_string(size / one) + "]") + ";\toffset:" + std::to_string(at) +
                ";\tsize:" + std::to_string(size) + ";\tsigned:0;\n";
        at += size;
    }
    return text + "\nprint fmt: \"(%lx) mnt=%u\", REC->__probe_ip, REC->mnt\n";
}

/* A plan's raw record, filled by argument names. */
struct Raw {
    Plan plan;
    std::vector<RawField> fields;
    Layout layout;
    Bytes bytes;

    Raw(Plan p, size_t word) : plan(std::move(p))
    {
        fields = parse_format(format_of(plan, word));
        EXPECT_EQ(plan.args.size(), fields.size());
        EXPECT_TRUE(layout.resolve(plan, fields));
        bytes.resize(fields.back().offset + fields.back().size);
    }

    void put(const std::string &arg, const void *value, size_t size)
    {
        for (const RawField &field : fields)
            if (field.name == arg)
                memcpy(bytes.data() + field.offset, value, std::min<size_t>(size, field.size));
    }
    void put(const std::string &arg, uint64_t value) { put(arg, &value, sizeof(value)); }
    void put(const std::string &arg, const char *text) { put(arg, text, strlen(text) + 1); }

    bool fill(Bytes &out) const
    {
        out.assign(layout.size(), 0xee);
        return layout.fill(bytes.data(), static_cast<uint32_t>(bytes.size()), out.data());
    }
};

std::string name_at(const Bytes &record, uint32_t level) /* 0: the own name */
{
    const uint32_t at = level == 0 ? kLeafOffset : 4 + (kAncestors - level) * kAncestorSize;
    const auto *text = reinterpret_cast<const char *>(record.data()) + at;
    return {text, strnlen(text, level == 0 ? kLeafSize : kAncestorSize)};
}

Raw file_record(const Facts &facts, const char *name = "Kc")
{
    Raw raw(plan_of(testlib::file_probe(facts.is_64, name), facts), facts.word());
    raw.put("mnt", 20);
    raw.put("n2", "/");
    raw.put("n1", "home");
    raw.put("n0", "report.txt");
    return raw;
}

Raw inotify_record(const Facts &facts)
{
    Raw raw(plan_of(testlib::inotify_probe_of(facts.is_64, facts.major, facts.minor), facts), facts.word());
    raw.put("i", 0xfffffff1);
    raw.put("w", 7);
    raw.put("m", 0x100);
    raw.put("f", "new");
    raw.put("z", 0xc2000000);
    return raw;
}

uint32_t word_at(const Bytes &bytes, size_t at)
{
    uint32_t value;
    memcpy(&value, bytes.data() + at, sizeof(value));
    return value;
}

}  // namespace

TEST(KprobeRecord, FileRecordsOfBothWords)
{
    for (const Facts &facts : {amd64_6_1(), i386_6_1()})
        for (const bool arrays : {true, false}) {
            Facts kernel = facts;
            kernel.arrays = arrays;
            Raw raw(plan_of(testlib::file_probe(facts.is_64, "Kc"), kernel), kernel.word());
            const std::string first = arrays ? "n0" : "n0_0", second = arrays ? "n1" : "n1_0";
            raw.put("mnt", 20);
            raw.put(arrays ? "n2" : "n2_0", "/");
            raw.put(second, "ho");
            raw.put(first, "abc");
            Bytes out;
            ASSERT_TRUE(raw.fill(out));
            ASSERT_EQ(420u, out.size());
            EXPECT_EQ(20u, word_at(out, 0));
            EXPECT_EQ("abc", name_at(out, 0));
            EXPECT_EQ("ho", name_at(out, 1));
            EXPECT_EQ("/", name_at(out, 2));
            for (uint32_t level = 3; level <= kAncestors; level++)
                EXPECT_EQ("", name_at(out, level));
        }
}

TEST(KprobeRecord, CloseRecordsCarryMaskAndMode)
{
    Raw raw = file_record(amd64_5_10(), "Km");
    raw.put("m", 8);
    raw.put("f", 0x81a4);
    Bytes out;
    ASSERT_TRUE(raw.fill(out));
    ASSERT_EQ(426u, out.size());
    EXPECT_EQ(8u, word_at(out, 420));
    EXPECT_EQ(0xa4, out[424]);
    EXPECT_EQ(0x81, out[425]);
}

TEST(KprobeRecord, ShortRawRecords)
{
    const Raw file = file_record(amd64_6_1()), inotify = inotify_record(i386_6_1());
    for (const Raw *raw : {&file, &inotify}) {
        Bytes out(raw->layout.size());
        for (uint32_t size = 0; size < raw->bytes.size(); size++) {
            const Bytes cut(raw->bytes.begin(), raw->bytes.begin() + size); /* a heap block of just that size */
            ASSERT_FALSE(raw->layout.fill(cut.data(), size, out.data())) << size;
        }
        Bytes padded = raw->bytes;
        padded.resize(padded.size() + 4);
        EXPECT_TRUE(raw->layout.fill(padded.data(), static_cast<uint32_t>(padded.size()), out.data()));
    }
}

TEST(KprobeRecord, ANameThatCouldNotBeRead)
{
    Bytes out;
    for (const char *empty : {"n0", "n1", "n2"}) {
        Raw raw = file_record(amd64_6_1());
        raw.put("n3", "/");
        raw.put("n2", "dir");
        ASSERT_TRUE(raw.fill(out));
        raw.put(empty, "");
        EXPECT_FALSE(raw.fill(out)) << empty;
    }
    /* what lies beyond the root is of no interest */
    Raw raw = file_record(amd64_6_1());
    raw.put("n4", "stale");
    EXPECT_TRUE(raw.fill(out));
}

TEST(KprobeRecord, TheRootOnEveryLevel)
{
    for (uint32_t root = 1; root <= kAncestors; root++) {
        Bytes record(kFileRecord);
        for (uint32_t level = 1; level < root; level++)
            record[4 + (kAncestors - level) * kAncestorSize] = 'd';
        record[4 + (kAncestors - root) * kAncestorSize] = '/';
        EXPECT_FALSE(has_all_names(record.data())) << root;
        record[kLeafOffset] = 'f';
        EXPECT_TRUE(has_all_names(record.data())) << root;
        if (root > 1) {
            record[4 + (kAncestors - 1) * kAncestorSize] = 0;
            EXPECT_FALSE(has_all_names(record.data())) << root;
        }
    }
    /* no root in sight: the monitor says so itself */
    Bytes deep(kFileRecord, 'd');
    EXPECT_TRUE(has_all_names(deep.data()));
}

TEST(KprobeRecord, InotifyRecordsOfBothWords)
{
    for (const Facts &facts : {amd64_5_10(), amd64_6_1(), i386_5_10(), i386_6_1()}) {
        const Raw raw = inotify_record(facts);
        Bytes out;
        ASSERT_TRUE(raw.fill(out));
        ASSERT_EQ(144u, out.size());
        EXPECT_EQ(0xfffffff1, word_at(out, 0));
        EXPECT_EQ(0u, word_at(out, 4)); /* widened */
        EXPECT_EQ(7u, word_at(out, 8));
        EXPECT_EQ(0x100u, word_at(out, 12));
        EXPECT_STREQ("new", reinterpret_cast<const char *>(out.data()) + kInotifyHead);
    }
}

TEST(KprobeRecord, WithoutANamePointerThereIsNoName)
{
    for (const Facts &facts : {amd64_6_1(), i386_6_1()}) {
        Raw raw = inotify_record(facts);
        raw.put("z", uint64_t{0});
        Bytes out;
        ASSERT_TRUE(raw.fill(out));
        EXPECT_EQ(Bytes(128, 0), Bytes(out.begin() + kInotifyHead, out.end()));
        EXPECT_EQ(7u, word_at(out, 8));
    }
}

TEST(KprobeRecord, TheMarkOfEventsOnChildrenGoes)
{
    Raw raw = inotify_record(amd64_6_1());
    raw.put("m", 0x48000100);
    Bytes out;
    ASSERT_TRUE(raw.fill(out));
    EXPECT_EQ(0x40000100u, word_at(out, 12));
}

TEST(KprobeRecord, OtherRecordsAreHandedOnAsTheyAre)
{
    Raw raw(plan_of({"do_exit", "Kx", "m=%di b=+8(%si):u16 f=+0(%dx):u64", ""}, amd64_6_1()), 8);
    raw.put("m", 0x08000000);
    raw.put("b", 0x1234);
    raw.put("f", 0x1122334455667788);
    Bytes out;
    ASSERT_TRUE(raw.fill(out));
    EXPECT_EQ((Bytes{0, 0, 0, 8, 0, 0, 0, 0, 0x34, 0x12, 0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11}), out);
}

TEST(KprobeRecord, ALayoutWithoutOneOfTheFields)
{
    for (const auto &probe : {testlib::file_probe(true, "Km"), testlib::inotify_probe_of(true, 6, 1)}) {
        const Plan plan = plan_of(probe, amd64_6_1());
        const std::vector<RawField> all = parse_format(format_of(plan, 8));
        for (size_t i = 0; i < all.size(); i++) {
            std::vector<RawField> fields = all;
            fields.erase(fields.begin() + static_cast<std::ptrdiff_t>(i));
            EXPECT_FALSE(Layout().resolve(plan, fields)) << all[i].name;
        }
    }
}

TEST(KprobeRecord, FieldsOfAnotherSize)
{
    Plan plan;
    plan.pieces = {{"a", 0, 8}, {"b", 8, 2}};
    plan.size = 10;
    Layout layout;
    ASSERT_TRUE(layout.resolve(plan, {{"a", 4, 2}, {"b", 6, 4}}));
    const Bytes raw = {9, 9, 9, 9, 1, 2, 3, 4, 5, 6};
    Bytes out(10, 0xee);
    ASSERT_TRUE(layout.fill(raw.data(), 10, out.data()));
    EXPECT_EQ((Bytes{1, 2, 0, 0, 0, 0, 0, 0, 3, 4}), out);
    plan.size = 9; /* a piece that goes over the record's end */
    EXPECT_FALSE(layout.resolve(plan, {{"a", 4, 2}, {"b", 6, 4}}));
}

TEST(KprobeRecord, MountIds)
{
    MountMap mounts;
    mounts.refresh({{23, 20, true, "/tmp"}});
    Bytes record(kFileRecord, 0xff);
    const uint32_t known = 20, unknown = 21;
    memcpy(record.data(), &known, sizeof(known));
    EXPECT_TRUE(put_mount_id(mounts, record.data()));
    EXPECT_EQ(23u, word_at(record, 0));
    memcpy(record.data(), &unknown, sizeof(unknown));
    EXPECT_FALSE(put_mount_id(mounts, record.data()));
    EXPECT_EQ(0u, word_at(record, 0));
    EXPECT_EQ(0xff, record[4]);
}

namespace
{

Bytes inotify_bytes(int32_t wd, uint32_t mask)
{
    Bytes record(kInotifyHead + 128, 0);
    memcpy(record.data() + 8, &wd, sizeof(wd));
    memcpy(record.data() + 12, &mask, sizeof(mask));
    return record;
}

}  // namespace

/* Of what the monitor's own thread does: that a file has gone, and its watch with it; not that it took a watch away. */
TEST(KprobeRecord, EndsOfWatches)
{
    WatchEnds ends;
    EXPECT_FALSE(ends.passes(inotify_bytes(7, IN_IGNORED).data())) << "taken away";
    EXPECT_FALSE(ends.passes(inotify_bytes(7, IN_CREATE | IN_ISDIR).data()));
    EXPECT_TRUE(ends.passes(inotify_bytes(7, IN_DELETE_SELF | IN_ISDIR).data()));
    EXPECT_FALSE(ends.passes(inotify_bytes(8, IN_IGNORED).data()));
    EXPECT_TRUE(ends.passes(inotify_bytes(7, IN_IGNORED).data()));
    EXPECT_FALSE(ends.passes(inotify_bytes(7, IN_IGNORED).data())) << "once";
}

/* A watch's end that was lost costs no memory for ever. */
TEST(KprobeRecord, EndsOfWatchesThatNeverCome)
{
    WatchEnds ends;
    for (int32_t wd = 0; wd < 100000; wd++)
        ASSERT_TRUE(ends.passes(inotify_bytes(wd, IN_DELETE_SELF).data()));
    EXPECT_TRUE(ends.passes(inotify_bytes(99999, IN_IGNORED).data()));
    EXPECT_FALSE(ends.passes(inotify_bytes(0, IN_IGNORED).data())) << "forgotten";
}
