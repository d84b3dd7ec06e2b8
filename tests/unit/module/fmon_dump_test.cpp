/* Tests of fmon_dump.cpp: every part of a dump, as lines of the log. */

#include "core_fixture.h"

namespace
{

using namespace testlib;

class Dump : public CoreTest
{
protected:
    Dump() : dir(tree.dir("d")), missing(tree.path("missing")) {}

    static Lines dump(uint32_t type)
    {
        return log_of([=] { EXPECT_EQ(0, fmon_dump(type, nullptr)); });
    }
    static Lines joined(std::initializer_list<Lines> parts)
    {
        Lines all;
        for (const Lines &part : parts)
            all.insert(all.end(), part.begin(), part.end());
        return all;
    }

    std::string dir, missing;
};

TEST_F(Dump, UnknownTypeIsRefused)
{
    for (uint32_t type : {7u, 8u, 0x80000000u, 0xffffffffu})
        EXPECT_TRUE(log_of([=] { EXPECT_EQ(-1, fmon_dump(type, nullptr)); }).empty());
}

TEST_F(Dump, EmptyInstancesAreOnlyTheHeading) { EXPECT_EQ((Lines{fmon_line(4, "\nInstance:\n")}), dump(1)); }

TEST_F(Dump, EmptyWaitingListIsOnlyTheHeading) { EXPECT_EQ((Lines{fmon_line(4, "\nTBD list:\n")}), dump(2)); }

TEST_F(Dump, EmptyTreeIsOnlyTheHeading) { EXPECT_EQ((Lines{fmon_line(4, "\nDentry:\n")}), dump(3)); }

TEST_F(Dump, EmptyTableHasItsCount)
{
    EXPECT_EQ((Lines{event_line(4, "\nEvents:\n"), event_line(4, "count: 0\n")}), dump(4));
}

TEST_F(Dump, InstancesShowWatchesAndQueue)
{
    instance("gone");
    int id = instance("client");
    fmon_destroy_instance(0);
    instance("late");
    ASSERT_EQ(0, fmon_add_watch(id, dir.c_str(), FMON_CREATE | FMON_OPEN, FMON_DIR | FMON_RECURSIVE, 3, 4));
    process(dir, "f", FMON_CREATE, 42);
    EXPECT_EQ((Lines{fmon_line(4, "\nInstance:\n"), fmon_line(4, "  late id 0\n"), fmon_line(4, "  client id 1\n"),
                     fmon_line(4, "    [W] " + dir +
                                      " (dentry), event open,create, flags dir,recursive, maxdepth 3, maxsubdirs 4\n"),
                     fmon_line(4, "    [E] " + dir + "/f, event create, pid 42, ref 2, pending 0\n")}),
              dump(1));
}

TEST_F(Dump, WaitingWatchShowsNilDentryInBothSections)
{
    int id = instance();
    ASSERT_EQ(0, add(id, missing, FMON_CREATE, FMON_DIR | FMON_DELETED));
    std::string rest = missing + " (nil dentry), event create, flags dir,deleted, maxdepth 0, maxsubdirs 0\n";
    EXPECT_EQ(fmon_line(4, "    [W] " + rest), dump(1).back());
    EXPECT_EQ((Lines{fmon_line(4, "\nTBD list:\n"), fmon_line(4, "  [W] " + rest)}), dump(2));
}

TEST_F(Dump, DynamicWatchShowsBothItsFlags)
{
    int id = instance();
    tree.dir("x/log");
    ASSERT_EQ(0, add(id, tree.path("*/log"), FMON_CREATE));
    Lines lines = dump(1);
    ASSERT_EQ(4u, lines.size());
    EXPECT_EQ(fmon_line(4, "    [W] " + tree.path("*/log") +
                               " (nil dentry), event create, flags dir,asterisk, maxdepth 0, maxsubdirs 0\n"),
              lines[2]);
    EXPECT_EQ(fmon_line(4, "    [W] " + tree.path("x/log") +
                               " (dentry), event create, flags dir,dynamic,asterisk, maxdepth 0, maxsubdirs 0\n"),
              lines[3]);
}

TEST_F(Dump, NegativeLimitIsShownAsSuch)
{
    int id = instance();
    ASSERT_EQ(0, fmon_add_watch(id, dir.c_str(), FMON_CREATE, FMON_DIR, 65535, 0xffffffff));
    EXPECT_NE(std::string::npos, dump(1).back().find("maxdepth 65535, maxsubdirs -1\n"));
}

TEST_F(Dump, OddQueueEntries)
{
    int id = instance();
    struct event nameless = {};
    nameless.mask = FMON_OPEN;
    nameless.pid = 7;
    nameless.ref = 0x80000001;
    nameless.pending = 0xa;
    struct event_entry entries[2] = {};
    entries[0].ev = &nameless;
    for (struct event_entry &entry : entries)
        list_add_tail(&entry.link, &fmon.instances[id].events);
    Lines lines = dump(1);
    ASSERT_EQ(4u, lines.size());
    EXPECT_EQ(fmon_line(4, "    [E] (nil path), event open, pid 7, ref 80000001, pending a\n"), lines[2]);
    EXPECT_EQ(fmon_line(4, "  nil event ptr\n"), lines[3]);
    for (struct event_entry &entry : entries)
        list_unlink(&entry.link);
}

TEST_F(Dump, EveryDirectoryIsShownOnce)
{
    for (const char *path : {"/a/b", "/a/c/d", "/e"})
        ASSERT_NE(nullptr, dcache_add(&fmon.dcache, path));
    EXPECT_EQ((Lines{fmon_line(4, "\nDentry:\n"), fmon_line(4, "  /a\n"), fmon_line(4, "  /a/b\n"),
                     fmon_line(4, "  /a/c\n"), fmon_line(4, "  /a/c/d\n"), fmon_line(4, "  /e\n")}),
              dump(3));
}

TEST_F(Dump, WatchesStandUnderTheirDirectory)
{
    int id = instance(), other = instance("other");
    ASSERT_EQ(0, add(id, dir, FMON_CREATE));
    ASSERT_EQ(0, fmon_add_watch(other, dir.c_str(), FMON_MODIFY, FMON_DIR | FMON_RECURSIVE, 2, 9));
    Lines lines = dump(3);
    ASSERT_GE(lines.size(), 3u);
    lines.erase(lines.begin(), lines.end() - 3);
    EXPECT_EQ((Lines{fmon_line(4, "  " + dir + "\n"),
                     fmon_line(4, "    [W] event create, flags dir, maxdepth 0, maxsubdirs 0\n"),
                     fmon_line(4, "    [W] event modify, flags dir,recursive, maxdepth 2, maxsubdirs 9\n")}),
              lines);
}

TEST_F(Dump, RootAndItsWatchesAreNotShown)
{
    int id = instance();
    ASSERT_EQ(0, add(id, "/", FMON_CREATE));
    ASSERT_NE(nullptr, dcache_add(&fmon.dcache, "/a"));
    EXPECT_EQ((Lines{fmon_line(4, "\nDentry:\n"), fmon_line(4, "  /a\n")}), dump(3));
}

TEST_F(Dump, PathTooLongIsShownAsSuch)
{
    ASSERT_NE(nullptr, dcache_add(&fmon.dcache, ("/" + std::string(1024, 'x')).c_str()));
    EXPECT_EQ(fmon_line(4, "  (path overflow)\n"), dump(3).back());
}

TEST_F(Dump, WalkThatRunsOutOfMemorySkipsASubtree)
{
    ASSERT_NE(nullptr, dcache_add(&fmon.dcache, "/a/b"));
    Fault malloc_fault("malloc"), calloc_fault("calloc");
    Lines lines = dump(3);
    EXPECT_EQ(fmon_line(4, "  /a\n"), lines[1]);
    EXPECT_EQ(3u, lines.size());
}

TEST_F(Dump, EverythingInItsOrder)
{
    int id = instance();
    ASSERT_EQ(0, add(id, dir, FMON_CREATE));
    ASSERT_EQ(0, add(id, missing, FMON_CREATE, FMON_DIR | FMON_DELETED));
    process(dir, "f", FMON_CREATE);
    Lines parts = joined({dump(1), dump(2), dump(3), dump(4)});
    backend.calls.clear();
    EXPECT_EQ(parts, dump(0));
    EXPECT_EQ((std::vector<std::string>{"dump(0)"}), backend.calls);
}

TEST_F(Dump, ChangesNothing)
{
    int id = instance();
    ASSERT_EQ(0, add(id, dir, FMON_CREATE));
    process(dir, "f", FMON_CREATE);
    Lines first = dump(0);
    EXPECT_EQ(first, dump(0));
    EXPECT_EQ(1u, queued(id));
}

TEST_F(Dump, BackendDumpsForItself)
{
    EXPECT_TRUE(dump(5).empty());
    EXPECT_EQ(1, backend.count("dump(5)"));
}

TEST_F(Dump, BackendIsGivenTheArgument)
{
    static void *seen_arg;
    static uint32_t seen_type;
    fmon_method.dump = [](uint32_t type, void *arg) {
        seen_type = type;
        seen_arg = arg;
    };
    int argument;
    for (uint32_t type : {5u, 0u}) {
        seen_arg = nullptr;
        EXPECT_EQ(0, fmon_dump(type, &argument));
        EXPECT_EQ(&argument, seen_arg);
        EXPECT_EQ(type, seen_type);
    }
}

TEST_F(Dump, BackendNeedNotDump)
{
    backend.drop_optional();
    EXPECT_TRUE(dump(5).empty());
    EXPECT_EQ(joined({dump(1), dump(2), dump(3), dump(4)}), dump(0));
}

TEST_F(Dump, WatchedFilesAreTheBackends) { EXPECT_TRUE(dump(6).empty()); }

TEST(DumpBeforeStart, ShowsTheHeadings)
{
    HostReset host;
    FakeBackend backend;
    ASSERT_EQ(0u, fmon.inited);
    EXPECT_EQ((Lines{fmon_line(4, "\nInstance:\n"), fmon_line(4, "\nTBD list:\n"), fmon_line(4, "\nDentry:\n"),
                     event_line(4, "\nEvents:\n"), event_line(4, "count: 0\n")}),
              log_of([] { EXPECT_EQ(0, fmon_dump(0, nullptr)); }));
}

}  // namespace
