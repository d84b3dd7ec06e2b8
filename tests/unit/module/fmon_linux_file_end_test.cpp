/* The end of a single watched file is noticed, hardened, by whatever kinds it is watched for. */
#include "place_fixture.h"

using namespace testlib;

namespace
{

class OneFile : public Place
{
protected:
    OneFile()
    {
        f = tree.file("f", "1");
        EXPECT_EQ(0, m.add(f, FMON_MODIFY, FMON_FILE | FMON_DELETED));
    }
    void replaced_is_watched_again()
    {
        pump_all();
        EXPECT_FALSE(list_empty(&fmon.tbd)) << "waits for its path";
        fmon_tbd_pass();
        EXPECT_TRUE(list_empty(&fmon.tbd));
        EXPECT_NE(0U, heard("f"));
        EXPECT_EQ(uint64_t{FMON_MODIFY}, fan("f"));
    }
    std::string f;
};

TEST_F(OneFile, ReplacedByARename)
{
    tree.file("new");
    move("new", "f");
    replaced_is_watched_again();
}

TEST_F(OneFile, ReplacedWhileSomebodyHasItOpen)
{
    hold("f");
    tree.file("new");
    move("new", "f");
    replaced_is_watched_again();
}

TEST_F(OneFile, MovedAway)
{
    move("f", "elsewhere");
    tree.file("f");
    replaced_is_watched_again();
}

TEST_F(OneFile, ItsOwnEndIsNobodysEvent)
{
    ASSERT_EQ(0, fmon_add_watch(m.id2, tree.root().c_str(), FMON_ALL_EVENTS & ~0x3bU, FMON_DIR, 0, 0));
    chmod(f.c_str(), 0600);
    pump_all();
    EXPECT_EQ(std::vector<std::string>{f + ":attrib"}, m.events(m.id2)) << "told by its directory, once";
    EXPECT_TRUE(list_empty(&fmon.tbd)) << "an attribute is not the end";
    ASSERT_EQ(0, unlink(f.c_str()));
    pump_all();
    EXPECT_EQ(std::vector<std::string>{f + ":delete"}, m.events(m.id2));
    EXPECT_TRUE(m.events(m.id).empty());
    EXPECT_FALSE(list_empty(&fmon.tbd));
}

TEST_F(OneFile, WithoutASearchableDirectoryItIsNotTakenForGone)
{
    Fault fault("lstat", 1, EACCES);
    m.feed(0, inotify_record(wd_of(f), IN_ATTRIB));
    EXPECT_TRUE(fault.hit());
    EXPECT_TRUE(list_empty(&fmon.tbd));
}

}  // namespace
