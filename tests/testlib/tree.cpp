#include "testlib/tree.h"

#include <fcntl.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/fanotify.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace testlib
{

/* std::filesystem rather than the C library's calls: those are wrapped, and an armed switch must not see ours. */

TempTree::TempTree()
{
    std::string pattern = (fs::temp_directory_path() / "fmon-test-XXXXXX").string();
    if (!mkdtemp(pattern.data()))
        abort();
    root_ = fs::canonical(pattern).string();
}

TempTree::~TempTree()
{
    std::error_code ignored;
    fs::remove_all(root_, ignored);
}

std::string TempTree::path(const std::string &below) const { return below.empty() ? root_ : root_ + "/" + below; }

std::string TempTree::dir(const std::string &below)
{
    fs::create_directories(path(below));
    return path(below);
}

std::string TempTree::file(const std::string &below, const std::string &content)
{
    fs::create_directories(fs::path(path(below)).parent_path());
    std::ofstream(path(below), std::ios::binary) << content;
    return path(below);
}

std::string TempTree::link(const std::string &below, const std::string &target)
{
    fs::create_directories(fs::path(path(below)).parent_path());
    fs::create_symlink(target, path(below));
    return path(below);
}

void TempTree::remove(const std::string &below) { fs::remove_all(path(below)); }

std::vector<int> open_fd_list()
{
    std::vector<int> fds;
    for (const auto &entry : fs::directory_iterator("/proc/self/fd"))
        fds.push_back(atoi(entry.path().filename().c_str()));
    /* One of them was the listing's own; it is closed by now. */
    std::erase_if(fds, [](int fd) { return !fs::is_symlink("/proc/self/fd/" + std::to_string(fd)); });
    return fds;
}

int open_fds() { return static_cast<int>(open_fd_list().size()); }

bool is_root() { return geteuid() == 0; }

bool can_fanotify()
{
    int fd = fanotify_init(FAN_CLOEXEC | FAN_CLASS_NOTIF, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    close(fd);
    return true;
}

bool can_mount()
{
    pid_t child = fork();
    if (child == 0)
        _exit(unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
              mount("none", "/tmp", "tmpfs", 0, nullptr) != 0);
    int status = -1;
    return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

}  // namespace testlib
