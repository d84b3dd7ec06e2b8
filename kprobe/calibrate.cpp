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

    void find(DentryLayout &at)
    {
        find_names(at);
        if (at.name < 0)
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
    void find_names(DentryLayout &at)
    {
        const auto wanted = [](uint64_t value, size_t i) { return value == beginning(kSubjects[i].name); };
        const auto direct = look(each(kDentrySize, 4, [&](int o) { return deref(o, entry_); }), "u32");
        const auto pointed = look(each(kDentrySize, word_, [&](int o) { return deref(0, deref(o, entry_)); }), "u32");
        for (size_t i = 0; !direct.empty() && i < direct[0].size() && at.inline_name < 0; i++)
            if (matches(direct, i, wanted))
                at.inline_name = static_cast<int>(i) * 4;
        for (size_t i = 0; !pointed.empty() && i < pointed[0].size() && at.name < 0; i++)
            if (matches(pointed, i, wanted))
                at.name = static_cast<int>(i) * word_;
    }

    void find_parent(DentryLayout &at)
    {
        const auto found =
            look(each(kDentrySize, word_, [&](int o) { return deref(0, deref(at.name, deref(o, entry_))); }), "u32");
        const auto wanted = [](uint64_t value, size_t i) {
            return cut(value, kSubjects[i].parent) == cut(beginning(kSubjects[i].parent), kSubjects[i].parent);
        };
        for (size_t i = 0; !found.empty() && i < found[0].size() && at.parent < 0; i++)
            if (matches(found, i, wanted))
                at.parent = static_cast<int>(i) * word_;
    }

    // Looks behind each pointer of the entry that `likely` takes for a number that `wanted` knows.
    template <typename Likely, typename Wanted>
    void find_behind(const std::vector<Values> &words, int size, Likely &&likely, Wanted &&wanted, int &pointer,
                     int &inner)
    {
        for (size_t i = 0; i < words[0].size() && pointer < 0; i++) {
            if (!is_pointer(words[0][i], facts_) || !is_pointer(words[1][i], facts_) ||
                !likely(words[0][i] == words[1][i]))
                continue;
            const int offset = static_cast<int>(i) * word_;
            const auto found = look(each(size, 4, [&](int o) { return deref(o, deref(offset, entry_)); }), "u32");
            for (size_t j = 0; !found.empty() && j < found[0].size() && pointer < 0; j++)
                if (matches(found, j, wanted)) {
                    pointer = offset;
                    inner = static_cast<int>(j) * 4;
                }
        }
    }

    void find_inode(const std::vector<Values> &words, DentryLayout &at)
    {
        find_behind(
            words, kInodeSize, [](bool same) { return !same; },
            [&](uint64_t value, size_t i) { return value == static_cast<uint32_t>(stats_[i].st_ino); }, at.inode,
            at.i_ino);
        if (at.inode < 0)
            return;
        // The first field of all: what kind of file it is.
        const auto found = look({deref(0, deref(at.inode, entry_))}, "u16");
        if (!found.empty() && matches(found, 0, [&](uint64_t value, size_t i) { return value == stats_[i].st_mode; }))
            at.i_mode = 0;
    }

    // Both subjects are on one file system.
    void find_super(const std::vector<Values> &words, DentryLayout &at)
    {
        const uint64_t device = uint64_t{major(stats_[0].st_dev)} << 20 | minor(stats_[0].st_dev);
        find_behind(
            words, kSuperSize, [](bool same) { return same; }, [&](uint64_t value, size_t) { return value == device; },
            at.super, at.s_dev);
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
        std::vector<std::string> places;
        for (int offset = 0; offset < kMarkSize; offset += 4)
            places.push_back(deref(offset, mark_));
        const auto words = look(places, "u32");
        for (size_t i = 0; !words.empty() && i < words[0].size() && at.wd < 0; i++)
            if (matches(words, i, [&](uint64_t value, size_t n) { return static_cast<int>(value) == watches_.wd[n]; }))
                at.wd = static_cast<int>(i) * 4;
        for (int from = 0; from < kMarkSize && at.object < 0; from += word_ * kAtOnce)
            find_object(from, at);
        find_group(at);
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
    void find_object(int from, MarkLayout &at)
    {
        const int inner = kConnectorSize / word_;
        std::vector<std::string> places = {argument_place(facts_, 3)};
        for (int i = 0; i < kAtOnce; i++)
            for (int j = 0; j < inner; j++)
                places.push_back(deref(j * word_, deref(from + i * word_, mark_)));
        const auto found = look(places, "");
        for (size_t i = 1; !found.empty() && i < found[0].size() && at.object < 0; i++) {
            const uint64_t back = found[0][i] - found[0][0];
            if (!is_pointer(found[0][0], facts_) || back >= kInodeRoom || found[1][i] - found[1][0] != back)
                continue;
            at.connector = from + static_cast<int>(i - 1) / inner * word_;
            at.object = static_cast<int>(i - 1) % inner * word_;
            at.inode_back = static_cast<int>(back);
        }
    }

    std::vector<std::string> words_behind(const std::string &place, int size) const
    {
        std::vector<std::string> places;
        for (int offset = 0; offset < size; offset += word_)
            places.push_back(deref(offset, place));
        return places;
    }

    // What both marks and the descriptor's open file point to is the inotify instance. The first place counts: behind a
    // small kernel's mark lies another one of the same instance.
    void find_group(MarkLayout &at)
    {
        const auto marks = look(words_behind(mark_, kMarkSize), "");
        const auto file = experiment(tracefs_, kFilePoint, words_behind(argument_place(facts_, 1), kFileSize), "",
                                     [this] { ask_queue(watches_.fd()); });
        for (size_t i = 0; file.size() == 1 && !marks.empty() && i < marks[0].size(); i++)
            for (size_t j = 0; j < file[0].size(); j++) {
                if (!is_pointer(marks[0][i], facts_) || marks[1][i] != marks[0][i] || file[0][j] != marks[0][i])
                    continue;
                at.group = static_cast<int>(i) * word_;
                at.file_group = static_cast<int>(j) * word_;
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
            tracefs, kFilePoint, {deref(0, argument_place(facts, 2))}, "", [&] { ask_queue(queue.get()); }, &missed);
    return missed != 0;
}

}  // namespace kprobe
