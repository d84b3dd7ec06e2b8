/* Which source serves each mount, on made-up trials and on this machine's mounts. */
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "cli/doctor/doctor.h"
#include "unit/agent/agent_testing.h"
#include "unit/cli/doctor_testing.h"

using namespace cli;
using cli_testing::expect;
using cli_testing::find;
using cli_testing::has;
using cli_testing::mount_of;

namespace
{

using Step = SourceTrial::Step;

const agent::Mount kDisk = mount_of("21 1 8:1 / /home rw - ext4 /dev/sda1 rw");

/* The one mount of a machine as root sees it. */
SourceFacts facts_of(const agent::Mount &mount, Step step, int error = 0)
{
    SourceFacts facts;
    facts.names_object = facts.root = true;
    facts.mounts = {{mount, step, error}};
    return facts;
}

Check check_of(Step step, int error = 0, const char *type = "ext4", bool root = true)
{
    agent::Mount mount = kDisk;
    mount.type = type;
    SourceFacts facts = facts_of(mount, step, error);
    facts.root = root;
    return find(judge_sources(facts), "/home");
}

}  // namespace

TEST(CliDoctorSources, AMountThatAMarkServes)
{
    const Checks checks = judge_sources(facts_of(kDisk, Step::kServed));
    ASSERT_EQ(2u, checks.size());
    expect(find(checks, "group"), State::kOk, {"directory, name and object"});
    expect(find(checks, "/home"), State::kOk, {"filesystem"});
    EXPECT_EQ("filesystem", find(checks, "/home").text);
}

TEST(CliDoctorSources, EachRefusalSaysWhyAndWhatToDo)
{
    expect(check_of(Step::kMark, EPERM), State::kWarn, {"marks: ", "Operation not permitted", "CAP_SYS_ADMIN"});
    expect(check_of(Step::kMark, EPERM, "ext4", false), State::kWarn, {"marks: ", "run as root"});
    expect(check_of(Step::kMark, EXDEV, "btrfs"), State::kWarn, {"marks: a sub-volume", "file system's top"});
    expect(check_of(Step::kMark, ENODEV, "tmpfs"), State::kWarn, {"marks: tmpfs has no id", "later kernels"});
    expect(check_of(Step::kMark, EOPNOTSUPP, "overlay"), State::kWarn, {"marks: overlay", "nfs_export=on"});
    expect(check_of(Step::kMark, EOPNOTSUPP, "vfat"), State::kWarn, {"marks: vfat has no file handles"});
    EXPECT_EQ("", check_of(Step::kMark, EOPNOTSUPP, "vfat").remedy);
    expect(check_of(Step::kMark, EINVAL), State::kWarn, {"marks: the kernel refuses", "Invalid argument"});
    expect(check_of(Step::kHandle, EOPNOTSUPP), State::kWarn, {"marks: ext4 has no file handles"});
    expect(check_of(Step::kOpen, EPERM), State::kWarn, {"marks: a file handle", "CAP_DAC_READ_SEARCH"});
    expect(check_of(Step::kOpen, EPERM, "ext4", false), State::kWarn, {"run as root"});
    expect(check_of(Step::kReach, EACCES, "ext4", false), State::kWarn, {"cannot be opened", "run as root"});
    expect(check_of(Step::kFile), State::kOk, {"marks: a single file"});
}

TEST(CliDoctorSources, TwoFileSystemsOfOneId)
{
    SourceFacts facts = facts_of(kDisk, Step::kTwin);
    facts.mounts[0].twin = "/srv";
    expect(find(judge_sources(facts), "/home"), State::kWarn, {"marks: ", "the id of the one on /srv", "tune2fs"});
}

TEST(CliDoctorSources, WhatIsNotTriedHasALineAType)
{
    SourceFacts facts = facts_of(mount_of("1 0 0:5 / /proc rw - proc proc rw"), Step::kKernels);
    facts.mounts.push_back({mount_of("2 0 0:6 / /n rw - nfs4 host:/n rw"), Step::kRemote});
    facts.mounts.push_back({mount_of("3 0 0:7 / /n2 rw - nfs4 host:/n2 rw"), Step::kRemote});
    facts.mounts.push_back({kDisk, Step::kHidden});
    const Checks checks = judge_sources(facts);
    ASSERT_EQ(3u, checks.size());
    expect(find(checks, "proc"), State::kOk, {"marks: the kernel's own"});
    expect(find(checks, "nfs4"), State::kOk, {"not tried"});
}

TEST(CliDoctorSources, WithoutAGroupEverythingHasMarks)
{
    SourceFacts facts = facts_of(kDisk, Step::kServed);
    facts.init_error = EINVAL;
    Checks checks = judge_sources(facts);
    expect(find(checks, "group"), State::kWarn, {"does not report directories and names", "Invalid argument"});
    EXPECT_FALSE(find(checks, "group").reachable);
    EXPECT_EQ("marks", find(checks, "/home").text);
    facts.init_error = EPERM;
    facts.root = false;
    expect(find(judge_sources(facts), "group"), State::kWarn, {"run as root"});
    facts.init_error = 0;
    facts.container = true;
    checks = judge_sources(facts);
    expect(find(checks, "group"), State::kWarn, {"inside a container", "on the host itself"});
    EXPECT_EQ("marks", find(checks, "/home").text);
    facts.container = facts.names_object = false;
    expect(find(judge_sources(facts), "group"), State::kOk, {"not the object"});
}

// Nothing is opened of what the kernel keeps for itself, or others would have to answer for.
TEST(CliDoctorSources, EachMountOfTheTableHasItsTrial)
{
    Machine machine;
    machine.mounts = {mount_of("1 0 0:5 / /proc rw - proc proc rw"), mount_of("2 0 0:6 / / rw - tracefs t rw"),
                      mount_of("3 0 0:7 / / rw - fuse.sshfs h: rw"), mount_of("4 0 0:8 / / rw - nfs4 h: rw"),
                      mount_of("5 0 0:9 / /no-such-place rw - ext4 /dev/sdz rw")};
    const SourceFacts facts = gather_sources(machine);
    ASSERT_EQ(machine.mounts.size(), facts.mounts.size());
    EXPECT_EQ(Step::kKernels, facts.mounts[0].step);
    EXPECT_EQ(Step::kKernels, facts.mounts[1].step);
    EXPECT_EQ(Step::kRemote, facts.mounts[2].step);
    EXPECT_EQ(Step::kRemote, facts.mounts[3].step);
    if (facts.init_error == 0) {
        EXPECT_EQ(Step::kReach, facts.mounts[4].step);
        EXPECT_EQ(ENOENT, facts.mounts[4].error);
    }
}

TEST(CliDoctorSources, AnotherMountOnTheSamePlaceAndAFile)
{
    const agent_testing::Directory directory;
    Machine machine;
    machine.mounts = {mount_of("4000000 0 8:1 / / rw - ext4 /dev/sda1 rw"), kDisk};
    machine.mounts[1].point = directory.file("f");
    const SourceFacts facts = gather_sources(machine);
    if (facts.init_error != 0)
        GTEST_SKIP() << "no fanotify group that reports names";
    EXPECT_EQ(Step::kHidden, facts.mounts[0].step);
    EXPECT_EQ(Step::kFile, facts.mounts[1].step);
    EXPECT_EQ(1u, judge_sources(facts).size() - 1);
}
