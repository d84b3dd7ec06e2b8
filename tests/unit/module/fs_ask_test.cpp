/*
 * What the kernel answers about directories by handle: on this machine's file system, with each call failing in turn.
 */
#include "linux/fs/fs_ask.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <string>

#include "testlib/fault.h"
#include "testlib/tree.h"

using namespace testlib;

namespace
{

class FsAsk : public testing::Test
{
protected:
    FsAsk() : mount_(open(tree_.root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}
    ~FsAsk() override { close(mount_); }

    void SetUp() override { NEED(is_root(), "handles are opened by root only"); }

    static bool key_of(const std::string &path, struct fs_stored_key &out)
    {
        const int fd = open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
        const bool got = fd >= 0 && fs_ask_key(fd, &out, nullptr, nullptr) == 0;
        close(fd);
        return got;
    }

    enum fs_asked place(const struct fs_stored_key &key, struct fs_place &out) const
    {
        return fs_kernel.place(nullptr, mount_, &key.key, &out);
    }

    /* The name that the kernel gives a directory. */
    std::string name_of(const std::string &path) const
    {
        struct fs_stored_key key;
        struct fs_place out;
        if (!key_of(path, key) || place(key, out) != FS_ASKED_PLACE)
            return "(none)";
        return {out.name, out.name_len};
    }

    TempTree tree_;
    int mount_;
};

TEST_F(FsAsk, WhereADirectoryLies)
{
    struct fs_stored_key key, parent;
    struct fs_place out;
    ASSERT_TRUE(key_of(tree_.dir("a/b"), key));
    ASSERT_TRUE(key_of(tree_.path("a"), parent));
    ASSERT_EQ(FS_ASKED_PLACE, place(key, out));
    EXPECT_STREQ("b", out.name);
    EXPECT_TRUE(fs_key_equal(&parent.key, &out.parent.key));
    EXPECT_FALSE(out.deleted);
    rename(tree_.path("a/b").c_str(), tree_.path("c").c_str());
    ASSERT_EQ(FS_ASKED_PLACE, place(key, out));
    EXPECT_STREQ("c", out.name);
}

TEST_F(FsAsk, NamesOfAnyBytes)
{
    for (const std::string &name : {std::string("x (deleted)"), std::string(" (deleted)"), std::string("new\nline"),
                                    std::string("\xff\x01\\"), std::string(255, 'n')})
        EXPECT_EQ(name, name_of(tree_.dir(name)));
}

TEST_F(FsAsk, ARemovedDirectorySaysWhereItWasWhileItIsOpen)
{
    struct fs_stored_key key;
    struct fs_place out;
    ASSERT_TRUE(key_of(tree_.dir("gone"), key));
    const int held = open(tree_.path("gone").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    rmdir(tree_.path("gone").c_str());
    const enum fs_asked answer = place(key, out);
    if (answer == FS_ASKED_PLACE) { /* file systems may also say that it is gone */
        EXPECT_STREQ("gone", out.name);
        EXPECT_TRUE(out.deleted);
    } else
        EXPECT_EQ(FS_ASKED_GONE, answer);
    close(held);
    EXPECT_EQ(FS_ASKED_GONE, place(key, out));
}

TEST_F(FsAsk, TheWayUpEndsAtTheMount)
{
    struct fs_stored_key key;
    struct fs_place out;
    ASSERT_TRUE(key_of(tree_.dir("a"), key));
    enum fs_asked answer = place(key, out);
    for (int i = 0; i < 100 && answer == FS_ASKED_PLACE; i++) {
        fs_key_store(&key, &out.parent.key);
        answer = place(key, out);
    }
    EXPECT_EQ(FS_ASKED_TOP, answer);
}

/* A path of more than 4,095 bytes has no link: the parent is read. */
TEST_F(FsAsk, DeeperThanALinkIsLong)
{
    const std::string name(200, 'd');
    std::vector<int> fds = {open(tree_.root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    for (int i = 0; i < 30; i++) {
        ASSERT_EQ(0, mkdirat(fds.back(), name.c_str(), 0755));
        fds.push_back(openat(fds.back(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    mkdirat(fds.back(), "other", 0755);
    mkdirat(fds.back(), "last", 0755);
    const int last = openat(fds.back(), "last", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    struct fs_stored_key key;
    struct fs_place out;
    ASSERT_EQ(0, fs_ask_key(last, &key, nullptr, nullptr));
    EXPECT_EQ(FS_ASKED_PLACE, place(key, out));
    EXPECT_STREQ("last", out.name);
    {
        Fault fault("fdopendir", 1, ENOMEM);
        EXPECT_EQ(FS_ASKED_ERROR, place(key, out));
    }
    close(last);
    for (const int fd : fds)
        close(fd);
}

TEST_F(FsAsk, WhatFailsIsNoAnswerAndLeavesNothingOpen)
{
    struct fs_stored_key key;
    ASSERT_TRUE(key_of(tree_.dir("a/b"), key));
    const int before = open_fds();
    for (const char *call : {"open_by_handle_at", "name_to_handle_at", "openat", "fstat", "readlink"})
        fail_each(call, EIO, [&](Fault &) {
            struct fs_place out;
            const enum fs_asked answer = place(key, out);
            EXPECT_TRUE(answer == FS_ASKED_ERROR || (answer == FS_ASKED_PLACE && !strcmp(out.name, "b"))) << call;
            EXPECT_EQ(before, open_fds()) << call;
        });
    Fault stale("open_by_handle_at", 1, ESTALE);
    struct fs_place out;
    EXPECT_EQ(FS_ASKED_GONE, place(key, out));
}

/* Whoever does not own the directory may not leave its time of access alone. */
TEST_F(FsAsk, OpensWithAccessTimeWhereItMust)
{
    struct fs_stored_key key;
    ASSERT_TRUE(key_of(tree_.dir("a"), key));
    Fault refused("open_by_handle_at", 1, EPERM);
    const int fd = fs_kernel.open(nullptr, mount_, &key.key);
    EXPECT_TRUE(refused.hit());
    EXPECT_GE(fd, 0);
    fs_kernel.close(nullptr, fd);
}

TEST_F(FsAsk, WhatAnEntryIs)
{
    struct fs_stored_key key, other;
    tree_.file("d/f");
    ASSERT_TRUE(key_of(tree_.path("d/f"), key));
    ASSERT_TRUE(key_of(tree_.file("d/g"), other));
    ASSERT_TRUE(key_of(tree_.path("d"), other) && key_of(tree_.path("d/g"), other));
    const int fd = open(tree_.path("d").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    EXPECT_EQ(FS_ENTRY_THIS, fs_kernel.entry(nullptr, fd, "f", &key.key));
    EXPECT_EQ(FS_ENTRY_OTHER, fs_kernel.entry(nullptr, fd, "f", &other.key));
    EXPECT_EQ(FS_ENTRY_OTHER, fs_kernel.entry(nullptr, fd, "f", nullptr));
    EXPECT_EQ(FS_ENTRY_NONE, fs_kernel.entry(nullptr, fd, "h", &key.key));
    if (mknodat(fd, "w", S_IFCHR, 0) == 0) {
        EXPECT_EQ(FS_ENTRY_WHITEOUT, fs_kernel.entry(nullptr, fd, "w", nullptr));
    }
    Fault fault("fstatat", 1, EIO);
    EXPECT_EQ(FS_ENTRY_ERROR, fs_kernel.entry(nullptr, fd, "f", &key.key));
    close(fd);
}

void note(void *to, const char *name, uint32_t len)
{
    static_cast<std::set<std::string> *>(to)->insert(std::string(name, len));
}

TEST_F(FsAsk, NamesOfADirectoryUnlessThereAreTooMany)
{
    std::set<std::string> names;
    tree_.file("d/f");
    tree_.dir("d/g");
    const int fd = open(tree_.path("d").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    EXPECT_TRUE(fs_kernel.list(nullptr, fd, note, &names));
    EXPECT_EQ((std::set<std::string>{".", "..", "f", "g"}), names);
    for (int i = 0; i < 300; i++)
        tree_.file("d/" + std::string(200, 'n') + std::to_string(i));
    EXPECT_FALSE(fs_kernel.list(nullptr, fd, note, &names));
    close(fd);
    EXPECT_FALSE(fs_kernel.list(nullptr, -1, note, &names));
}

TEST_F(FsAsk, ThePathOfAnAnchor)
{
    struct fs_stored_key key, other;
    ASSERT_TRUE(key_of(tree_.dir("a"), key) && key_of(tree_.dir("b"), other));
    const int before = open_fds();
    const int fd = fs_kernel.open_path(nullptr, tree_.path("a").c_str(), &key.key);
    EXPECT_GE(fd, 0);
    fs_kernel.close(nullptr, fd);
    EXPECT_EQ(-1, fs_kernel.open_path(nullptr, tree_.path("a").c_str(), &other.key));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, fs_kernel.open_path(nullptr, tree_.path("c").c_str(), &key.key));
    EXPECT_EQ(before, open_fds());
}

TEST_F(FsAsk, AFileSystemWithoutHandlesSaysSo)
{
    const int proc = open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    struct fs_stored_key key;
    bool opens = true;
    const int got = fs_ask_key(proc, &key, nullptr, &opens);
    EXPECT_TRUE(got == 0 || errno == EOPNOTSUPP);
    EXPECT_FALSE(opens);
    {
        const Fault old_kernel("name_to_handle_at", 2, EINVAL);
        EXPECT_EQ(-1, fs_ask_key(proc, &key, nullptr, nullptr));
        EXPECT_EQ(EOPNOTSUPP, errno);
    }
    close(proc);
    EXPECT_EQ(-1, fs_ask_key(-1, &key, nullptr, nullptr));
    EXPECT_EQ(EBADF, errno);
    Fault fault("fstatfs", 1, EIO);
    EXPECT_EQ(-1, fs_ask_key(mount_, &key, nullptr, nullptr));
}

}  // namespace
