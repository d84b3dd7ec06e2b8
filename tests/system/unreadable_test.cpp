/* Directories that the user of `fmon watch` may not read: named, and watched as soon as they may be. */
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "harness.h"
#include "stranger.h"

using namespace systest;
using testlib::TempTree;

namespace
{

/* `fmon watch` as a user without rights: every permission counts for it. */
class Unreadable : public testing::Test
{
protected:
    void SetUp() override
    {
        if (!can_be_stranger())
            GTEST_SKIP() << "needs root, and a directory of temporary files that others may enter";
        home = strangers_dir(tree, "home");
        setenv("TMPDIR", strangers_dir(tree, "scratch").c_str(), 1);
    }
    void TearDown() override { setenv("TMPDIR", tmpdir.c_str(), 1); }
    /* Becomes the stranger for good: each case runs in a child. */
    void as_user(const std::function<void()> &body) { EXPECT_TRUE(run(as_stranger(body), 60000)); }

    static bool is_watched(Watch &watch, const std::string &directory)
    {
        return !watch.until_reported([&](int round) { make_file(directory + "/file" + std::to_string(round)); })
                    .empty();
    }

    TempTree tree;
    std::string home, tmpdir = getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp";
};

TEST_F(Unreadable, IsNamedAtTheStartAndWatchedLater)
{
    as_user([this] {
        make_dir(home + "/closed");
        make_dir(home + "/closed/below");
        change_mode(home + "/closed", 0);
        Watch watch(home, {"-r", "-e", "create"});
        watch.established();
        const Json loss = watch.next_of("loss");
        EXPECT_EQ("watches", loss["source"]);
        EXPECT_EQ(loss["path"], home + "/closed");
        EXPECT_EQ(1, loss["count"]);
        change_mode(home + "/closed", 0700);
        EXPECT_TRUE(is_watched(watch, home + "/closed"));
        EXPECT_TRUE(is_watched(watch, home + "/closed/below"));
        EXPECT_EQ(0, watch.stop());
    });
}

TEST_F(Unreadable, IsNamedAtRunTimeOnce)
{
    as_user([this] {
        Watch watch(home, {"-r", "-e", "create,attrib"});
        watch.established();
        EXPECT_EQ(0, mkdir((home + "/closed").c_str(), 0));
        const Json loss = watch.next_of("loss");
        EXPECT_EQ(loss["path"], home + "/closed");
        EXPECT_EQ(1, loss["count"]);
        pause_ms(2500);
        const std::string said = watch.process().errors();
        EXPECT_NE(said.find(home + "/closed"), std::string::npos) << said;
        EXPECT_EQ(said.find("fmon:"), said.rfind("fmon:")) << said;
        change_mode(home + "/closed", 0700);
        bool seen = false;
        for (const int64_t end = now_ms() + kPatienceMs; !seen && now_ms() < end;) {
            make_file(home + "/closed/seen" + std::to_string(now_ms()));
            while (auto object = watch.next(300)) {
                EXPECT_NE("loss", (*object)["type"]) << *object;
                seen = seen || object->value("path", "").rfind(home + "/closed/seen", 0) == 0;
            }
        }
        EXPECT_TRUE(seen);
        EXPECT_EQ(0, watch.stop());
    });
}

}  // namespace
