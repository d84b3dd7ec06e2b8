/* The control files: the kernel's texts, groups and their owners, what dead processes leave. */
#include "tracefs.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "testlib/fault.h"
#include "testlib/kernel_double/kernel_double.h"

using namespace kprobe;
using testlib::Fault;
using testlib::KernelDouble;
using Lines = std::vector<std::string>;

namespace
{

/* A process that has ended and been waited for. */
int dead_process()
{
    const pid_t child = fork();
    if (child == 0)
        _exit(0);
    waitpid(child, nullptr, 0);
    return child;
}

std::string group_of(const Owner &owner, const char *name = "clt_file") { return group_name(owner, 3, name); }

struct Found {
    KernelDouble kernel;
    Tracefs tracefs;
    std::string why;
    Found() { EXPECT_TRUE(tracefs.find(why)) << why; }
    void define(const std::string &text) { EXPECT_EQ(0, tracefs.define(text, why)) << text << ": " << why; }
};

}  // namespace

/* ---- texts ---- */

TEST(KprobeTracefs, Formats)
{
    const std::vector<RawField> fields = parse_format(
        "name: Kc_77\nID: 1582\nformat:\n"
        "\tfield:unsigned short common_type;\toffset:0;\tsize:2;\tsigned:0;\n"
        "\tfield:unsigned char common_flags;\toffset:2;\tsize:1;\tsigned:0;\n"
        "\tfield:unsigned char common_preempt_count;\toffset:3;\tsize:1;\tsigned:0;\n"
        "\tfield:int common_pid;\toffset:4;\tsize:4;\tsigned:1;\n\n"
        "\tfield:unsigned long __probe_ip;\toffset:8;\tsize:8;\tsigned:0;\n"
        "\tfield:u32 mnt;\toffset:16;\tsize:4;\tsigned:0;\n"
        "\tfield:u64 n1[4];\toffset:20;\tsize:32;\tsigned:0;\n\n"
        "print fmt: \"(%lx) mnt=%u\", REC->__probe_ip, REC->mnt\n");
    ASSERT_EQ(2u, fields.size());
    EXPECT_EQ("mnt", fields[0].name);
    EXPECT_EQ(16u, fields[0].offset);
    EXPECT_EQ(4u, fields[0].size);
    EXPECT_EQ("n1", fields[1].name);
    EXPECT_EQ(20u, fields[1].offset);
    EXPECT_EQ(32u, fields[1].size);
}

TEST(KprobeTracefs, FormatsThatAreNone)
{
    EXPECT_TRUE(parse_format("").empty());
    EXPECT_TRUE(parse_format("\n\n").empty());
    for (const char *text :
         {"field:", "field:;", "\tfield:u32 a", "field:[4];offset:;size:;", "field:u32 a;offset:-1;size:x"})
        for (const RawField &field : parse_format(text))
            EXPECT_EQ(0u, field.size) << text;
}

TEST(KprobeTracefs, TheLastErrorCounts)
{
    EXPECT_EQ("", last_error(""));
    EXPECT_EQ("", last_error("[ 1.0] trace_kprobe: warning: x\n"));
    EXPECT_EQ("Argument expression is too long",
              last_error("[  163.7] trace_kprobe: error: Invalid probed address or symbol\n  Command: p:a nothing\n"
                         "                    ^\n[  170.2] trace_kprobe: error: Argument expression is too long\n"
                         "  Command: p:a b c=+0(+0(%di))\n               ^\n"));
    EXPECT_EQ("b: error: c", last_error("a: error: b: error: c"));
}

/* ---- groups ---- */

TEST(KprobeTracefs, GroupsNameTheirOwner)
{
    for (const Owner &owner : {Owner{1, 1}, Owner{77, 123456789}, Owner{INT_MAX, 9223372036854775807u}}) {
        Owner found;
        ASSERT_TRUE(owner_of_group(group_of(owner), found));
        EXPECT_EQ(owner.pid, found.pid);
        EXPECT_EQ(owner.started, found.started);
        EXPECT_LE(group_name(owner, UINT_MAX, std::string(100, 'x')).size(), 63u);
    }
    EXPECT_EQ("orx_77_5_3_clt_file", group_of({77, 5}));
    EXPECT_NE(group_name({77, 5}, 1, "a"), group_name({77, 5}, 2, "a"));
}

TEST(KprobeTracefs, HostileNamesOfInstances)
{
    for (const char *name : {"a/../../b", "-:x", "a b\nc", "\xff\xfe", "", "%n%s", "orx_1_2_3_"}) {
        const std::string group = group_of({77, 5}, name);
        EXPECT_EQ(std::string::npos, group.find_first_not_of("abcdefghijklmnopqrstuvwxyz_0123456789")) << group;
        Owner owner;
        ASSERT_TRUE(owner_of_group(group, owner)) << group;
        EXPECT_EQ(77, owner.pid);
    }
}

TEST(KprobeTracefs, GroupsThatAreNotOurs)
{
    for (const char *group : {"", "orx", "orx_", "orx_1", "orx_1_", "orx_1_2", "orx_1_2_", "orx_1_2_3", "orx__2_3_x",
                              "kprobes", "orx_clt_file", "orx_a_2_3_x", "orx_1_2_x_3", "xorx_1_2_3_x", "orx_-1_2_3_x",
                              "orx_ 1_2_3_x", "orx_99999999999999999999_2_3_x"}) {
        Owner owner;
        EXPECT_FALSE(owner_of_group(group, owner)) << group;
    }
}

TEST(KprobeTracefs, WhoIsAlive)
{
    const Owner self = current_owner();
    EXPECT_EQ(getpid(), self.pid);
    EXPECT_GT(self.started, 0u);
    EXPECT_TRUE(is_alive(self));
    EXPECT_FALSE(is_alive({self.pid, self.started + 1})) << "the id was used again";
    EXPECT_FALSE(is_alive({self.pid, 0}));
    EXPECT_FALSE(is_alive({dead_process(), 5}));
    EXPECT_FALSE(is_alive({0, 0}));
}

/* A program's name is whatever it wants. */
TEST(KprobeTracefs, StartTimesBehindAnyName)
{
    KernelDouble kernel;
    const std::string rest = "S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 424242 20 21\n";
    for (const char *name : {"sh", "a b", ") S 1 2 3", "((", ""}) {
        kernel.file("/proc/" + std::to_string(getpid()) + "/stat", "77 (" + std::string(name) + ") " + rest);
        EXPECT_EQ(424242u, current_owner().started) << name;
    }
    for (const char *stat : {"", "77", "77 (x)", "77 (x) S 1 2"}) {
        kernel.file("/proc/" + std::to_string(getpid()) + "/stat", stat);
        EXPECT_EQ(0u, current_owner().started) << stat;
    }
}

/* ---- control files ---- */

TEST(KprobeTracefs, WhereItCannotBeFound)
{
    KernelDouble kernel;
    Tracefs tracefs;
    std::string why;
    {
        const Fault fault("access", 1, EACCES, 100);
        EXPECT_FALSE(tracefs.find(why));
        EXPECT_EQ("no permission for kernel probes: they need root, and a kernel that is not locked down", why);
    }
    {
        const Fault fault("access", 1, ENOENT, 100);
        EXPECT_FALSE(tracefs.find(why));
        EXPECT_NE(std::string::npos, why.find("mount -t tracefs")) << why;
    }
    for (const int error : {EPERM, EACCES}) {
        const Fault fault("open", 1, error, 100);
        EXPECT_FALSE(tracefs.find(why));
        EXPECT_NE(std::string::npos, why.find("no permission")) << why;
    }
    const Fault fault("open", 1, EBUSY, 100);
    EXPECT_FALSE(tracefs.find(why));
    EXPECT_NE(std::string::npos, why.find("Device or resource busy")) << why;
}

TEST(KprobeTracefs, AKernelWithoutProbes)
{
    Found found;
    found.kernel.no_file(found.kernel.tracing("kprobe_events"));
    EXPECT_FALSE(found.tracefs.find(found.why));
    EXPECT_EQ("this kernel has no kernel probes (CONFIG_KPROBE_EVENTS)", found.why);
}

TEST(KprobeTracefs, Definitions)
{
    Found found;
    found.define("p:g/one vfs_link a=%di:u32");
    found.define("p:g/two vfs_link");
    EXPECT_EQ((Lines{"p:g/one vfs_link a=%di:u32", "p:g/two vfs_link"}), found.kernel.definitions())
        << "added, not replaced";
    EXPECT_EQ(found.kernel.id_of("one"), found.tracefs.event_id("g", "one"));
    ASSERT_EQ(1u, found.tracefs.format("g", "one").size());
    EXPECT_EQ(16u, found.tracefs.format("g", "one")[0].offset);
    EXPECT_EQ(0, found.tracefs.remove("g", "one"));
    EXPECT_EQ(Lines{"p:g/two vfs_link"}, found.kernel.definitions());
    EXPECT_EQ(-1, found.tracefs.event_id("g", "one"));
    EXPECT_TRUE(found.tracefs.format("g", "one").empty());
    EXPECT_EQ(-ENOENT, found.tracefs.remove("g", "one"));
}

TEST(KprobeTracefs, RefusalsInTheKernelsWords)
{
    Found found;
    found.kernel.refuse("nowhere", "Invalid probed address or symbol");
    EXPECT_EQ(-EINVAL, found.tracefs.define("p:g/one nowhere", found.why));
    EXPECT_EQ("Invalid probed address or symbol", found.why);
    found.kernel.no_file(found.kernel.tracing("error_log")); /* older kernels have none */
    const Fault fault("write", 1, ENOSPC);
    EXPECT_EQ(-ENOSPC, found.tracefs.define("p:g/one vfs_link", found.why));
    EXPECT_EQ("No space left on device", found.why);
}

TEST(KprobeTracefs, FiltersAreTried)
{
    Found found;
    found.define("p:g/one vfs_link a=%di:u32");
    EXPECT_EQ("Field not found", found.tracefs.filter_error("g", "one", "nofield==1"));
    EXPECT_EQ("Invalid argument", found.tracefs.filter_error("g", "one", "a==1")) << "a filter that is good there";
}

TEST(KprobeTracefs, Misses)
{
    Found found;
    EXPECT_EQ(0u, found.tracefs.missed("Kc_7"));
    found.kernel.file(
        found.kernel.tracing("kprobe_profile"),
        "  Kc_7                            1000               5\n  Kc_77    9   9\n  Kc_7  1 2\nrubbish\n Kc_7 x 3\n");
    EXPECT_EQ(7u, found.tracefs.missed("Kc_7"));
    EXPECT_EQ(9u, found.tracefs.missed("Kc_77"));
}

TEST(KprobeTracefs, Orphans)
{
    Found found;
    const Owner self = current_owner();
    const std::string dead = group_of({dead_process(), 55}), reused = group_of({self.pid, self.started - 1}),
                      alive = group_of(self);
    const Lines kept = {"p:" + alive + "/Kc_1 vfs_link", "p:kprobes/other vfs_link", "p:orx_clt_file/Kc vfs_link"};
    for (const std::string &text : {"p:" + dead + "/Kc_9 vfs_link a=%di", kept[0], "p:" + reused + "/Kc_9 d_move",
                                    kept[1], kept[2], "p:" + dead + "/Ku_9 vfs_link a=%di"})
        found.define(text);
    EXPECT_EQ(3, found.tracefs.remove_orphans());
    EXPECT_EQ(kept, found.kernel.definitions());
    EXPECT_EQ(0, found.tracefs.remove_orphans());
}

TEST(KprobeTracefs, ListsOfDefinitionsThatAreOdd)
{
    Found found;
    const std::string dead = group_of({dead_process(), 55});
    found.define("p:" + dead + "/Kc_9 vfs_link");
    found.kernel.file(found.kernel.tracing("kprobe_events"), "\n:\n/\n \np:\np: /\np:x/\nr3:kprobes/a b\np:" + dead +
                                                                 "\np:" + dead + "/\n/: \n:/\nr8:" + dead +
                                                                 "/Kc_9 vfs_link+0 a=%di");
    EXPECT_EQ(1, found.tracefs.remove_orphans()) << "of a kind with a number";
}

TEST(KprobeTracefs, Arrays)
{
    Found found;
    EXPECT_TRUE(found.tracefs.knows_arrays());
    found.kernel.no_file(found.kernel.tracing("README"));
    EXPECT_FALSE(found.tracefs.knows_arrays());
}

TEST(KprobeTracefs, Files)
{
    testlib::TempTree tree;
    const std::string long_text(100000, 'x'), path = tree.file("f", long_text);
    EXPECT_EQ(long_text, read_file(path));
    EXPECT_EQ("", read_file(tree.path("none")));
    EXPECT_EQ(-ENOENT, write_file(tree.path("none"), "x", true));
    EXPECT_EQ(0, write_file(path, "yy", true));
    EXPECT_EQ(long_text + "yy", read_file(path));
    const Fault fault("read", 1, EIO);
    EXPECT_EQ("", read_file(path));
}
