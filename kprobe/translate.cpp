#include "translate.h"

#include <sys/inotify.h>

#include <algorithm>
#include <charconv>

namespace kprobe
{

namespace
{

// ---- where the functions are ----

// The function to probe and which of its arguments is the entry.
struct Target {
    const char *point;
    int argument;
};

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

constexpr const char *kInotifyPoints[] = {"inotify_handle_event", "fsnotify_add_event", "fsnotify_add_notify_event",
                                          "inotify_handle_inode_event"};
constexpr char kInotifyPoint[] = "inotify_handle_inode_event";
constexpr uint32_t kWatchEnds = IN_DELETE_SELF | IN_IGNORED;

// The second argument of a rename is the old entry, in either calling convention of the texts.
bool is_new_entry(const Definition &def) { return def.dentry != "%si" && def.dentry != "%dx"; }

// Arguments on the stack make an expression too long for the outermost ancestors.
bool on_stack(const Facts &facts, int argument) { return argument_place(facts, argument)[0] != '%'; }

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

// ---- expressions ----

bool fits(const FetchArg &arg)
{
    return arg.place.size() + (arg.type.empty() ? 0 : arg.type.size() + 1) <= kMaxExpression;
}

// How `size` bytes at a place are fetched: as one array, in words of eight bytes, or in the kernel's words.
enum class Grain { kArray, kEight, kWord };

// Fetches `size` bytes behind `inner`, from `offset` on. False: some expression is too long.
bool fetch_bytes(const Facts &facts, Grain grain, const std::string &name, int offset, const std::string &inner,
                 uint32_t size, std::vector<FetchArg> *args)
{
    if (grain == Grain::kArray) {
        if (!facts.arrays)
            return false;
        args->push_back({name, deref(offset, inner), "x64[" + std::to_string(size / 8) + "]"});
        return fits(args->back());
    }
    const uint32_t step = grain == Grain::kEight ? 8 : static_cast<uint32_t>(facts.word());
    for (uint32_t at = 0; at < size; at += step) {
        args->push_back({name + "_" + std::to_string(at / step), deref(offset + static_cast<int>(at), inner),
                         step == facts.word() ? "" : "x64"});
        if (!fits(args->back()))
            return false;
    }
    return true;
}

void add(Plan *plan, const FetchArg &arg, uint32_t to, uint32_t size)
{
    plan->args.push_back(arg);
    plan->pieces.push_back({arg.name, to, size});
}

// Adds arguments that follow each other in the record.
void add_run(Plan *plan, const std::vector<FetchArg> &args, uint32_t to, uint32_t size)
{
    const uint32_t step = size / static_cast<uint32_t>(args.size());
    for (const FetchArg &arg : args) {
        add(plan, arg, to, step);
        to += step;
    }
}

// ---- file records ----

// An ancestor's name: through its pointer, since a long name is nowhere else; where that makes the expression too long,
// the short name beside it, which is empty then, and the record is left out. One array costs a third of four words.
bool add_ancestor(const Facts &facts, const std::string &entry, uint32_t level, Plan *plan)
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
                             way.by_pointer ? pointer : ancestor, kAncestorSize, &args))
                continue;
            add_run(plan, args, to, kAncestorSize);
            return true;
        }
        return false;
    }
    // The outermost counts only if it is the root: its beginning tells, and to fetch more would be the dearest of all.
    const FetchArg first = {name, deref(at.inline_name, ancestor), ""};
    add(plan, first, to, static_cast<uint32_t>(facts.word()));
    return fits(first);
}

bool add_leaf(const Facts &facts, const std::string &entry, Plan *plan)
{
    for (const Grain grain : {Grain::kArray, Grain::kEight}) {
        std::vector<FetchArg> args;
        if (!fetch_bytes(facts, grain, "n0", 0, deref(facts.dentry.name, entry), kLeafSize, &args))
            continue;
        add_run(plan, args, kLeafOffset, kLeafSize);
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
bool add_more(const Definition &def, const Facts &facts, const std::string &entry, Plan *plan)
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
        add(plan, fetch, to, size);
        to += size;
    }
    plan->size = to;
    return true;
}

bool plan_file(const Definition &def, const Facts &facts, Plan *plan)
{
    const Target *target = find_target(def, facts);
    if (!target || !facts.dentry.complete())
        return false;
    const std::string entry = argument_place(facts, target->argument + before_entry(def, facts));
    plan->shape = Shape::kFile;
    plan->point = target->point;
    plan->by_device = true;
    plan->needs_marks = def.point == "__fsnotify_parent";
    add(plan, {"mnt", deref(facts.dentry.s_dev, deref(facts.dentry.super, entry)), "u32"}, 0, 4);
    for (uint32_t level = kAncestors; level > 0; level--)
        if (!add_ancestor(facts, entry, level, plan))
            return false;
    return add_leaf(facts, entry, plan) && add_more(def, facts, entry, plan);
}

// ---- inotify records ----

// Arguments (mark, mask, inode, dir, name, cookie), the name being a struct qstr whose text lies behind a 64-bit word.
bool plan_inotify(const Definition &def, const Facts &facts, Plan *plan)
{
    const auto *known = std::find(std::begin(kInotifyPoints), std::end(kInotifyPoints), def.point);
    if (known == std::end(kInotifyPoints) || !can_watch_inotify(facts))
        return false;
    const uint32_t name_size = static_cast<uint32_t>(def.args.size() - 3) * 8;
    const std::string mark = argument_place(facts, 1), name = argument_place(facts, 5);
    const std::string object = deref(facts.mark.object, deref(facts.mark.connector, mark));
    plan->shape = Shape::kInotify;
    plan->point = kInotifyPoint;
    plan->name_pointer = plan->tells_group = true;
    plan->size = kInotifyHead + name_size;
    add(plan, {"i", deref(facts.dentry.i_ino - facts.mark.inode_back, object), facts.is_64 ? "u64" : "u32"}, 0, 8);
    add(plan, {"w", deref(facts.mark.wd, mark), "u32"}, 8, 4);
    add(plan, {"m", argument_place(facts, 2), "u32"}, 12, 4);
    std::vector<FetchArg> text;
    if (!fetch_bytes(facts, facts.arrays ? Grain::kArray : Grain::kEight, "f", 0, deref(8, name), name_size, &text))
        return false;
    add_run(plan, text, kInotifyHead, name_size);
    plan->args.push_back({"z", name, facts.is_64 ? "u64" : "u32"});
    plan->args.push_back({"g", deref(facts.mark.group, mark), facts.is_64 ? "u64" : "u32"});
    return true;
}

// ---- anything else ----

bool plan_as_written(const Definition &def, const Facts &facts, Plan *plan, std::string *why)
{
    plan->shape = def.shape;
    plan->point = def.point;
    for (const FetchArg &arg : def.args) {
        const auto size = static_cast<uint32_t>(type_size(arg.type, facts.word()));
        if (size == 0) {
            *why = "a field of type " + arg.type + " has no place in a record";
            return false;
        }
        add(plan, arg, plan->size, size);
        plan->size += size;
    }
    return true;
}

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

std::string Plan::command(const std::string &group, const std::string &name) const
{
    std::string text = "p:" + group + "/" + name + " " + point;
    for (const FetchArg &arg : args)
        text += " " + arg.name + "=" + arg.place + (arg.type.empty() ? "" : ":" + arg.type);
    return text;
}

bool can_watch_inotify(const Facts &facts)
{
    return facts.has(kInotifyPoint) && facts.mark.complete() && facts.dentry.i_ino >= 0;
}

bool translate(const Definition &def, const Facts &facts, Plan *out, std::string *why)
{
    *out = {};
    *why = "it is not known where this kernel has what " + def.point + " is to tell";
    // As written, on another kernel than was meant, such records would have names of anything.
    if (def.shape == Shape::kFile)
        return plan_file(def, facts, out);
    if (def.shape == Shape::kInotify)
        return plan_inotify(def, facts, out);
    return plan_as_written(def, facts, out, why);
}

// ---- filters ----

namespace
{

bool is_word_char(char c) { return c == '_' || isalnum(static_cast<unsigned char>(c)); }

// Calls `replace` with each number that "mnt" is compared with (-1: too large for any mount) and puts its text there.
template <typename Replace>
std::string each_mount(std::string_view filter, Replace &&replace)
{
    constexpr int64_t kNoId = int64_t{INT32_MAX} + 1;
    std::string out;
    for (size_t i = 0; i < filter.size();) {
        const bool begins = i == 0 || !is_word_char(filter[i - 1]);
        size_t at = i + 3;
        if (!begins || filter.substr(i, 3) != "mnt" || at >= filter.size() || is_word_char(filter[at])) {
            out += filter[i++];
            continue;
        }
        while (at < filter.size() && !isdigit(static_cast<unsigned char>(filter[at])) && !is_word_char(filter[at]))
            at++;
        out += filter.substr(i, at - i);
        size_t end = at;
        int64_t id = 0;
        for (; end < filter.size() && isdigit(static_cast<unsigned char>(filter[end])); end++)
            id = std::min<int64_t>(id * 10 + (filter[end] - '0'), kNoId);
        if (end > at)
            out += replace(id == kNoId ? -1 : static_cast<int32_t>(id));
        i = end;
    }
    return out;
}

}  // namespace

std::vector<int32_t> mount_ids(std::string_view filter)
{
    std::vector<int32_t> ids;
    each_mount(filter, [&](int32_t id) {
        ids.push_back(id);
        return std::string();
    });
    return ids;
}

std::string whole_filter(const Definition &def, std::string_view filter)
{
    constexpr std::string_view kEnd = "&&m==8&&f>=32768&&f<=36863";
    const size_t mounts_end = filter.rfind(')');
    if (def.point != "__fsnotify_parent" || mounts_end == std::string_view::npos)
        return std::string(filter);
    const std::string_view end = filter.substr(mounts_end + 1);
    return std::string(filter) + std::string(kEnd.substr(0, end.size()) == end ? kEnd.substr(end.size()) : "");
}

std::string filter_with_ends(std::string_view filter)
{
    return filter.empty() ? "" : "(" + std::string(filter) + ")||m&" + std::to_string(kWatchEnds);
}

std::vector<uint32_t> threads_left_out(std::string_view filter)
{
    constexpr std::string_view kTest = "common_pid!=";
    std::vector<uint32_t> threads;
    for (size_t at = 0; (at = filter.find(kTest, at)) != std::string_view::npos;) {
        at += kTest.size();
        uint32_t thread = 0;
        if (std::from_chars(filter.data() + at, filter.data() + filter.size(), thread).ec == std::errc())
            threads.push_back(thread);
    }
    return threads;
}

std::string filter_by_device(std::string_view filter, const MountMap &mounts)
{
    return each_mount(filter, [&](int32_t id) {
        constexpr uint32_t kNoDevice = UINT32_MAX;
        const uint32_t device = id == 0 ? 0 : mounts.device_of(id);
        return std::to_string(id != 0 && device == 0 ? kNoDevice : device);
    });
}

}  // namespace kprobe
