/* What the library finds out about a kernel. */
#include "facts.h"

#include <gtest/gtest.h>

#include "btf.h"
#include "kprobe_facts.h"
#include "testlib/fault.h"
#include "testlib/kernel_double/agent_log.h"
#include "testlib/kernel_double/btf_blob.h"
#include "testlib/kernel_double/kernel_double.h"
#include "tracefs.h"

using namespace kprobe;
using testlib::Fault;
using testlib::kernel_types;
using testlib::KernelDouble;
using testlib::KernelTypes;

namespace
{

using Names = std::set<std::string, std::less<>>;

Names functions_in(std::string_view lines)
{
    Facts facts;
    functions_from_symbols(lines, facts);
    return facts.functions;
}

bool gathered(KernelDouble &, Facts &facts, std::string &why)
{
    Tracefs tracefs;
    return tracefs.find(why) && gather_facts(tracefs, facts, why);
}

}  // namespace

TEST(KprobeFacts, Releases)
{
    const struct {
        const char *text;
        int major, minor, patch;
    } rows[] = {{"6.1.0-50-amd64", 6, 1, 0},
                {"5.10.223", 5, 10, 223},
                {"6.12.107+deb13-cloud-amd64", 6, 12, 107},
                {"7.2", 7, 2, 0},
                {"4.19-rc3", 4, 19, 0},
                {"300.1.256", 255, 1, 255},
                {"5.10.", 5, 10, 0},
                {"5.10.x", 5, 10, 0},
                {"3.10.0-957.el7.x86_64", 3, 10, 0},
                {"5.99999999999999999999.3", 5, 255, 3}};
    for (const auto &row : rows) {
        Facts facts;
        ASSERT_TRUE(parse_release(row.text, facts)) << row.text;
        EXPECT_EQ(row.major, facts.major) << row.text;
        EXPECT_EQ(row.minor, facts.minor) << row.text;
        EXPECT_EQ(row.patch, facts.patch) << row.text;
    }
    for (const char *text : {"", ".", "6", "6.", "6.x", "x.1", ".1.2", "v6.1", "6-1", "linux"}) {
        Facts facts;
        EXPECT_FALSE(parse_release(text, facts)) << text;
    }
}

TEST(KprobeFacts, Symbols)
{
    EXPECT_EQ((Names{"d_move", "vfs_link"}), functions_in("ffffffff81200000 T vfs_link\nffffffff81200010 T schedule\n"
                                                          "ffffffff81200020 t d_move\n"));
    EXPECT_EQ(Names{"vfs_link"}, functions_in("c0100000 T vfs_link")) << "without an end of line";
    EXPECT_EQ(Names{}, functions_in("ffffffffc0000000 t vfs_link\t[overlay]\nffffffffc0000000 t d_move [xfs]\n"));
    EXPECT_EQ(Names{}, functions_in("f T vfs_link2\nf T xvfs_link\nf T vfs_link.cold\nf T __vfs_link\nf T VFS_LINK\n"));
    EXPECT_EQ(Names{}, functions_in(""));
    EXPECT_EQ(Names{}, functions_in("\n \n\n"));
}

TEST(KprobeFacts, FromTypes)
{
    Facts facts;
    facts_from_btf(Btf(kernel_types(KernelTypes())), facts);
    const Facts wanted = kprobe_facts::amd64_6_1();
    EXPECT_TRUE(facts.dentry.complete());
    EXPECT_EQ(wanted.dentry.parent, facts.dentry.parent);
    EXPECT_EQ(wanted.dentry.name, facts.dentry.name);
    EXPECT_EQ(wanted.dentry.inode, facts.dentry.inode);
    EXPECT_EQ(wanted.dentry.super, facts.dentry.super);
    EXPECT_EQ(wanted.dentry.inline_name, facts.dentry.inline_name);
    EXPECT_EQ(wanted.dentry.s_dev, facts.dentry.s_dev);
    EXPECT_EQ(wanted.dentry.i_mode, facts.dentry.i_mode);
    EXPECT_EQ(wanted.dentry.i_ino, facts.dentry.i_ino);
    EXPECT_EQ(72, facts.mark.wd);
    EXPECT_EQ(56, facts.mark.connector);
    EXPECT_EQ(16, facts.mark.object);
    EXPECT_EQ(600, facts.mark.inode_back);
    EXPECT_EQ(8, facts.mark.group);
    EXPECT_EQ(200, facts.mark.file_group);
    EXPECT_TRUE(facts.new_parent);
    EXPECT_EQ(wanted.functions, facts.functions) << "and no other function";
}

TEST(KprobeFacts, FromTypesOfOtherKernels)
{
    KernelTypes kernel;
    kernel.inline_name = "d_shortname";
    kernel.object_is_void = true;
    kernel.connector_object = 8;
    kernel.new_parent = false;
    kernel.functions = {};
    Facts facts;
    facts_from_btf(Btf(kernel_types(kernel)), facts);
    EXPECT_EQ(56, facts.dentry.inline_name);
    EXPECT_EQ(8, facts.mark.object);
    EXPECT_EQ(0, facts.mark.inode_back);
    EXPECT_FALSE(facts.new_parent);
    EXPECT_EQ(Names{"__fsnotify_parent"}, facts.functions);
    kernel.inline_name = "d_other";
    facts_from_btf(Btf(kernel_types(kernel)), facts);
    EXPECT_FALSE(facts.dentry.complete());
}

TEST(KprobeFacts, GatheredWithTypeInformation)
{
    KernelDouble kernel(true, "6.1.176-test");
    kernel.default_files();
    Facts facts;
    std::string why;
    ASSERT_TRUE(gathered(kernel, facts, why)) << why;
    EXPECT_TRUE(facts.is_64);
    EXPECT_TRUE(facts.arrays);
    EXPECT_EQ(6, facts.major);
    EXPECT_EQ(176, facts.patch);
    EXPECT_TRUE(facts.has("vfs_link"));
    kernel.file(kernel.tracing("README"), "tracing mini-HOWTO:\n  type: s8/16/32/64\n");
    Facts old;
    ASSERT_TRUE(gathered(kernel, old, why)) << why;
    EXPECT_FALSE(old.arrays);
}

TEST(KprobeFacts, GatheredFromSymbols)
{
    KernelDouble kernel(false, "5.10.0-32-686");
    kernel.default_files();
    kernel.no_file("/sys/kernel/btf/vmlinux");
    kernel.file("/proc/kallsyms", "c1 T vfs_link\nc2 T inotify_handle_inode_event\n");
    kernel.refuse(" inotify_handle_inode_event", "no calibration here");
    Facts facts;
    std::string why;
    ASSERT_TRUE(gathered(kernel, facts, why)) << why;
    EXPECT_FALSE(facts.is_64);
    EXPECT_EQ((Names{"inotify_handle_inode_event", "vfs_link"}), facts.functions);
    EXPECT_TRUE(facts.new_parent) << "both came with the same kernel";
    EXPECT_FALSE(facts.dentry.complete());
    EXPECT_FALSE(facts.mark.complete());
    kernel.file("/proc/kallsyms", "c1 T vfs_link\n");
    Facts old;
    ASSERT_TRUE(gathered(kernel, old, why)) << why;
    EXPECT_FALSE(old.new_parent);
}

TEST(KprobeFacts, MachinesWithoutProbes)
{
    KernelDouble kernel;
    kernel.default_files();
    Facts facts;
    std::string why;
    for (const char *machine : {"aarch64", "i86", "x86", "ia64", "", "i686x"}) {
        kernel.machine = machine;
        EXPECT_FALSE(gathered(kernel, facts, why)) << machine;
        EXPECT_NE(std::string::npos, why.find("x86 only")) << why;
    }
    kernel.machine = "x86_64";
    kernel.release = "unknown";
    EXPECT_FALSE(gathered(kernel, facts, why));
    EXPECT_EQ("the kernel's release cannot be read", why);
    const Fault fault("uname", 1, EFAULT);
    EXPECT_FALSE(gathered(kernel, facts, why));
}
