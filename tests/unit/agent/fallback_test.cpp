/* Tests of fallback.h: why a mark of a whole file system does not serve, and what to do about it. */
#include "agent/fallback.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

namespace
{

using agent::explain_fallback;

void expect_has(const std::string &text, std::initializer_list<const char *> parts)
{
    for (const char *part : parts)
        EXPECT_NE(std::string::npos, text.find(part)) << part << " in: " << text;
    EXPECT_EQ(std::string::npos, text.find('\n')) << text;
}

std::string line(uint32_t reason, int error = 0, const char *type = "ext4", bool root = true)
{
    return explain_fallback(reason, error, type, root).line();
}

}  // namespace

TEST(CliFallback, EachReason)
{
    expect_has(line(FMON_FALLBACK_INIT, EPERM), {"does not report directories and names (Operation", "CAP_SYS_ADMIN"});
    expect_has(line(FMON_FALLBACK_INIT, EMFILE), {"fs.fanotify.max_user_groups"});
    EXPECT_EQ("", explain_fallback(FMON_FALLBACK_INIT, EINVAL, "", true).remedy);
    expect_has(line(FMON_FALLBACK_KIND), {"only directories are", "--mount and --max-depth"});
    expect_has(line(FMON_FALLBACK_HANDLE, EOPNOTSUPP, "vfat"), {"vfat has no file handles (Operation not supported)"});
    expect_has(line(FMON_FALLBACK_HANDLE, EOPNOTSUPP, "overlay"), {"overlay has no file handles", "nfs_export=on"});
    expect_has(line(FMON_FALLBACK_OPEN, EPERM), {"handle cannot be opened", "CAP_DAC_READ_SEARCH"});
    EXPECT_EQ("", explain_fallback(FMON_FALLBACK_OPEN, ESTALE, "", true).remedy);
    expect_has(line(FMON_FALLBACK_FSID), {"has the same id", "tune2fs -U random"});
    expect_has(line(FMON_FALLBACK_ROOT, ENOSPC), {"itself takes no mark (No space left on device)"});
    expect_has(line(FMON_FALLBACK_MEMORY), {"memory ran out"});
    expect_has(line(FMON_FALLBACK_CONTAINER), {"inside a container", "on the host itself"});
    expect_has(line(FMON_FALLBACK_NONE), {"does not say why"});
}

TEST(CliFallback, EachRefusalOfAMark)
{
    expect_has(line(FMON_FALLBACK_MARK, EPERM, "ext4", false), {"may not be marked (Operation", "run as root"});
    expect_has(line(FMON_FALLBACK_MARK, EXDEV, "btrfs"), {"a sub-volume", "file system's top"});
    expect_has(line(FMON_FALLBACK_MARK, ENODEV, "tmpfs"), {"tmpfs has no id", "6.1"});
    expect_has(line(FMON_FALLBACK_MARK, ENODEV, "exfat"), {"exfat has no id"});
    EXPECT_EQ("", explain_fallback(FMON_FALLBACK_MARK, ENODEV, "exfat", true).remedy);
    expect_has(line(FMON_FALLBACK_MARK, EOPNOTSUPP, "overlay"), {"overlay has no file handles", "nfs_export=on"});
    expect_has(line(FMON_FALLBACK_MARK, ENOSPC), {"no mark is left", "fs.fanotify.max_user_marks"});
    expect_has(line(FMON_FALLBACK_MARK, EINVAL, ""), {"refuses the mark of its file system (Invalid argument)"});
}

// The type of the file system is that of the path.
TEST(CliFallback, WhatTheMonitorMet)
{
    struct fmon_fallback met = {FMON_FALLBACK_HANDLE, EOPNOTSUPP, "/proc"};
    expect_has(explain_fallback(met, true).line(), {"proc has no file handles"});
    strcpy(met.path, "/no-such-place");
    expect_has(explain_fallback(met, true).line(), {"its file system has no file handles"});
}
