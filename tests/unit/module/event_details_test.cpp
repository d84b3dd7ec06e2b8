/* What a client may ask about an event: whether it is about a directory, and which rename it belongs to. */

#include <sys/fanotify.h>
#include <sys/inotify.h>

#include <vector>

#include "fs_source_fixture.h"
#include "testlib/records.h"

using namespace testlib;

namespace
{

struct fmon_event_details details_of(const struct event *ev)
{
    struct fmon_event_details out = {};
    out.size = sizeof out;
    EXPECT_EQ(0, _orx_fmon_event_details(ev, &out));
    EXPECT_EQ(sizeof out, out.size);
    return out;
}

/* A monitor with inotify and a watch on "a". */
class EventDetails : public ::testing::Test
{
protected:
    EventDetails() : a(tree.dir("a"))
    {
        EXPECT_EQ(0, m.result);
        EXPECT_EQ(0, m.add(a, FMON_ALL_EVENTS, FMON_DIR));
        wd = wd_of(a);
    }
    /* Of the next event, which is taken. */
    struct fmon_event_details next()
    {
        struct event *ev = fmon_read_event(m.id);
        EXPECT_NE(nullptr, ev);
        const struct fmon_event_details out = ev ? details_of(ev) : fmon_event_details{};
        if (ev)
            fmon_free_event(ev);
        return out;
    }
    uint32_t dir_of(uint32_t mask, const std::string &name)
    {
        m.feed(0, inotify_record(wd, mask, name));
        return next().dir;
    }
    void process(const char *name, uint32_t mask, struct fmon_raw raw)
    {
        fmon.raw = raw;
        EXPECT_EQ(0, event_process(&fmon, dcache_find(&fmon.dcache, a.c_str()), name, mask, 7, 1, nullptr));
    }

    TempTree tree;
    LinuxMonitor m;
    std::string a;
    int wd;
};

TEST_F(EventDetails, InotifySaysWhatIsADirectory)
{
    EXPECT_EQ(uint32_t{FMON_DIR_YES}, dir_of(IN_DELETE | IN_ISDIR, "d"));
    EXPECT_EQ(uint32_t{FMON_DIR_NO}, dir_of(IN_DELETE, "f"));
    EXPECT_EQ(uint32_t{FMON_DIR_YES}, dir_of(IN_ATTRIB | IN_ISDIR, ""));
    EXPECT_EQ(uint32_t{FMON_DIR_YES}, dir_of(IN_ATTRIB, ""))
        << "the watched directory itself, whatever the record says";
}

TEST_F(EventDetails, AWatchedFileIsNoDirectory)
{
    const std::string f = tree.file("f");
    ASSERT_EQ(0, m.add(f, FMON_ATTRIB, FMON_FILE));
    m.feed(0, inotify_record(wd_of(f), IN_ATTRIB));
    EXPECT_EQ(uint32_t{FMON_DIR_NO}, next().dir);
}

TEST_F(EventDetails, TheHalvesOfARenameHaveOneNumber)
{
    m.feed(0, inotify_record(wd, IN_MOVED_FROM, "x", 5) + inotify_record(wd, IN_MOVED_TO, "y", 5) +
                  inotify_record(wd, IN_MOVED_TO, "z", 6) + inotify_record(wd, IN_CREATE, "c"));
    const uint64_t from = next().move, to = next().move, other = next().move;
    EXPECT_NE(from, 0u);
    EXPECT_EQ(from, to);
    EXPECT_NE(other, 0u);
    EXPECT_NE(from, other);
    EXPECT_EQ(0u, next().move);
}

TEST_F(EventDetails, OfSeveralRenamesInOneEventNoneIsKnown)
{
    process("x", FMON_MOVED_FROM, {FMON_DIR_NO, 1});
    process("x", FMON_MOVED_TO, {FMON_DIR_NO, 2});
    process("x", FMON_CREATE, {FMON_DIR_NO, 0});
    EXPECT_EQ(0u, next().move);
    process("y", FMON_MOVED_TO, {FMON_DIR_NO, 0}); /* from somewhere */
    process("y", FMON_MOVED_TO, {FMON_DIR_NO, 3});
    EXPECT_EQ(0u, next().move);
    process("z", FMON_CREATE, {FMON_DIR_NO, 0});
    process("z", FMON_MOVED_FROM, {FMON_DIR_NO, 4});
    EXPECT_EQ(4u, next().move);
}

TEST_F(EventDetails, WhatWasADirectoryAndIsAFileIsNeither)
{
    process("x", FMON_DELETE, {FMON_DIR_YES, 0});
    process("x", FMON_CREATE, {FMON_DIR_NO, 0});
    EXPECT_EQ(uint32_t{FMON_DIR_UNKNOWN}, next().dir);
    process("y", FMON_CREATE, {FMON_DIR_UNKNOWN, 0});
    EXPECT_EQ(uint32_t{FMON_DIR_UNKNOWN}, next().dir);
    process("z", FMON_CREATE, {FMON_DIR_UNKNOWN, 0});
    process("z", FMON_ATTRIB, {FMON_DIR_YES, 0});
    EXPECT_EQ(uint32_t{FMON_DIR_YES}, next().dir);
}

TEST_F(EventDetails, WhatASourceSaysIsOfOneEventOnly)
{
    process("x", FMON_CREATE, {FMON_DIR_YES, 9});
    EXPECT_EQ(0u, fmon.raw.move);
    EXPECT_EQ(0, event_process(&fmon, dcache_find(&fmon.dcache, a.c_str()), "y", FMON_CREATE, 7, 1, nullptr));
    next();
    EXPECT_EQ(uint32_t{FMON_DIR_UNKNOWN}, next().dir);
}

TEST_F(EventDetails, FanotifySaysWhatItsDescriptorIs)
{
    const std::string f = tree.file("a/f");
    m.feed(1, fanotify_record(FMON_OPEN, open(f.c_str(), O_RDONLY), 1) +
                  fanotify_record(FMON_OPEN, open(a.c_str(), O_RDONLY), 2));
    EXPECT_EQ(uint32_t{FMON_DIR_NO}, next().dir);
    EXPECT_EQ(uint32_t{FMON_DIR_YES}, next().dir);
}

TEST_F(EventDetails, AreFilledAsFarAsTheCallerKnowsThem)
{
    process("x", FMON_MOVED_TO, {FMON_DIR_YES, 77});
    struct event *ev = fmon_peek_event(m.id);
    ASSERT_NE(nullptr, ev);
    struct fmon_event_details out = {8, 9, 9};
    EXPECT_EQ(0, _orx_fmon_event_details(ev, &out));
    EXPECT_EQ(8u, out.size);
    EXPECT_EQ(uint32_t{FMON_DIR_YES}, out.dir);
    EXPECT_EQ(9u, out.move) << "not touched";
    out.size = 7;
    EXPECT_EQ(FMON_EINVAL, _orx_fmon_event_details(ev, &out));
    out.size = 1000;
    EXPECT_EQ(0, _orx_fmon_event_details(ev, &out));
    EXPECT_EQ(sizeof out, out.size);
    EXPECT_EQ(77u, out.move);
}

/* ---- of whole file systems ---- */

/* The details of each event that is there, in their order. */
std::vector<struct fmon_event_details> all_of(int id)
{
    std::vector<struct fmon_event_details> all;
    while (struct event *ev = fmon_read_event(id)) {
        all.push_back(details_of(ev));
        fmon_free_event(ev);
    }
    return all;
}

TEST_F(FsSource, SaysWhatIsADirectory)
{
    ASSERT_EQ(0, m.add(tree.root(), FMON_CREATE, FMON_DIR));
    feed(record(FAN_CREATE, tree.root(), "f") + record(FAN_CREATE | FAN_ONDIR, tree.root(), "d"));
    ASSERT_TRUE(turn());
    const auto all = all_of(m.id);
    ASSERT_EQ(2u, all.size());
    EXPECT_EQ(uint32_t{FMON_DIR_NO}, all[0].dir);
    EXPECT_EQ(uint32_t{FMON_DIR_YES}, all[1].dir);
    EXPECT_EQ(0u, all[0].move);
}

TEST_F(FsSource, TheHalvesOfARenameHaveOneNumber)
{
    ASSERT_EQ(0, m.add(tree.root(), FMON_MOVED_FROM | FMON_MOVED_TO, FMON_DIR));
    feed(rename(tree.root(), "a", tree.root(), "b") + rename(tree.root(), "c", tree.root(), "d"));
    ASSERT_TRUE(turn());
    const auto all = all_of(m.id);
    ASSERT_EQ(4u, all.size());
    EXPECT_NE(all[0].move, 0u);
    EXPECT_EQ(all[0].move, all[1].move);
    EXPECT_EQ(all[2].move, all[3].move);
    EXPECT_NE(all[0].move, all[2].move);
}

TEST_F(FsSource, AHalfWhoseOtherOneIsNotToldHasNoPartner)
{
    NEED_HANDLES();
    const std::string in = tree.dir("in"), out = tree.dir("out");
    ASSERT_EQ(0, m.add(in, FMON_MOVED_FROM | FMON_MOVED_TO, FMON_DIR));
    feed(rename(in, "a", out, "a") + rename(out, "b", in, "b") + rename(in, "c", in, "d"));
    ASSERT_TRUE(turn());
    const auto all = all_of(m.id);
    ASSERT_EQ(4u, all.size());
    EXPECT_EQ(0u, all[1].move) << "moved in";
    EXPECT_NE(all[0].move, all[2].move);
    EXPECT_EQ(all[2].move, all[3].move);
}

TEST_F(FsSource, NumbersOfRenamesBeginAnewAndAreNeverNone)
{
    ASSERT_EQ(0, m.add(tree.root(), FMON_MOVED_FROM | FMON_MOVED_TO, FMON_DIR));
    {
        const FsLock lock;
        fs_source.move.number = FS_QUEUED_MOVES - 2;
    }
    feed(rename(tree.root(), "a", tree.root(), "b") + rename(tree.root(), "c", tree.root(), "d"));
    ASSERT_TRUE(turn());
    const auto all = all_of(m.id);
    ASSERT_EQ(4u, all.size());
    EXPECT_EQ(uint64_t{FS_QUEUED_MOVES - 1}, all[0].move);
    EXPECT_EQ(uint64_t{FS_QUEUED_MOVES - 1}, all[1].move);
    EXPECT_EQ(1u, all[2].move);
    EXPECT_EQ(1u, all[3].move);
}

}  // namespace
