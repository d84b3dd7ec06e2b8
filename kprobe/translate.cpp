#include "translate.h"

#include <algorithm>
#include <iterator>

#include "places.h"

namespace kprobe
{

namespace
{

constexpr const char *kInotifyPoints[] = {"inotify_handle_event", "fsnotify_add_event", "fsnotify_add_notify_event",
                                          "inotify_handle_inode_event"};
constexpr char kInotifyPoint[] = "inotify_handle_inode_event";

// ---- file records ----

// An ancestor's name: through its pointer, since a long name is nowhere else; where that makes the expression too long,
// the short name beside it, which is empty then, and the record is left out. One array costs a third of four words.
bool add_ancestor(const Facts &facts, const std::string &entry, uint32_t level, Plan &plan)
{
    const DentryLayout &at = facts.dentry;
    std::string ancestor = entry;
    for (uint32_t i = 0; i < level; i++)
        ancestor = deref(at.parent, ancestor);
    const std::string name = "n" + std::to_string(level), pointer = deref(at.name, ancestor);
    const uint32_t to = 4 + (kAncestors - level) * kAncestorSize;
    const struct {
        Grain grain;
        bool by_pointer;
    } ways[] = {{Grain::kArray, true}, {Grain::kArray, false}, {Grain::kEight, false}, {Grain::kWord, false}};
    if (level < kAncestors) {
        for (const auto &way : ways) {
            std::vector<FetchArg> args;
            if (!fetch_bytes(facts, way.grain, name, way.by_pointer ? 0 : at.inline_name,
                             way.by_pointer ? pointer : ancestor, kAncestorSize, args))
                continue;
            plan.add_run(args, to, kAncestorSize);
            return true;
        }
        return false;
    }
    // The outermost counts only if it is the root: its beginning says so, and to fetch more would be the dearest of
    // all.
    const FetchArg first = {name, deref(at.inline_name, ancestor), ""};
    plan.add(first, to, static_cast<uint32_t>(facts.word()));
    return fits(first);
}

bool add_leaf(const Facts &facts, const std::string &entry, Plan &plan)
{
    for (const Grain grain : {Grain::kArray, Grain::kEight}) {
        std::vector<FetchArg> args;
        if (!fetch_bytes(facts, grain, "n0", 0, deref(facts.dentry.name, entry), kLeafSize, args))
            continue;
        plan.add_run(args, kLeafOffset, kLeafSize);
        return true;
    }
    return false;
}

// Earlier kernels hand __fsnotify_parent the entry's path, and the entry behind it.
int before_entry(const Definition &def, const Facts &facts)
{
    return def.point == "__fsnotify_parent" && !facts.new_parent;
}

// What the close_write probe asks for besides: the kernel's event mask and the mode of the inode.
bool add_more(const Definition &def, const Facts &facts, const std::string &entry, Plan &plan)
{
    uint32_t to = kFileRecord;
    for (const FetchArg &arg : def.more) {
        const auto size = static_cast<uint32_t>(type_size(arg.type, facts.word()));
        FetchArg fetch = arg;
        if (arg.name == "m")
            fetch.place = argument_place(facts, 2 + before_entry(def, facts));
        else if (arg.name == "f")
            fetch.place = deref(facts.dentry.i_mode, deref(facts.dentry.inode, entry));
        else
            return false;
        if (size == 0)
            return false;
        plan.add(fetch, to, size);
        to += size;
    }
    plan.size = to;
    return true;
}

bool plan_file(const Definition &def, const Facts &facts, Plan &plan)
{
    const Target *target = find_target(def, facts);
    if (!target || !facts.dentry.complete())
        return false;
    const std::string entry = argument_place(facts, target->argument + before_entry(def, facts));
    plan.shape = Shape::kFile;
    plan.point = target->point;
    plan.by_device = true;
    plan.needs_marks = def.point == "__fsnotify_parent";
    plan.add({"mnt", deref(facts.dentry.s_dev, deref(facts.dentry.super, entry)), "u32"}, 0, 4);
    for (uint32_t level = kAncestors; level > 0; level--)
        if (!add_ancestor(facts, entry, level, plan))
            return false;
    return add_leaf(facts, entry, plan) && add_more(def, facts, entry, plan);
}

// ---- inotify records ----

// Arguments (mark, mask, inode, dir, name, cookie), the name being a struct qstr whose text lies behind a 64-bit word.
bool plan_inotify(const Definition &def, const Facts &facts, Plan &plan)
{
    const auto *known = std::find(std::begin(kInotifyPoints), std::end(kInotifyPoints), def.point);
    if (known == std::end(kInotifyPoints) || !can_watch_inotify(facts))
        return false;
    const uint32_t name_size = static_cast<uint32_t>(def.args.size() - 3) * 8;
    const std::string mark = argument_place(facts, 1), name = argument_place(facts, 5);
    const std::string object = deref(facts.mark.object, deref(facts.mark.connector, mark));
    plan.shape = Shape::kInotify;
    plan.point = kInotifyPoint;
    plan.name_pointer = plan.names_group = true;
    plan.size = kInotifyHead + name_size;
    plan.add({"i", deref(facts.dentry.i_ino - facts.mark.inode_back, object), facts.is_64 ? "u64" : "u32"}, 0, 8);
    plan.add({"w", deref(facts.mark.wd, mark), "u32"}, 8, 4);
    plan.add({"m", argument_place(facts, 2), "u32"}, 12, 4);
    std::vector<FetchArg> text;
    if (!fetch_bytes(facts, facts.arrays ? Grain::kArray : Grain::kEight, "f", 0, deref(8, name), name_size, text))
        return false;
    plan.add_run(text, kInotifyHead, name_size);
    plan.args.push_back({"z", name, facts.is_64 ? "u64" : "u32"});
    plan.args.push_back({"g", deref(facts.mark.group, mark), facts.is_64 ? "u64" : "u32"});
    return true;
}

// ---- anything else ----

bool plan_as_written(const Definition &def, const Facts &facts, Plan &plan, std::string &why)
{
    plan.shape = def.shape;
    plan.point = def.point;
    for (const FetchArg &arg : def.args) {
        const auto size = static_cast<uint32_t>(type_size(arg.type, facts.word()));
        if (size == 0) {
            why = "a field of type " + arg.type + " has no place in a record";
            return false;
        }
        plan.add(arg, plan.size, size);
        plan.size += size;
    }
    return true;
}

}  // namespace

bool can_watch_inotify(const Facts &facts)
{
    return facts.has(kInotifyPoint) && facts.mark.complete() && facts.dentry.i_ino >= 0;
}

bool translate(const Definition &def, const Facts &facts, Plan &out, std::string &why)
{
    out = {};
    why = "it is not known where this kernel has what " + def.point + " is to tell";
    // As written, on another kernel than was meant, such records would have names of anything.
    if (def.shape == Shape::kFile)
        return plan_file(def, facts, out);
    if (def.shape == Shape::kInotify)
        return plan_inotify(def, facts, out);
    return plan_as_written(def, facts, out, why);
}

}  // namespace kprobe
