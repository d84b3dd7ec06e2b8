#include "places.h"

#include <cstdlib>

namespace kprobe
{

namespace
{

struct TargetRow {
    const char *asked;
    bool new_entry;  // of a rename, the place that it goes to
    Target targets[3];
};

// The first function that the kernel has. The hooks come first: their arguments have never changed places, and they are
// called once for an operation, whoever asked for it. Without hooks (CONFIG_SECURITY) the rest is next best.
constexpr TargetRow kTargets[] = {
    {"vfs_create", false, {{"security_inode_create", 2}}},
    {"security_inode_create", false, {{"security_inode_create", 2}}},
    {"vfs_unlink", false, {{"security_inode_unlink", 2}}},
    {"vfs_rename", false, {{"security_inode_rename", 2}, {"d_move", 1}}},
    {"vfs_rename", true, {{"security_inode_rename", 4}, {"d_move", 2}}},
    {"vfs_link", false, {{"security_inode_link", 1}, {"vfs_link", 1}}},
    {"__fsnotify_parent", false, {{"__fsnotify_parent", 1}}},
};

// The second argument of a rename is the old entry, in either calling convention of the texts.
bool is_new_entry(const Definition &def) { return def.dentry != "%si" && def.dentry != "%dx"; }

// Arguments on the stack make an expression too long for the outermost ancestors.
bool on_stack(const Facts &facts, int argument) { return argument_place(facts, argument)[0] != '%'; }

}  // namespace

std::string deref(int offset, const std::string &inner)
{
    return (offset < 0 ? "-" : "+") + std::to_string(std::abs(offset)) + "(" + inner + ")";
}

std::string argument_place(const Facts &facts, int n)
{
    static constexpr const char *k64[] = {"%di", "%si", "%dx", "%cx", "%r8", "%r9"};
    static constexpr const char *k32[] = {"%ax", "%dx", "%cx"};
    if (facts.is_64)
        return k64[n - 1];
    return n <= 3 ? k32[n - 1] : "+" + std::to_string(4 * (n - 3)) + "(%sp)";  // the return address is at 0
}

bool fits(const FetchArg &arg)
{
    return arg.place.size() + (arg.type.empty() ? 0 : arg.type.size() + 1) <= kMaxExpression;
}

bool fetch_bytes(const Facts &facts, Grain grain, const std::string &name, int offset, const std::string &inner,
                 uint32_t size, std::vector<FetchArg> &args)
{
    if (grain == Grain::kArray) {
        if (!facts.arrays)
            return false;
        args.push_back({name, deref(offset, inner), "x64[" + std::to_string(size / 8) + "]"});
        return fits(args.back());
    }
    const uint32_t step = grain == Grain::kEight ? 8 : static_cast<uint32_t>(facts.word());
    for (uint32_t at = 0; at < size; at += step) {
        args.push_back({name + "_" + std::to_string(at / step), deref(offset + static_cast<int>(at), inner),
                        step == facts.word() ? "" : "x64"});
        if (!fits(args.back()))
            return false;
    }
    return true;
}

const Target *find_target(const Definition &def, const Facts &facts)
{
    for (const TargetRow &row : kTargets) {
        if (def.point != row.asked || (def.point == "vfs_rename" && row.new_entry != is_new_entry(def)))
            continue;
        for (const Target &target : row.targets)
            if (target.point && facts.has(target.point) && !on_stack(facts, target.argument))
                return &target;
    }
    return nullptr;
}

}  // namespace kprobe
