/* Tests of plan.h: which instances and watches the arguments become. */

#include "agent/plan.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "agent/mounts.h"
#include "orx_fmon.h"
#include "unit/agent/agent_testing.h"
#include "unit/cli/parse.h"

using namespace agent;
using agent_testing::Directory;
using cli_testing::parse;

namespace
{

Plan plan_of(std::vector<std::string> arguments)
{
    const auto parsed = parse(std::move(arguments));
    EXPECT_TRUE(parsed.ok) << parsed.error;
    return make_plan(parsed.options, false);
}

Masks masks_of(std::vector<std::string> arguments)
{
    arguments.push_back("/");
    const auto parsed = parse(std::move(arguments));
    EXPECT_TRUE(parsed.ok) << parsed.error;
    return plan_masks(parsed.options);
}

std::string refusal_of(std::vector<std::string> arguments)
{
    const Plan plan = plan_of(std::move(arguments));
    EXPECT_EQ(1u, plan.refusals.size());
    EXPECT_TRUE(plan.watches.empty());
    return plan.refusals.empty() ? "" : plan.refusals[0];
}

constexpr uint32_t kSelf = FMON_DELETE_SELF | FMON_MOVE_SELF;

}  // namespace

TEST(CliMasks, TheDefaultKinds)
{
    const Masks masks = masks_of({});
    EXPECT_EQ(uint32_t{FMON_ALL_EVENTS & ~(FMON_OPEN | FMON_ACCESS | FMON_CLOSE_NOWRITE)}, masks.shown);
    EXPECT_EQ(masks.mask, masks.shown);
    EXPECT_EQ(0u, masks.pid_mask);
}

TEST(CliMasks, TheEndOfAWatchIsAlwaysSeen)
{
    const Masks masks = masks_of({"-e", "modify"});
    EXPECT_EQ(uint32_t{FMON_MODIFY}, masks.shown);
    EXPECT_EQ(FMON_MODIFY | kSelf, masks.mask);
}

TEST(CliMasks, NewDirectoriesAreSeenBelowATree)
{
    EXPECT_EQ(FMON_MODIFY | FMON_CREATE | kSelf, masks_of({"-r", "-e", "modify"}).mask);
}

TEST(CliMasks, PidHasAnInstanceOfItsOwnForWhatItCanName)
{
    const Masks masks = masks_of({"--pid", "-e", "modify,create,open"});
    EXPECT_EQ(uint32_t{FMON_MODIFY | FMON_OPEN}, masks.pid_shown);
    EXPECT_EQ(masks.pid_mask, masks.pid_shown);
    EXPECT_EQ(uint32_t{FMON_CREATE}, masks.shown);
    EXPECT_EQ(FMON_CREATE | kSelf, masks.mask);
}

TEST(CliMasks, MountTakesNothingElse)
{
    EXPECT_EQ(uint32_t{FMON_MODIFY | FMON_CLOSE_WRITE}, masks_of({"--mount"}).mask);
    EXPECT_EQ(0x3bu, masks_of({"--mount", "-e", "all"}).mask);
}

// A watch with "delay" is refused when its mask breaks these rules.
TEST(CliMasks, DelayKeepsTheMonitorsRulesForEveryMask)
{
    for (uint32_t mask = 0; mask <= FMON_ALL_EVENTS; mask++) {
        const uint32_t full = with_delay_kinds(mask);
        ASSERT_EQ(full & mask, mask);
        ASSERT_EQ(0u, full & ~mask & ~0x1bu);
        if (full & FMON_ACCESS) {
            ASSERT_EQ(uint32_t{FMON_CLOSE}, full & FMON_CLOSE);
        }
        if (full & FMON_MODIFY) {
            ASSERT_TRUE(full & FMON_CLOSE_WRITE);
        }
        if (mask & FMON_CLOSE_WRITE) {
            ASSERT_TRUE(full & FMON_MODIFY);
        }
        if (mask & FMON_CLOSE_NOWRITE) {
            ASSERT_TRUE(full & FMON_ACCESS);
        }
    }
}

TEST(CliMasks, DelayShowsOnlyWhatWasAskedFor)
{
    const Masks masks = masks_of({"--delay", "-e", "modify"});
    EXPECT_EQ(uint32_t{FMON_MODIFY}, masks.shown);
    EXPECT_EQ(FMON_MODIFY | FMON_CLOSE_WRITE | kSelf, masks.mask);
}

TEST(CliPlan, ADirectoryAndAFile)
{
    const Directory directory;
    const std::string dir = directory.dir("d"), file = directory.file("f");
    const Plan plan = plan_of({"-r", dir, file});
    ASSERT_EQ(2u, plan.watches.size());
    EXPECT_EQ(uint32_t{FMON_DIR | FMON_RECURSIVE | FMON_SYNC}, plan.watches[0].flags);
    EXPECT_EQ(uint32_t{FMON_FILE}, plan.watches[1].flags);
    EXPECT_EQ(1u, plan.instances.size());
    EXPECT_EQ("watch", plan.instances[0].name);
    EXPECT_TRUE(plan.refusals.empty());
}

TEST(CliPlan, SyncWithoutRecursion)
{
    const Directory directory;
    EXPECT_EQ(uint32_t{FMON_DIR | FMON_SYNC}, plan_of({"--sync", directory.root()}).watches[0].flags);
}

TEST(CliPlan, PidMakesTwoWatches)
{
    const Directory directory;
    const Plan plan = plan_of({"--pid", "--source=marks", directory.root()});
    ASSERT_EQ(2u, plan.watches.size());
    EXPECT_EQ(2u, plan.instances.size());
    EXPECT_EQ("watch-pid", plan.instances[plan.watches[0].instance].name);
    EXPECT_EQ(uint32_t{FMON_DIR | FMON_PID}, plan.watches[0].flags);
    EXPECT_EQ(0u, plan.watches[0].mask & ~0x3bu);
    EXPECT_EQ(uint32_t{FMON_DIR}, plan.watches[1].flags);
    EXPECT_EQ(0u, plan.watches[1].mask & 0x3bu);
}

// A mark of a whole file system names the process of all kinds; what stands for the watch where there is none is the
// two.
TEST(CliPlan, PidAsksForOneWatchOfAllKindsFirst)
{
    const Directory directory;
    const auto parsed = parse({"--pid", "--delay", directory.root()});
    const Plan plan = make_plan(parsed.options, false);
    ASSERT_EQ(1u, plan.watches.size());
    const PlannedWatch &watch = plan.watches[0];
    EXPECT_EQ("watch-all", plan.instances[watch.instance].name);
    EXPECT_EQ(uint32_t{FMON_DIR | FMON_DELAY | FMON_PID}, watch.flags);
    const Masks masks = plan_masks(parsed.options);
    EXPECT_EQ(watch.mask, masks.mask | masks.pid_mask);
    EXPECT_EQ(plan.instances[watch.instance].shown, masks.shown | masks.pid_shown);
    const std::vector<PlannedWatch> apart = watches_apart(parsed.options, watch);
    ASSERT_EQ(2u, apart.size());
    EXPECT_EQ("watch-pid", plan.instances[apart[0].instance].name);
    EXPECT_EQ(apart[0].mask, masks.pid_mask);
    EXPECT_EQ(apart[0].flags, watch.flags);
    EXPECT_EQ("watch", plan.instances[apart[1].instance].name);
    EXPECT_EQ(apart[1].mask, masks.mask);
    EXPECT_EQ(uint32_t{FMON_DIR}, apart[1].flags);
}

// Nothing stands for a watch that marks on directories could serve in no part.
TEST(CliPlan, PidWithKindsThatOnlyMarksOfFileSystemsName)
{
    const Directory directory;
    const auto parsed = parse({"--pid", "-e", "create", directory.root(), directory.file("f")});
    const Plan plan = make_plan(parsed.options, false);
    ASSERT_EQ(2u, plan.watches.size());
    EXPECT_EQ(1u, plan.instances.size());
    for (const PlannedWatch &watch : plan.watches) {
        EXPECT_EQ(FMON_CREATE | kSelf, watch.mask);
        EXPECT_TRUE(watch.flags & FMON_PID);
        EXPECT_TRUE(watches_apart(parsed.options, watch).empty());
    }
}

TEST(CliPlan, PidOfAFileAndWithALimitOfDepthIsAskedForInTwo)
{
    const Directory directory;
    EXPECT_EQ(2u, plan_of({"--pid", directory.file("f")}).watches.size());
    EXPECT_EQ(2u, plan_of({"--pid", "-r", "--max-depth=2", directory.root()}).watches.size());
    const auto mount = parse({"--pid", "--mount", "/"});
    EXPECT_TRUE(watches_apart(mount.options, {0, 0, "/", 8, FMON_MOUNT | FMON_PID}).empty());
}

TEST(CliPlan, AMissingPathAndAPatternHaveNoWatchYet)
{
    const Directory directory;
    const Plan missing = plan_of({"--wait", directory.path("x")}), pattern = plan_of({directory.path("*/log")});
    for (const Plan &plan : {missing, pattern}) {
        EXPECT_TRUE(plan.watches.empty());
        ASSERT_EQ(1u, plan.instances.size());
        EXPECT_EQ("watch", plan.instances[0].name);
        EXPECT_TRUE(plan.roots[0].waits);
    }
}

TEST(CliPlan, WatchesAreByWhatIsThere)
{
    const Directory directory;
    Root root;
    root.path = directory.file("f");
    root.identity = identify(root.path);
    const cli::WatchOptions options = parse({"-r", "/"}).options;
    ASSERT_EQ(1u, watches_of(options, root, 7).size());
    EXPECT_EQ(uint32_t{FMON_FILE}, watches_of(options, root, 7)[0].flags);
    EXPECT_EQ(7u, watches_of(options, root, 7)[0].root);
    root.identity = identify(directory.root());
    EXPECT_EQ(uint32_t{FMON_DIR | FMON_RECURSIVE | FMON_SYNC}, watches_of(options, root, 7)[0].flags);
    root.identity = identify("/dev/null");
    EXPECT_TRUE(watches_of(options, root, 7).empty());
    root.identity = identify(directory.path("gone"));
    EXPECT_TRUE(watches_of(options, root, 7).empty());
}

TEST(CliPlan, NamesFitIntoAnInstance)
{
    const Directory directory;
    for (const PlannedInstance &instance : plan_of({"--pid", "-r", "--wait", directory.path("x")}).instances)
        EXPECT_LE(instance.name.size(), 15u);
}

TEST(CliPlan, TheSamePathCountsOnce)
{
    const Directory directory;
    const std::string dir = directory.dir("d");
    std::filesystem::create_directory_symlink(dir, directory.path("l"));
    EXPECT_EQ(plan_of({dir, dir + "/", directory.root() + "//d/.", directory.path("l")}).watches.size(), 1u);
}

TEST(CliPlan, PathsAreMadeAbsoluteAndClean)
{
    const Directory directory;
    directory.dir("d/e");
    std::filesystem::create_directory_symlink(directory.path("d"), directory.path("l"));
    EXPECT_EQ(absolute_path(directory.root() + "//l/./e/"), directory.path("d/e"));
    EXPECT_EQ(absolute_path(directory.path("l/e/../e")), directory.path("d/e"));
    EXPECT_EQ(absolute_path(directory.path("l/missing/deep/")), directory.path("d/missing/deep"));
    EXPECT_EQ(absolute_path(directory.path("l/*/x/")), directory.path("d/*/x"));
    EXPECT_EQ("/", absolute_path("/"));
    EXPECT_EQ(absolute_path("//"), "/");
    EXPECT_EQ("/no-such-directory-here/x", absolute_path("/no-such-directory-here/x"));
    EXPECT_EQ(absolute_path("/*"), "/*");
    char cwd[4096];
    ASSERT_TRUE(getcwd(cwd, sizeof cwd));
    EXPECT_EQ(absolute_path("."), std::filesystem::canonical(cwd).string());
}

/* A monitor in a container takes them as they are: a link such as /proc/PID/root leads into another file system. */
TEST(CliPlan, InAContainerLinksAreNotFollowed)
{
    const Directory directory;
    directory.dir("d/e");
    std::filesystem::create_directory_symlink(directory.path("d"), directory.path("l"));
    const auto parsed = parse({directory.root() + "//l/./e/"});
    const Plan plan = make_plan(parsed.options, true);
    ASSERT_EQ(1u, plan.watches.size());
    EXPECT_EQ(plan.watches[0].path, directory.path("l/e"));
    EXPECT_EQ(make_plan(parsed.options, false).watches[0].path, directory.path("d/e"));
}

TEST(CliPlan, WhatCannotBeWatchedIsToldWithARemedy)
{
    const Directory directory;
    const std::string file = directory.file("f");
    ASSERT_EQ(0, mkfifo(directory.path("p").c_str(), 0600));
    std::filesystem::create_symlink("nowhere", directory.path("dangling"));
    EXPECT_NE(refusal_of({directory.path("missing")}).find("does not exist"), std::string::npos);
    EXPECT_NE(refusal_of({directory.path("f/x")}).find("does not exist"), std::string::npos);
    EXPECT_NE(refusal_of({directory.path("p")}).find("is a pipe"), std::string::npos);
    EXPECT_NE(refusal_of({"/dev/null"}).find("is a device"), std::string::npos);
    EXPECT_NE(refusal_of({directory.path("dangling")}).find("leads nowhere"), std::string::npos);
    EXPECT_NE(refusal_of({file + "/"}).find("not a directory"), std::string::npos);
    EXPECT_NE(refusal_of({"--mount", file}).find("not a directory"), std::string::npos);
    EXPECT_NE(refusal_of({directory.path("*/b/*")}).find("one \"*\" only"), std::string::npos);
    EXPECT_NE(refusal_of({"--wait", directory.path("*")}).find("leave out --wait"), std::string::npos);
    EXPECT_NE(refusal_of({"--mount", directory.path("*")}).find("no pattern"), std::string::npos);
    EXPECT_NE(refusal_of({""}).find("empty"), std::string::npos);
}

TEST(CliPlan, TheLongestPath)
{
    const auto path_of = [](size_t length) { return "/" + std::string(length - 1, 'x'); };
    EXPECT_NE(refusal_of({"--wait", path_of(kMaxPath + 1)}).find("longer than"), std::string::npos);
    EXPECT_TRUE(plan_of({"--wait", path_of(kMaxPath)}).refusals.size() <= 1);  // its name is too long for this system
}

TEST(CliPlan, OneRefusalLeavesTheOthers)
{
    const Directory directory;
    const Plan plan = plan_of({directory.path("missing"), directory.root()});
    EXPECT_EQ(1u, plan.refusals.size());
    EXPECT_EQ(1u, plan.watches.size());
}

TEST(CliPlan, WhatIsSparedIsAbsoluteAndThereOnce)
{
    const Directory tree;
    const Plan plan =
        plan_of({"-r", tree.root(), "@" + tree.dir("a"), "@" + tree.root() + "//none/", "@" + tree.path("a/")});
    EXPECT_EQ((std::vector<std::string>{tree.path("a"), tree.path("none")}), plan.spared);
    EXPECT_EQ(1u, plan.watches.size());
    EXPECT_EQ((std::vector<std::string>{"/proc"}), system_plan(parse({"--system", "@/proc"}).options).spared);
}

TEST(CliPlan, WhatIsSparedCannotBeWatched)
{
    const Directory tree;
    EXPECT_EQ(tree.path("a") + " is left unwatched by @" + tree.path("a") + ": leave out one of the two",
              refusal_of({"-r", tree.dir("a"), "@" + tree.path("a")}));
    EXPECT_NE(std::string::npos,
              refusal_of({"-r", tree.dir("a/b"), "@" + tree.path("a")}).find("is left unwatched by"));
    EXPECT_TRUE(plan_of({"-r", tree.dir("ab"), "@" + tree.path("a")}).refusals.empty());
}

TEST(CliPlan, TooManyDirectories)
{
    const Directory directory;
    directory.dir("a/b");
    directory.dir("c");
    EXPECT_EQ(3u, count_directories(directory.root(), 0, 100));
    EXPECT_EQ(2u, count_directories(directory.root(), 1, 100));
    EXPECT_EQ(2u, count_directories(directory.root(), 0, 2));
    EXPECT_TRUE(plan_of({"-r", "--max-subdirs", "3", directory.root()}).refusals.empty());
    EXPECT_NE(refusal_of({"-r", "--max-subdirs", "2", directory.root()}).find("more than 2 directories"),
              std::string::npos);
    EXPECT_TRUE(plan_of({"-r", "--max-depth", "1", "--max-subdirs", "2", directory.root()}).refusals.empty());
}

TEST(CliPlan, LinksAreNotCountedAsDirectories)
{
    const Directory directory;
    directory.dir("a");
    std::filesystem::create_directory_symlink(directory.root(), directory.path("a/loop"));
    EXPECT_EQ(1u, count_directories(directory.root(), 0, 100));
    EXPECT_FALSE(has_subdirectory(directory.path("a")));
    EXPECT_TRUE(has_subdirectory(directory.root()));
    EXPECT_FALSE(has_subdirectory(directory.path("missing")));
    EXPECT_FALSE(has_subdirectory(directory.file("f")));
}

TEST(CliMounts, LinesOfTheTable)
{
    Mount mount;
    ASSERT_TRUE(parse_mount("36 35 98:0 / /mnt\\0402\\134x rw,noatime master:1 shared:2 - ext4 /dev/root rw", mount));
    EXPECT_EQ(36u, mount.id);
    EXPECT_EQ("/mnt 2\\x", mount.point);
    EXPECT_EQ("ext4", mount.type);
    EXPECT_TRUE(mount.whole_device);
    ASSERT_TRUE(parse_mount("1 0 0:1 / /p rw - proc proc rw", mount));
    EXPECT_FALSE(mount.whole_device);
    ASSERT_TRUE(parse_mount("1 0 0:1 /sub /p rw - ext4 /dev/sda rw", mount));
    EXPECT_FALSE(mount.whole_device);
    ASSERT_TRUE(parse_mount("1 0 0:1 / /p ro,noatime - ext4 /dev/sda rw", mount));
    EXPECT_FALSE(mount.whole_device);
    for (const char *line : {"", "x", "1", "1 0 0:1 / /p rw", "1 0 0:1 / /p rw ext4 /dev/sda"})
        EXPECT_FALSE(parse_mount(line, mount)) << line;
}

TEST(CliMounts, PointsBelowAPath)
{
    const std::vector<Mount> mounts = {{1, "/", "ext4", true},
                                       {2, "/a", "ext4", true},
                                       {3, "/ab", "ext4", true},
                                       {4, "/a/b", "ext4", true},
                                       {5, "/a/t", "tmpfs", false}};
    EXPECT_EQ((std::vector<std::string>{"/a/b"}), markable_mounts_below(mounts, "/a"));
    EXPECT_EQ((std::vector<std::string>{"/a", "/ab", "/a/b"}), markable_mounts_below(mounts, "/"));
}

TEST(CliMounts, TheRealTableHasTheRoot)
{
    const auto mounts = read_mounts();
    EXPECT_TRUE(std::any_of(mounts.begin(), mounts.end(), [](const Mount &m) { return m.point == "/"; }));
    EXPECT_TRUE(read_mounts("/no-such-file").empty());
}
