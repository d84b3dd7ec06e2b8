/*
 * The recursive watch of the command against a model: thousands of operations of one seed, by three processes, with
 * pauses of theirs and of the watcher's, on a tmpfs and on an ext4 in a mount namespace of their own.
 *
 *   FMON_MODEL_OPERATIONS   how many (800)
 *   FMON_MODEL_SEED         the seed (1)
 *   FMON_MODEL_TRACE        a file for all that is done, round by round; a failure prints its own round
 */
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <cstdlib>

#include "rounds.h"

using namespace model;
using testlib::TempTree;

namespace
{

unsigned long number(const char *variable, unsigned long otherwise)
{
    const char *text = getenv(variable);
    return text && *text ? strtoul(text, nullptr, 0) : otherwise;
}

constexpr char kKinds[] = "create,delete,moved_from,moved_to,attrib,modify,close_write";

const Setting kMarks = {{"-r", "--probes", "off", "--source", "marks", "-e", kKinds}, false, false};

/* The two ways of the source's table: all directories in it, and few, so that the kernel is asked. */
const Setting kFileSystem = {{"-r", "--probes", "off", "--source", "filesystem", "-e", kKinds}, false, true};
const Setting kSmallTable = {
    {"-r", "--probes", "off", "--source", "filesystem", "--set", "fs_directories=64", "-e", kKinds}, true, true};

class Model : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        own_mounts = unshare(CLONE_NEWNS) == 0 && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    }
    void SetUp() override { NEED(own_mounts, "needs root, for a mount namespace"); }
    void TearDown() override { umount2(ground.c_str(), MNT_DETACH); }

    void on_tmpfs() { ASSERT_EQ(0, ::mount("model", ground.c_str(), "tmpfs", 0, nullptr)); }
    bool on_ext4()
    {
        const std::string image = tree.path("image");
        return system(("exec 2>&1 >/dev/null; truncate -s 64M " + image + " && mkfs.ext4 -q " + image +
                       " && mount -o loop " + image + " " + ground)
                          .c_str()) == 0;
    }
    void follows(const Setting &setting)
    {
        const unsigned long seed = number("FMON_MODEL_SEED", 1), operations = number("FMON_MODEL_OPERATIONS", 800);
        Rounds rounds(setting, ground, seed);
        const Complaints complaints = rounds.run(operations);
        std::string text;
        for (const std::string &line : complaints)
            text += line + "\n";
        EXPECT_EQ("", text) << "seed " << seed << ", round " << rounds.rounds();
        printf("seed %lu: %zu operations in %d rounds, %zu records\n", seed, rounds.operations(), rounds.rounds(),
               rounds.records());
    }

    static inline bool own_mounts = false;
    TempTree tree;
    std::string ground = tree.dir("ground");
};

TEST_F(Model, MarksOnTmpfs)
{
    on_tmpfs();
    follows(kMarks);
}

TEST_F(Model, MarksOnExt4)
{
    NEED(on_ext4(), "needs mkfs.ext4 and a loop device");
    follows(kMarks);
}

TEST_F(Model, FileSystemOnTmpfs)
{
    on_tmpfs();
    follows(kFileSystem);
}

TEST_F(Model, FileSystemOnExt4)
{
    NEED(on_ext4(), "needs mkfs.ext4 and a loop device");
    follows(kFileSystem);
}

TEST_F(Model, SmallTableOnExt4)
{
    NEED(on_ext4(), "needs mkfs.ext4 and a loop device");
    follows(kSmallTable);
}

}  // namespace
