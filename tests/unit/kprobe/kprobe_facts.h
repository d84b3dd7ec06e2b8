/*
 * kprobe_facts.h: what real kernels are like, for tests of the kernel-probe library.
 */
#ifndef UNIT_KPROBE_FACTS_H
#define UNIT_KPROBE_FACTS_H

#include <gtest/gtest.h>

#include "definition.h"
#include "facts.h"
#include "testlib/kernel_double/module_probes.h"
#include "translate.h"

namespace kprobe_facts
{

inline kprobe::Facts of_kernel(bool is_64, uint8_t major, uint8_t minor, int object, int inode_back)
{
    kprobe::Facts facts;
    facts.is_64 = is_64;
    facts.major = major;
    facts.minor = minor;
    facts.functions = {"security_inode_create",
                       "security_inode_unlink",
                       "security_inode_rename",
                       "security_inode_link",
                       "d_move",
                       "vfs_create",
                       "vfs_unlink",
                       "vfs_rename",
                       "vfs_link",
                       "__fsnotify_parent",
                       "inotify_handle_inode_event"};
    if (is_64)
        facts.dentry = {24, 40, 48, 104, 56, 16, 0, 64};
    else
        facts.dentry = {16, 28, 32, 84, 36, 8, 0, 40};
    facts.mark = {is_64 ? 72 : 44, is_64 ? 56 : 32, object, inode_back, 8, is_64 ? 200 : 124};
    return facts;
}

inline kprobe::Facts amd64_5_10() { return of_kernel(true, 5, 10, 16, 568); }
inline kprobe::Facts amd64_6_1() { return of_kernel(true, 6, 1, 16, 600); }
inline kprobe::Facts amd64_6_12() { return of_kernel(true, 6, 12, 8, 0); }
inline kprobe::Facts i386_5_10() { return of_kernel(false, 5, 10, 16, 372); }
inline kprobe::Facts i386_6_1() { return of_kernel(false, 6, 1, 16, 392); }

inline kprobe::Facts without(kprobe::Facts facts, const std::string &prefix)
{
    for (auto it = facts.functions.begin(); it != facts.functions.end();)
        it = it->compare(0, prefix.size(), prefix) == 0 ? facts.functions.erase(it) : std::next(it);
    return facts;
}

inline kprobe::Definition parsed(const testlib::ModuleProbe &probe)
{
    kprobe::Definition def;
    if (!parse_definition(probe.record(), def))
        def = {};
    return def;
}

inline kprobe::Plan plan_of(const testlib::ModuleProbe &probe, const kprobe::Facts &facts)
{
    kprobe::Plan plan;
    std::string why;
    EXPECT_TRUE(translate(parsed(probe), facts, plan, why)) << probe.name << ": " << why;
    return plan;
}

}  // namespace kprobe_facts

#endif
