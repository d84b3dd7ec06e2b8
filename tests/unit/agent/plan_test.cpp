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
using agent_testing::Folder;
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
    EXPECT_EQ(plan.refusals.size(), 1u);
    EXPECT_TRUE(plan.watches.empty());
    return plan.refusals.empty() ? "" : plan.refusals[0];
}

constexpr uint32_t kSelf = FMON_DELETE_SELF | FMON_MOVE_SELF;

}  // namespace

TEST(CliMasks, the_usual_kinds)
{
    const Masks masks = masks_of({});
    EXPECT_EQ(masks.shown, uint32_t{FMON_ALL_EVENTS & ~(FMON_OPEN | FMON_ACCESS | FMON_CLOSE_NOWRITE)});
    EXPECT_EQ(masks.mask, masks.shown);
    EXPECT_EQ(masks.pid_mask, 0u);
}

TEST(CliMasks, the_end_of_a_watch_is_always_seen)
{
    const Masks masks = masks_of({"-e", "modify"});
    EXPECT_EQ(masks.shown, uint32_t{FMON_MODIFY});
    EXPECT_EQ(masks.mask, FMON_MODIFY | kSelf);
}

TEST(CliMasks, new_directories_are_seen_below_a_tree)
{
    EXPECT_EQ(masks_of({"-r", "-e", "modify"}).mask, FMON_MODIFY | FMON_CREATE | kSelf);
}

TEST(CliMasks, pid_has_an_instance_of_its_own_for_what_it_can_name)
{
    const Masks masks = masks_of({"--pid", "-e", "modify,create,open"});
    EXPECT_EQ(masks.pid_shown, uint32_t{FMON_MODIFY | FMON_OPEN});
    EXPECT_EQ(masks.pid_mask, masks.pid_shown);
    EXPECT_EQ(masks.shown, uint32_t{FMON_CREATE});
    EXPECT_EQ(masks.mask, FMON_CREATE | kSelf);
}

TEST(CliMasks, mount_takes_nothing_else)
{
    EXPECT_EQ(masks_of({"--mount"}).mask, uint32_t{FMON_MODIFY | FMON_CLOSE_WRITE});
    EXPECT_EQ(masks_of({"--mount", "-e", "all"}).mask, 0x3bu);
}

// A watch with "delay" is refused when its mask breaks these rules.
TEST(CliMasks, delay_keeps_the_monitors_rules_for_every_mask)
{
    for (uint32_t mask = 0; mask <= FMON_ALL_EVENTS; mask++) {
        const uint32_t full = with_delay_kinds(mask);
        ASSERT_EQ(full & mask, mask);
        ASSERT_EQ(full & ~mask & ~0x1bu, 0u);
        if (full & FMON_ACCESS) {
            ASSERT_EQ(full & FMON_CLOSE, uint32_t{FMON_CLOSE});
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

TEST(CliMasks, delay_shows_only_what_was_asked_for)
{
    const Masks masks = masks_of({"--delay", "-e", "modify"});
    EXPECT_EQ(masks.shown, uint32_t{FMON_MODIFY});
    EXPECT_EQ(masks.mask, FMON_MODIFY | FMON_CLOSE_WRITE | kSelf);
}

TEST(CliPlan, a_directory_and_a_file)
{
    const Folder folder;
    const std::string dir = folder.dir("d"), file = folder.file("f");
    const Plan plan = plan_of({"-r", dir, file});
    ASSERT_EQ(plan.watches.size(), 2u);
    EXPECT_EQ(plan.watches[0].flags, uint32_t{FMON_DIR | FMON_RECURSIVE | FMON_SYNC});
    EXPECT_EQ(plan.watches[1].flags, uint32_t{FMON_FILE});
    EXPECT_EQ(plan.instances.size(), 1u);
    EXPECT_EQ(plan.instances[0].name, "watch");
    EXPECT_TRUE(plan.refusals.empty());
}

TEST(CliPlan, sync_without_recursion)
{
    const Folder folder;
    EXPECT_EQ(plan_of({"--sync", folder.root()}).watches[0].flags, uint32_t{FMON_DIR | FMON_SYNC});
}

TEST(CliPlan, pid_makes_two_watches)
{
    const Folder folder;
    const Plan plan = plan_of({"--pid", folder.root()});
    ASSERT_EQ(plan.watches.size(), 2u);
    EXPECT_EQ(plan.instances[plan.watches[0].instance].name, "watch-pid");
    EXPECT_EQ(plan.watches[0].flags, uint32_t{FMON_DIR | FMON_PID});
    EXPECT_EQ(plan.watches[0].mask & ~0x3bu, 0u);
    EXPECT_EQ(plan.watches[1].flags, uint32_t{FMON_DIR});
    EXPECT_EQ(plan.watches[1].mask & 0x3bu, 0u);
}

TEST(CliPlan, a_missing_path_and_a_pattern_have_no_watch_yet)
{
    const Folder folder;
    const Plan missing = plan_of({"--wait", folder.path("x")}), pattern = plan_of({folder.path("*/log")});
    for (const Plan &plan : {missing, pattern}) {
        EXPECT_TRUE(plan.watches.empty());
        ASSERT_EQ(plan.instances.size(), 1u);
        EXPECT_EQ(plan.instances[0].name, "watch");
        EXPECT_TRUE(plan.roots[0].waits);
    }
}

TEST(CliPlan, watches_are_by_what_is_there)
{
    const Folder folder;
    Root root;
    root.path = folder.file("f");
    root.identity = identify(root.path);
    const cli::WatchOptions options = parse({"-r", "/"}).options;
    ASSERT_EQ(watches_of(options, root, 7).size(), 1u);
    EXPECT_EQ(watches_of(options, root, 7)[0].flags, uint32_t{FMON_FILE});
    EXPECT_EQ(watches_of(options, root, 7)[0].root, 7u);
    root.identity = identify(folder.root());
    EXPECT_EQ(watches_of(options, root, 7)[0].flags, uint32_t{FMON_DIR | FMON_RECURSIVE | FMON_SYNC});
    root.identity = identify("/dev/null");
    EXPECT_TRUE(watches_of(options, root, 7).empty());
    root.identity = identify(folder.path("gone"));
    EXPECT_TRUE(watches_of(options, root, 7).empty());
}

TEST(CliPlan, names_fit_into_an_instance)
{
    const Folder folder;
    for (const PlannedInstance &instance : plan_of({"--pid", "--wait", folder.path("x")}).instances)
        EXPECT_LE(instance.name.size(), 15u);
}

TEST(CliPlan, the_same_path_counts_once)
{
    const Folder folder;
    const std::string dir = folder.dir("d");
    std::filesystem::create_directory_symlink(dir, folder.path("l"));
    EXPECT_EQ(plan_of({dir, dir + "/", folder.root() + "//d/.", folder.path("l")}).watches.size(), 1u);
}

TEST(CliPlan, paths_are_made_absolute_and_clean)
{
    const Folder folder;
    folder.dir("d/e");
    std::filesystem::create_directory_symlink(folder.path("d"), folder.path("l"));
    EXPECT_EQ(absolute_path(folder.root() + "//l/./e/"), folder.path("d/e"));
    EXPECT_EQ(absolute_path(folder.path("l/e/../e")), folder.path("d/e"));
    EXPECT_EQ(absolute_path(folder.path("l/missing/deep/")), folder.path("d/missing/deep"));
    EXPECT_EQ(absolute_path(folder.path("l/*/x/")), folder.path("d/*/x"));
    EXPECT_EQ(absolute_path("/"), "/");
    EXPECT_EQ(absolute_path("//"), "/");
    EXPECT_EQ(absolute_path("/no-such-folder-here/x"), "/no-such-folder-here/x");
    EXPECT_EQ(absolute_path("/*"), "/*");
    char cwd[4096];
    ASSERT_TRUE(getcwd(cwd, sizeof cwd));
    EXPECT_EQ(absolute_path("."), std::filesystem::canonical(cwd).string());
}

/* A monitor in a container takes them as they are: a link such as /proc/PID/root leads into another file system. */
TEST(CliPlan, in_a_container_links_are_not_followed)
{
    const Folder folder;
    folder.dir("d/e");
    std::filesystem::create_directory_symlink(folder.path("d"), folder.path("l"));
    const auto parsed = parse({folder.root() + "//l/./e/"});
    const Plan plan = make_plan(parsed.options, true);
    ASSERT_EQ(plan.watches.size(), 1u);
    EXPECT_EQ(plan.watches[0].path, folder.path("l/e"));
    EXPECT_EQ(make_plan(parsed.options, false).watches[0].path, folder.path("d/e"));
}

TEST(CliPlan, what_cannot_be_watched_is_told_with_a_remedy)
{
    const Folder folder;
    const std::string file = folder.file("f");
    ASSERT_EQ(mkfifo(folder.path("p").c_str(), 0600), 0);
    std::filesystem::create_symlink("nowhere", folder.path("dangling"));
    EXPECT_NE(refusal_of({folder.path("missing")}).find("does not exist"), std::string::npos);
    EXPECT_NE(refusal_of({folder.path("f/x")}).find("does not exist"), std::string::npos);
    EXPECT_NE(refusal_of({folder.path("p")}).find("is a pipe"), std::string::npos);
    EXPECT_NE(refusal_of({"/dev/null"}).find("is a device"), std::string::npos);
    EXPECT_NE(refusal_of({folder.path("dangling")}).find("leads nowhere"), std::string::npos);
    EXPECT_NE(refusal_of({file + "/"}).find("not a directory"), std::string::npos);
    EXPECT_NE(refusal_of({"--mount", file}).find("not a directory"), std::string::npos);
    EXPECT_NE(refusal_of({folder.path("*/b/*")}).find("one \"*\" only"), std::string::npos);
    EXPECT_NE(refusal_of({"--wait", folder.path("*")}).find("leave out --wait"), std::string::npos);
    EXPECT_NE(refusal_of({"--mount", folder.path("*")}).find("no pattern"), std::string::npos);
    EXPECT_NE(refusal_of({""}).find("empty"), std::string::npos);
}

TEST(CliPlan, the_longest_path)
{
    const auto path_of = [](size_t length) { return "/" + std::string(length - 1, 'x'); };
    EXPECT_NE(refusal_of({"--wait", path_of(kMaxPath + 1)}).find("longer than"), std::string::npos);
    EXPECT_TRUE(plan_of({"--wait", path_of(kMaxPath)}).refusals.size() <= 1);  // its name is too long for this system
}

TEST(CliPlan, one_refusal_leaves_the_others)
{
    const Folder folder;
    const Plan plan = plan_of({folder.path("missing"), folder.root()});
    EXPECT_EQ(plan.refusals.size(), 1u);
    EXPECT_EQ(plan.watches.size(), 1u);
}

TEST(CliPlan, too_many_directories)
{
    const Folder folder;
    folder.dir("a/b");
    folder.dir("c");
    EXPECT_EQ(count_directories(folder.root(), 0, 100), 3u);
    EXPECT_EQ(count_directories(folder.root(), 1, 100), 2u);
    EXPECT_EQ(count_directories(folder.root(), 0, 2), 2u);
    EXPECT_TRUE(plan_of({"-r", "--max-subdirs", "3", folder.root()}).refusals.empty());
    EXPECT_NE(refusal_of({"-r", "--max-subdirs", "2", folder.root()}).find("more than 2 directories"),
              std::string::npos);
    EXPECT_TRUE(plan_of({"-r", "--max-depth", "1", "--max-subdirs", "2", folder.root()}).refusals.empty());
}

TEST(CliPlan, links_are_not_counted_as_directories)
{
    const Folder folder;
    folder.dir("a");
    std::filesystem::create_directory_symlink(folder.root(), folder.path("a/loop"));
    EXPECT_EQ(count_directories(folder.root(), 0, 100), 1u);
    EXPECT_FALSE(has_subdirectory(folder.path("a")));
    EXPECT_TRUE(has_subdirectory(folder.root()));
    EXPECT_FALSE(has_subdirectory(folder.path("missing")));
    EXPECT_FALSE(has_subdirectory(folder.file("f")));
}

TEST(CliMounts, lines_of_the_table)
{
    Mount mount;
    ASSERT_TRUE(parse_mount("36 35 98:0 / /mnt\\0402\\134x rw,noatime master:1 shared:2 - ext4 /dev/root rw", mount));
    EXPECT_EQ(mount.id, 36u);
    EXPECT_EQ(mount.point, "/mnt 2\\x");
    EXPECT_EQ(mount.type, "ext4");
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

TEST(CliMounts, points_below_a_path)
{
    const std::vector<Mount> mounts = {{1, "/", "ext4", true},
                                       {2, "/a", "ext4", true},
                                       {3, "/ab", "ext4", true},
                                       {4, "/a/b", "ext4", true},
                                       {5, "/a/t", "tmpfs", false}};
    EXPECT_EQ(markable_mounts_below(mounts, "/a"), (std::vector<std::string>{"/a/b"}));
    EXPECT_EQ(markable_mounts_below(mounts, "/"), (std::vector<std::string>{"/a", "/ab", "/a/b"}));
}

TEST(CliMounts, the_real_table_has_the_root)
{
    const auto mounts = read_mounts();
    EXPECT_TRUE(std::any_of(mounts.begin(), mounts.end(), [](const Mount &m) { return m.point == "/"; }));
    EXPECT_TRUE(read_mounts("/no-such-file").empty());
}
