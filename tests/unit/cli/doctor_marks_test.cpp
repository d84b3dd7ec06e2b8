/* Which marks processes have, as /proc shows them, and whether kernel probes may then be placed. */
#include <unistd.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "agent/marks.h"
#include "cli/doctor/doctor.h"
#include "unit/agent/agent_testing.h"
#include "unit/cli/doctor_testing.h"

using namespace agent;
using namespace cli;
using agent_testing::Directory;
using cli_testing::mount_of;

namespace
{

TEST(CliDoctor, KernelsThatDeleteProbesBadly)
{
    for (const char *release : {"6.6.99-1", "6.1.0-37-amd64", "5.10", "3.2", "2.6.32", "", "x", "6"})
        EXPECT_TRUE(deletes_probes_badly(release)) << release;
    for (const char *release : {"6.7", "6.7.0-1", "6.18.44-fc-v669", "7.0", "10.1.1"})
        EXPECT_FALSE(deletes_probes_badly(release)) << release;
}

/* Processes whose descriptors say what the test wants. */
class CliDoctorProc : public testing::Test
{
protected:
    void descriptor(const std::string &process, int fd, const char *target, const std::string &info)
    {
        proc_.dir(process + "/fd");
        proc_.dir(process + "/fdinfo");
        const std::string number = std::to_string(fd);
        ASSERT_EQ(0, symlink(target, proc_.path(process + "/fd/" + number).c_str()));
        proc_.file(process + "/fdinfo/" + number, info);
    }
    std::map<uid_t, Marks> users() const { return marks_by_user(proc_.root().c_str()); }

    Directory proc_;
    const std::vector<Mount> mounts_ = {
        mount_of("23 1 8:1 / / rw - ext4 /dev/sda1 rw"),
        mount_of("31 23 0:12 / /sys/kernel/tracing rw shared:1 - tracefs tracefs rw"),
    };
};

TEST_F(CliDoctorProc, MarksOfAllUsers)
{
    descriptor("10", 3, "anon_inode:inotify", "pos:\t0\ninotify wd:2 ino:1 sdev:1\ninotify wd:1 ino:2 sdev:1\n");
    descriptor("11", 4, "anon_inode:[fanotify]", "fanotify flags:0\nfanotify mnt_id:1f mflags:0 mask:8\n");
    descriptor("11", 5, "/dev/null", "fanotify sdev:1\n");
    const auto users = this->users();
    ASSERT_EQ(1u, users.size());
    const Marks &marks = users.at(getuid());
    EXPECT_EQ(2u, marks.inotify_watches);
    EXPECT_EQ(1u, marks.inotify_instances);
    EXPECT_EQ(1u, marks.fanotify_instances);
    EXPECT_EQ(std::vector<uint64_t>{31}, marks.fanotify_mounts);
    EXPECT_TRUE(marks.fanotify_devices.empty());
}

TEST_F(CliDoctorProc, TracefsNotMarked)
{
    descriptor("10", 3, "anon_inode:[fanotify]",
               "fanotify flags:0\nfanotify mnt_id:17 mflags:0\nfanotify ino:2 sdev:800001 mflags:0 mask:8\n");
    descriptor("10", 4, "anon_inode:inotify", "inotify wd:1 ino:2 sdev:c mask:8\n");
    EXPECT_EQ(0x800001u, mounts_[0].device);
    EXPECT_FALSE(is_tracefs_marked(users(), mounts_));
    EXPECT_FALSE(is_tracefs_marked({}, mounts_));
    EXPECT_FALSE(is_tracefs_marked(users(), {}));
}

TEST_F(CliDoctorProc, TracefsMarkedAsAMount)
{
    descriptor("10", 3, "anon_inode:[fanotify]", "fanotify mnt_id:1f mflags:0 mask:8 ignored_mask:0\n");
    EXPECT_TRUE(is_tracefs_marked(users(), mounts_));
}

TEST_F(CliDoctorProc, TracefsMarkedAsAFileSystem)
{
    descriptor("10", 3, "anon_inode:[fanotify]", "fanotify flags:0\nfanotify sdev:c mflags:0 mask:8 ignored_mask:0\n");
    EXPECT_TRUE(is_tracefs_marked(users(), mounts_));
}

TEST_F(CliDoctorProc, TracefsMarkedInOneFile)
{
    descriptor("10", 3, "anon_inode:[fanotify]",
               "fanotify ino:5 sdev:c mflags:0 mask:8 ignored_mask:0 fhandle-type:1\n");
    EXPECT_TRUE(is_tracefs_marked(users(), mounts_));
}

TEST_F(CliDoctorProc, DamagedAnyhow)
{
    const std::string good = "fanotify flags:0\nfanotify ino:5 sdev:c mflags:0\nfanotify mnt_id:1f\ninotify wd:1\n";
    std::mt19937 random(5);
    for (int i = 0; i < 300; i++) {
        std::string text = good;
        for (int n = 0; n < 4; n++)
            text[random() % text.size()] = static_cast<char>(random());
        descriptor(std::to_string(i + 1), 3, "anon_inode:[fanotify]", text);
    }
    const auto users = this->users();
    EXPECT_EQ(300u, users.at(getuid()).fanotify_instances);
    EXPECT_LE(users.at(getuid()).fanotify_mounts.size(), 1200u);
}

}  // namespace
