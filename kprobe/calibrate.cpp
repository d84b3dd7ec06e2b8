#include "calibrate.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <vector>

#include "log.h"
#include "perf.h"
#include "tracefs.h"
#include "translate.h"

namespace kprobe
{

namespace
{

constexpr size_t kRing = 65536;
constexpr int kDentrySize = 128, kSuperSize = 64, kInodeSize = 96, kMarkSize = 96, kConnectorSize = 40;
constexpr uint64_t kInodeRoom = 2048;  // no inode is larger before the file system's own part

// The values of one hit.
using Values = std::vector<uint64_t>;

std::string deref(int offset, const std::string &inner) { return "+" + std::to_string(offset) + "(" + inner + ")"; }

// ---- experiments ----

struct Hits {
    std::vector<std::pair<uint64_t, std::vector<unsigned char>>> raw;  // with their time
    void sample(const Sample &sample) { raw.push_back({sample.time, {sample.raw, sample.raw + sample.raw_size}}); }
    void lost(uint64_t) {}
};

uint64_t value_at(const std::vector<unsigned char> &raw, const RawField &field)
{
    uint64_t value = 0;
    if (field.offset + field.size <= raw.size() && field.size <= sizeof(value))
        memcpy(&value, raw.data() + field.offset, field.size);
    return value;
}

// Reads a probe while this thread does something. False: it cannot be read.
bool observe(int event_id, const std::function<void()> &act, Hits *hits)
{
    const std::vector<int> cpus = online_cpus();
    std::vector<Ring> rings(cpus.size());
    std::vector<Ring *> list;
    EventSet events;
    bool bad_filter;
    for (size_t i = 0; i < rings.size(); i++) {
        if (rings[i].open(cpus[i], kRing) < 0)
            return false;
        list.push_back(&rings[i]);
    }
    if (events.open(event_id, list, "common_pid==" + std::to_string(gettid()), &bad_filter) < 0)
        return false;
    events.enable(true);
    act();
    events.enable(false);
    for (Ring &ring : rings)
        ring.drain(*hits);
    std::sort(hits->raw.begin(), hits->raw.end());
    return true;
}

// What the expressions (each of `type`, empty for a word) were at each hit of `point` during `act`. A fetch that fails
// leaves an arbitrary value, so that one finding is no proof.
std::vector<Values> experiment(const Tracefs &tracefs, const char *point, const std::vector<std::string> &places,
                               const char *type, const std::function<void()> &act)
{
    static unsigned serial;
    const std::string group = group_name(current_owner(), serial++, "calibrate");
    Plan plan;
    plan.point = point;
    for (size_t i = 0; i < places.size(); i++)
        plan.args.push_back({"v" + std::to_string(i), places[i], type});
    std::string why;
    if (tracefs.define(plan.command(group, "one"), &why) < 0) {
        KP_LOG(2, "calibration at %s refused: %s", point, why.c_str());
        return {};
    }
    const std::vector<RawField> fields = tracefs.format(group, "one");
    Hits hits;
    std::vector<Values> found;
    if (fields.size() == places.size() && observe(tracefs.event_id(group, "one"), act, &hits))
        for (const auto &[time, raw] : hits.raw) {
            found.emplace_back();
            for (const RawField &field : fields)
                found.back().push_back(value_at(raw, field));
        }
    tracefs.remove(group, "one");
    return found;
}

bool is_pointer(uint64_t value, const Facts &facts)
{
    return facts.is_64 ? value >= 0xffff000000000000 : value >= 0xc0000000;
}

// ---- the directories that are looked at ----

// Every kernel has them, and a probe on this thread sees nothing else of them.
struct Subject {
    const char *path, *name, *parent;
};
constexpr Subject kSubjects[] = {{"/proc/sys/kernel/random", "random", "kernel"},
                                 {"/proc/sys/fs/inotify", "inotify", "fs"}};
constexpr size_t kCount = std::size(kSubjects);

// The beginning of a text as a number: four bytes, or less with the end of the text.
uint64_t beginning(const char *text)
{
    uint32_t value = 0;
    memcpy(&value, text, std::min<size_t>(4, strlen(text)));
    return value;
}

uint64_t cut(uint64_t value, const char *text) { return strlen(text) >= 3 ? value : value & 0xffffff; }

// Whether each subject's value at this index is what it should be.
template <typename Wanted>
bool matches(const std::vector<Values> &found, size_t index, Wanted &&wanted)
{
    for (size_t i = 0; i < kCount; i++)
        if (!wanted(found[i][index], i))
            return false;
    return true;
}

// ---- entries ----

// stat() goes through security_inode_getattr, whose argument points to a struct path: the mount, then the entry.
class EntryCalibration
{
public:
    EntryCalibration(const Tracefs &tracefs, const Facts &facts)
        : tracefs_(tracefs),
          facts_(facts),
          word_(static_cast<int>(facts.word())),
          entry_(deref(word_, argument_place(facts, 1)))
    {
        for (size_t i = 0; i < kCount; i++)
            stat(kSubjects[i].path, &stats_[i]);
    }

    void find(DentryLayout *at)
    {
        find_names(at);
        if (at->name < 0)
            return;
        const std::vector<Values> words = look(each(kDentrySize, word_, [&](int o) { return deref(o, entry_); }), "");
        if (words.empty())
            return;
        find_parent(at);
        find_inode(words, at);
        find_super(words, at);
    }

private:
    using Place = std::function<std::string(int)>;

    static std::vector<std::string> each(int limit, int step, const Place &place)
    {
        std::vector<std::string> places;
        for (int offset = 0; offset < limit; offset += step)
            places.push_back(place(offset));
        return places;
    }

    // Empty unless there was one hit of each subject.
    std::vector<Values> look(const std::vector<std::string> &places, const char *type)
    {
        auto found = experiment(tracefs_, "security_inode_getattr", places, type, [] {
            struct stat st;
            for (const Subject &subject : kSubjects)
                stat(subject.path, &st);
        });
        if (found.size() != kCount)
            found.clear();
        return found;
    }

    // The name stands in the entry, as short as it is, and the pointer to it beside.
    void find_names(DentryLayout *at)
    {
        const auto wanted = [](uint64_t value, size_t i) { return value == beginning(kSubjects[i].name); };
        const auto direct = look(each(kDentrySize, 4, [&](int o) { return deref(o, entry_); }), "u32");
        const auto pointed = look(each(kDentrySize, word_, [&](int o) { return deref(0, deref(o, entry_)); }), "u32");
        for (size_t i = 0; !direct.empty() && i < direct[0].size() && at->inline_name < 0; i++)
            if (matches(direct, i, wanted))
                at->inline_name = static_cast<int>(i) * 4;
        for (size_t i = 0; !pointed.empty() && i < pointed[0].size() && at->name < 0; i++)
            if (matches(pointed, i, wanted))
                at->name = static_cast<int>(i) * word_;
    }

    void find_parent(DentryLayout *at)
    {
        const auto found =
            look(each(kDentrySize, word_, [&](int o) { return deref(0, deref(at->name, deref(o, entry_))); }), "u32");
        const auto wanted = [](uint64_t value, size_t i) {
            return cut(value, kSubjects[i].parent) == cut(beginning(kSubjects[i].parent), kSubjects[i].parent);
        };
        for (size_t i = 0; !found.empty() && i < found[0].size() && at->parent < 0; i++)
            if (matches(found, i, wanted))
                at->parent = static_cast<int>(i) * word_;
    }

    // Looks behind each pointer of the entry that `likely` takes for a number that `wanted` knows.
    template <typename Likely, typename Wanted>
    void find_behind(const std::vector<Values> &words, int size, Likely &&likely, Wanted &&wanted, int *pointer,
                     int *inner)
    {
        for (size_t i = 0; i < words[0].size() && *pointer < 0; i++) {
            if (!is_pointer(words[0][i], facts_) || !is_pointer(words[1][i], facts_) ||
                !likely(words[0][i] == words[1][i]))
                continue;
            const int offset = static_cast<int>(i) * word_;
            const auto found = look(each(size, 4, [&](int o) { return deref(o, deref(offset, entry_)); }), "u32");
            for (size_t j = 0; !found.empty() && j < found[0].size() && *pointer < 0; j++)
                if (matches(found, j, wanted)) {
                    *pointer = offset;
                    *inner = static_cast<int>(j) * 4;
                }
        }
    }

    void find_inode(const std::vector<Values> &words, DentryLayout *at)
    {
        find_behind(
            words, kInodeSize, [](bool same) { return !same; },
            [&](uint64_t value, size_t i) { return value == static_cast<uint32_t>(stats_[i].st_ino); }, &at->inode,
            &at->i_ino);
        if (at->inode < 0)
            return;
        // The first field of all: what kind of file it is.
        const auto found = look({deref(0, deref(at->inode, entry_))}, "u16");
        if (!found.empty() && matches(found, 0, [&](uint64_t value, size_t i) { return value == stats_[i].st_mode; }))
            at->i_mode = 0;
    }

    // Both subjects are on one file system.
    void find_super(const std::vector<Values> &words, DentryLayout *at)
    {
        const uint64_t device = uint64_t{major(stats_[0].st_dev)} << 20 | minor(stats_[0].st_dev);
        find_behind(
            words, kSuperSize, [](bool same) { return same; }, [&](uint64_t value, size_t) { return value == device; },
            &at->super, &at->s_dev);
    }

    const Tracefs &tracefs_;
    const Facts &facts_;
    const int word_;
    const std::string entry_;  // where the probed function has it
    struct stat stats_[kCount] = {};
};

// ---- marks ----

// An inotify descriptor of our own with a watch on each subject. Their numbers are large enough to be recognised.
class Watches
{
public:
    Watches() : fd_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK))
    {
        constexpr int kSkipped = 40;
        for (int i = 0; i < kSkipped; i++)
            inotify_rm_watch(fd_.get(), inotify_add_watch(fd_.get(), kSubjects[0].path, IN_OPEN));
        for (size_t i = 0; i < kCount; i++)
            wd[i] = inotify_add_watch(fd_.get(), kSubjects[i].path, IN_OPEN);
    }
    int wd[kCount] = {};

private:
    Fd fd_;
};

class MarkCalibration
{
public:
    MarkCalibration(const Tracefs &tracefs, const Facts &facts)
        : tracefs_(tracefs), facts_(facts), word_(static_cast<int>(facts.word())), mark_(argument_place(facts, 1))
    {
    }

    void find(MarkLayout *at)
    {
        std::vector<std::string> places;
        for (int offset = 0; offset < kMarkSize; offset += 4)
            places.push_back(deref(offset, mark_));
        const auto words = look(places, "u32");
        for (size_t i = 0; !words.empty() && i < words[0].size() && at->wd < 0; i++)
            if (matches(words, i, [&](uint64_t value, size_t n) { return static_cast<int>(value) == watches_.wd[n]; }))
                at->wd = static_cast<int>(i) * 4;
        for (int from = 0; from < kMarkSize && at->object < 0; from += word_ * kAtOnce)
            find_object(from, at);
    }

private:
    static constexpr int kAtOnce = 8;  // connectors tried in one experiment

    std::vector<Values> look(const std::vector<std::string> &places, const char *type)
    {
        auto found = experiment(tracefs_, "inotify_handle_inode_event", places, type, [] {
            for (const Subject &subject : kSubjects)
                Fd(open(subject.path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        });
        if (found.size() != kCount)
            found.clear();
        return found;
    }

    // The third argument is the inode; the connector's object points to it or into it, as far in both subjects.
    void find_object(int from, MarkLayout *at)
    {
        const int inner = kConnectorSize / word_;
        std::vector<std::string> places = {argument_place(facts_, 3)};
        for (int i = 0; i < kAtOnce; i++)
            for (int j = 0; j < inner; j++)
                places.push_back(deref(j * word_, deref(from + i * word_, mark_)));
        const auto found = look(places, "");
        for (size_t i = 1; !found.empty() && i < found[0].size() && at->object < 0; i++) {
            const uint64_t back = found[0][i] - found[0][0];
            if (!is_pointer(found[0][0], facts_) || back >= kInodeRoom || found[1][i] - found[1][0] != back)
                continue;
            at->connector = from + static_cast<int>(i - 1) / inner * word_;
            at->object = static_cast<int>(i - 1) % inner * word_;
            at->inode_back = static_cast<int>(back);
        }
    }

    const Tracefs &tracefs_;
    const Facts &facts_;
    const int word_;
    const std::string mark_;
    Watches watches_;
};

}  // namespace

void calibrate(const Tracefs &tracefs, Facts *out)
{
    if (out->has("security_inode_getattr"))
        EntryCalibration(tracefs, *out).find(&out->dentry);
    if (out->has("inotify_handle_inode_event"))
        MarkCalibration(tracefs, *out).find(&out->mark);
    const DentryLayout &d = out->dentry;
    const MarkLayout &m = out->mark;
    KP_LOG(
        3,
        "calibrated: parent %d, name %d, inode %d, super %d, inline %d, dev %d, mode %d, ino %d; wd %d, connector %d, "
        "object %d, back %d",
        d.parent, d.name, d.inode, d.super, d.inline_name, d.s_dev, d.i_mode, d.i_ino, m.wd, m.connector, m.object,
        m.inode_back);
}

}  // namespace kprobe
