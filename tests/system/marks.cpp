#include "marks.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "orx_fmon.h"

namespace fs = std::filesystem;

namespace systest
{

namespace
{

constexpr uint32_t kFanotifyKinds = FMON_ACCESS | FMON_MODIFY | FMON_CLOSE_WRITE | FMON_CLOSE_NOWRITE | FMON_OPEN;
constexpr uint32_t kSyncKinds =
    FMON_MOVED_FROM | FMON_MOVED_TO | FMON_CREATE | FMON_DELETE | FMON_DELETE_SELF | FMON_MOVE_SELF;
constexpr size_t kLongestPath = 1022, kLongestTold = 300;

/* The kernel shows a device in its own form, the major number from bit 20 on. */
Inode inode_of(const struct stat &st)
{
    return {static_cast<uint64_t>(major(st.st_dev)) << 20 | minor(st.st_dev), st.st_ino};
}

void take_line(const std::string &line, Marks &marks)
{
    unsigned long wd, inode, device, mask;
    if (sscanf(line.c_str(), "inotify wd:%lx ino:%lx sdev:%lx mask:%lx", &wd, &inode, &device, &mask) == 4)
        marks[{device, inode}].inotify |= static_cast<uint32_t>(mask) | 0x80000000U;
    unsigned long flags;
    if (sscanf(line.c_str(), "fanotify ino:%lx sdev:%lx mflags:%lx mask:%lx", &inode, &device, &flags, &mask) == 4)
        marks[{device, inode}].fanotify |= static_cast<uint32_t>(mask) | 0x80000000U;
}

void expect(const std::string &path, const Asked &watch, Marks &marks)
{
    struct stat st;
    if (path.size() > kLongestPath || lstat(path.c_str(), &st) != 0)
        return;
    Kinds &kinds = marks[inode_of(st)];
    kinds.path = path;
    kinds.fanotify |= watch.mask & kFanotifyKinds;
    kinds.inotify |= watch.mask & ~kFanotifyKinds;
    if (watch.flags & FMON_SYNC)
        kinds.inotify |= kSyncKinds;
    if (watch.flags & FMON_FILE)
        kinds.inotify_optional = 1;
}

std::string path_of(const Inode &inode, const std::string &root)
{
    std::error_code ignored;
    for (fs::recursive_directory_iterator at(root, ignored), end; at != end; at.increment(ignored)) {
        struct stat st;
        if (lstat(at->path().c_str(), &st) == 0 && inode_of(st) == inode)
            return at->path().string().substr(0, kLongestTold);
    }
    return "what has no name below " + root;
}

std::string hex(uint32_t mask)
{
    char text[16];
    snprintf(text, sizeof text, "%x", mask);
    return text;
}

/* One source's half. `marked` holds the top bit where there is a mark. */
void compare_kinds(const char *source, uint32_t wanted, uint32_t marked, bool optional, const std::string &path,
                   std::vector<std::string> &wrong)
{
    if (wanted & ~marked)
        wrong.push_back(std::string(source) + " misses " + hex(wanted & ~marked) + " on " + path);
    if (!wanted && marked && !optional)
        wrong.push_back(std::string(source) + " has " + hex(marked & FMON_ALL_EVENTS) + " on " + path);
}

}  // namespace

Marks actual_marks(pid_t process)
{
    Marks marks;
    std::error_code ignored;
    for (const auto &entry : fs::directory_iterator("/proc/" + std::to_string(process) + "/fdinfo", ignored)) {
        std::ifstream in(entry.path());
        for (std::string line; std::getline(in, line);)
            take_line(line, marks);
    }
    return marks;
}

Marks expected_marks(const std::vector<Asked> &watches)
{
    Marks marks;
    for (const Asked &watch : watches) {
        if (!(watch.flags & FMON_RECURSIVE))
            expect(watch.path, watch, marks);
        else
            for (const std::string &dir : directories(watch.path))
                expect(dir, watch, marks);
    }
    return marks;
}

std::vector<std::string> compare_marks(const Marks &expected, const Marks &actual, const std::string &root)
{
    std::vector<std::string> wrong;
    for (const auto &[inode, want] : expected) {
        const auto found = actual.find(inode);
        const Kinds have = found == actual.end() ? Kinds() : found->second;
        compare_kinds("fanotify", want.fanotify, have.fanotify, false, want.path, wrong);
        compare_kinds("inotify", want.inotify, have.inotify, want.inotify_optional, want.path, wrong);
    }
    for (const auto &[inode, have] : actual) {
        if (expected.contains(inode))
            continue;
        const std::string path = wrong.size() < 20 ? path_of(inode, root) : "another";
        compare_kinds("fanotify", 0, have.fanotify, false, path, wrong);
        compare_kinds("inotify", 0, have.inotify, false, path, wrong);
    }
    return wrong;
}

size_t count_marks(const Marks &marks)
{
    size_t count = 0;
    for (const auto &[inode, kinds] : marks)
        count += (kinds.fanotify != 0) + (kinds.inotify != 0);
    return count;
}

std::vector<std::string> directories(const std::string &top)
{
    std::vector<std::string> list = {top};
    std::error_code ignored;
    for (fs::recursive_directory_iterator at(top, ignored), end; at != end; at.increment(ignored))
        if (at->symlink_status(ignored).type() == fs::file_type::directory)
            list.push_back(at->path());
    return list;
}

}  // namespace systest
