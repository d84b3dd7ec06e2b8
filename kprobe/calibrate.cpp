#include "calibrate.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "common/fd.h"

#include "experiment.h"
#include "groups.h"
#include "log.h"
#include "places.h"
#include "tracefs.h"

namespace kprobe
{

namespace
{

constexpr int kDentrySize = 128, kSuperSize = 64, kInodeSize = 96, kMarkSize = 96, kConnectorSize = 40, kFileSize = 384;
constexpr uint64_t kInodeRoom = 2048;  // no inode is larger before the file system's own part

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

// Values that follow each other: what stands at the offsets 0, step, 2 * step and so on of one thing.
struct Run {
    size_t first, count;
    int step;
};

template <typename Place>
Run add_run(Fetches &fetches, int size, int step, const char *type, Place &&place)
{
    const Run run = {fetches.size(), static_cast<size_t>(size / step), step};
    for (int offset = 0; offset < size; offset += step)
        fetches.push_back({place(offset), type});
    return run;
}

// The first offset at which stands what is wanted; kUnknown: none, or nothing was found.
template <typename Wanted>
int offset_of(const std::vector<Values> &found, const Run &run, Wanted &&wanted)
{
    for (size_t i = 0; !found.empty() && i < run.count; i++)
        if (matches(found, run.first + i, wanted))
            return static_cast<int>(i) * run.step;
    return kUnknown;
}

// The offsets at which both subjects have a pointer: the same one, or each its own.
std::vector<int> pointers(const Facts &facts, const std::vector<Values> &found, const Run &words, bool same)
{
    std::vector<int> offsets;
    for (size_t i = words.first; i < words.first + words.count; i++)
        if (is_pointer(found[0][i], facts) && is_pointer(found[1][i], facts) && (found[0][i] == found[1][i]) == same)
            offsets.push_back(static_cast<int>(i - words.first) * words.step);
    return offsets;
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

    // The name stands in the entry, as short as it is, and the pointer to it beside.
    void find(DentryLayout &at)
    {
        Fetches fetches;
        const Run direct = add_run(fetches, kDentrySize, 4, "u32", [&](int o) { return deref(o, entry_); });
        const Run pointed =
            add_run(fetches, kDentrySize, word_, "u32", [&](int o) { return deref(0, deref(o, entry_)); });
        const Run words = add_run(fetches, kDentrySize, word_, "", [&](int o) { return deref(o, entry_); });
        const std::vector<Values> found = look(fetches);
        const auto wanted = [](uint64_t value, size_t i) { return value == beginning(kSubjects[i].name); };
        at.inline_name = offset_of(found, direct, wanted);
        at.name = offset_of(found, pointed, wanted);
        if (at.name < 0)
            return;
        find_parent(at);
        find_inode(pointers(facts_, found, words, false), at);
        find_super(pointers(facts_, found, words, true), at);
    }

private:
    // Empty unless there was one hit of each subject.
    std::vector<Values> look(const Fetches &fetches)
    {
        auto found = experiment(tracefs_, "security_inode_getattr", fetches, [] {
            struct stat st;
            for (const Subject &subject : kSubjects)
                stat(subject.path, &st);
        });
        if (found.size() != kCount)
            found.clear();
        return found;
    }

    void find_parent(DentryLayout &at)
    {
        Fetches fetches;
        const Run names = add_run(fetches, kDentrySize, word_, "u32",
                                  [&](int o) { return deref(0, deref(at.name, deref(o, entry_))); });
        at.parent = offset_of(look(fetches), names, [](uint64_t value, size_t i) {
            return cut(value, kSubjects[i].parent) == cut(beginning(kSubjects[i].parent), kSubjects[i].parent);
        });
    }

    struct Behind {
        int pointer = kUnknown, inner = kUnknown;
        std::vector<uint32_t> heads;  // what the pointer of each subject points to begins with
    };

    // Behind which of these pointers, and how far, stands a number that `wanted` knows.
    template <typename Wanted>
    Behind find_behind(const std::vector<int> &pointers, int size, Wanted &&wanted)
    {
        const size_t at_once = kMostFetches / (static_cast<size_t>(size) / 4);
        for (size_t begin = 0; begin < pointers.size(); begin += at_once) {
            Fetches fetches;
            std::vector<Run> runs;
            for (size_t i = begin; i < std::min(begin + at_once, pointers.size()); i++)
                runs.push_back(
                    add_run(fetches, size, 4, "u32", [&](int o) { return deref(o, deref(pointers[i], entry_)); }));
            const std::vector<Values> found = look(fetches);
            for (size_t i = 0; i < runs.size(); i++) {
                const int inner = offset_of(found, runs[i], wanted);
                if (inner < 0)
                    continue;
                Behind behind = {pointers[begin + i], inner, {}};
                for (const Values &values : found)
                    behind.heads.push_back(static_cast<uint32_t>(values[runs[i].first]));
                return behind;
            }
        }
        return {};
    }

    void find_inode(const std::vector<int> &pointers, DentryLayout &at)
    {
        const Behind inode = find_behind(pointers, kInodeSize, [&](uint64_t value, size_t i) {
            return value == static_cast<uint32_t>(stats_[i].st_ino);
        });
        at.inode = inode.pointer;
        at.i_ino = inode.inner;
        if (at.inode < 0)
            return;
        // The first field of all: what kind of file it is.
        for (size_t i = 0; i < kCount; i++)
            if (static_cast<uint16_t>(inode.heads[i]) != stats_[i].st_mode)
                return;
        at.i_mode = 0;
    }

    // Both subjects are on one file system.
    void find_super(const std::vector<int> &pointers, DentryLayout &at)
    {
        const uint64_t device = uint64_t{major(stats_[0].st_dev)} << 20 | minor(stats_[0].st_dev);
        const Behind super = find_behind(pointers, kSuperSize, [&](uint64_t value, size_t) { return value == device; });
        at.super = super.pointer;
        at.s_dev = super.inner;
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
    int fd() const { return fd_.get(); }

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

    void find(MarkLayout &at)
    {
        Fetches fetches;
        const Run numbers = add_run(fetches, kMarkSize, 4, "u32", [&](int o) { return deref(o, mark_); });
        const Run words = add_run(fetches, kMarkSize, word_, "", [&](int o) { return deref(o, mark_); });
        const std::vector<Values> found = look(fetches);
        at.wd = offset_of(found, numbers,
                          [&](uint64_t value, size_t i) { return static_cast<int>(value) == watches_.wd[i]; });
        if (found.empty())
            return;
        find_object(pointers(facts_, found, words, false), at);
        find_group(found, words, at);
    }

private:
    std::vector<Values> look(const Fetches &fetches)
    {
        auto found = experiment(tracefs_, "inotify_handle_inode_event", fetches, [] {
            for (const Subject &subject : kSubjects)
                Fd(open(subject.path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        });
        if (found.size() != kCount)
            found.clear();
        return found;
    }

    // The third argument is the inode; the connector's object points to it or into it, as far in both subjects.
    void find_object(const std::vector<int> &connectors, MarkLayout &at)
    {
        const size_t at_once = (kMostFetches - 1) / static_cast<size_t>(kConnectorSize / word_);
        for (size_t begin = 0; begin < connectors.size() && at.object < 0; begin += at_once) {
            Fetches fetches = {{argument_place(facts_, 3), ""}};
            std::vector<Run> runs;
            for (size_t i = begin; i < std::min(begin + at_once, connectors.size()); i++)
                runs.push_back(add_run(fetches, kConnectorSize, word_, "",
                                       [&](int o) { return deref(o, deref(connectors[i], mark_)); }));
            const auto found = look(fetches);
            if (found.empty() || !is_pointer(found[0][0], facts_))
                continue;
            for (size_t i = 0; i < runs.size() && at.object < 0; i++)
                if (leads_back(found, runs[i], at))
                    at.connector = connectors[begin + i];
        }
    }

    // The first value is the inode.
    static bool leads_back(const std::vector<Values> &found, const Run &run, MarkLayout &at)
    {
        for (size_t i = run.first; i < run.first + run.count; i++) {
            const uint64_t back = found[0][i] - found[0][0];
            if (back >= kInodeRoom || found[1][i] - found[1][0] != back)
                continue;
            at.object = static_cast<int>(i - run.first) * run.step;
            at.inode_back = static_cast<int>(back);
            return true;
        }
        return false;
    }

    // What both marks and the descriptor's open file point to is the inotify instance. The first place counts: behind a
    // small kernel's mark lies another one of the same instance.
    void find_group(const std::vector<Values> &marks, const Run &words, MarkLayout &at)
    {
        const std::string file = argument_place(facts_, 1);
        Fetches fetches;
        const Run pointers = add_run(fetches, kFileSize, word_, "", [&](int o) { return deref(o, file); });
        const auto found = experiment(tracefs_, kFilePoint, fetches, [this] { ask_queue(watches_.fd()); });
        for (size_t i = 0; found.size() == 1 && i < words.count; i++) {
            const uint64_t group = marks[0][words.first + i];
            const auto begin = found[0].begin(), end = begin + static_cast<ptrdiff_t>(pointers.count),
                       same = std::find(begin, end, group);
            if (!is_pointer(group, facts_) || marks[1][words.first + i] != group || same == end)
                continue;
            at.group = static_cast<int>(i) * word_;
            at.file_group = static_cast<int>(same - begin) * word_;
            return;
        }
    }

    const Tracefs &tracefs_;
    const Facts &facts_;
    const int word_;
    const std::string mark_;
    Watches watches_;
};

}  // namespace

void calibrate(const Tracefs &tracefs, Facts &out)
{
    if (out.has("security_inode_getattr"))
        EntryCalibration(tracefs, out).find(out.dentry);
    if (out.has("inotify_handle_inode_event"))
        MarkCalibration(tracefs, out).find(out.mark);
    const DentryLayout &d = out.dentry;
    const MarkLayout &m = out.mark;
    KP_LOG(
        3,
        "calibrated: parent %d, name %d, inode %d, super %d, inline %d, dev %d, mode %d, ino %d; wd %d, connector %d, "
        "object %d, back %d, group %d and %d",
        d.parent, d.name, d.inode, d.super, d.inline_name, d.s_dev, d.i_mode, d.i_ino, m.wd, m.connector, m.object,
        m.inode_back, m.group, m.file_group);
}

// The second argument is the question, FIONREAD: a number that is no address.
bool counts_failed_fetches(const Tracefs &tracefs, const Facts &facts)
{
    const Fd queue(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    uint64_t missed = 0;
    if (queue)
        experiment(
            tracefs, kFilePoint, {{deref(0, argument_place(facts, 2)), ""}}, [&] { ask_queue(queue.get()); }, &missed);
    return missed != 0;
}

}  // namespace kprobe
