#include "stranger.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

namespace systest
{

namespace
{

bool write_text(const char *path, const std::string &text)
{
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    bool written = fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (fd >= 0)
        close(fd);
    return written;
}

/* The kernel forgets the parent's death and hides a process's own /proc files when its ids change. */
bool become_stranger()
{
    return setgroups(0, nullptr) == 0 && setresgid(kStranger, kStranger, kStranger) == 0 &&
           setresuid(kStranger, kStranger, kStranger) == 0 && prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_DUMPABLE, 1) == 0 && prctl(PR_SET_PDEATHSIG, SIGKILL) == 0;
}

#ifdef __SANITIZE_THREAD__
/* A process with threads cannot change its user namespace, and the sanitizer's run-time has one: so a copy of the
 * process begins in a new one, and this process ends as that does. */
bool unshare_namespaces()
{
    const long copy = syscall(SYS_clone, CLONE_NEWUSER | CLONE_NEWNS | SIGCHLD, 0, 0, 0, 0);
    if (copy == 0)
        return prctl(PR_SET_PDEATHSIG, SIGKILL) == 0;
    int status = -1;
    waitpid(static_cast<pid_t>(copy), &status, 0);
    _exit(copy > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : 1);
}
#else
bool unshare_namespaces() { return unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0; }
#endif

bool enter_namespaces()
{
    std::string map = "0 " + std::to_string(kStranger) + " 1";
    return unshare_namespaces() && write_text("/proc/self/setgroups", "deny") &&
           write_text("/proc/self/uid_map", map) && write_text("/proc/self/gid_map", map) &&
           mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

/* Whether a child answers with true. */
bool child_says(const std::function<bool()> &question)
{
    pid_t child = fork();
    if (child == 0)
        _exit(question() ? 0 : 1);
    int status = -1;
    return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

/* A child begins with the failures that its parent has had. */
int failures()
{
    const testing::UnitTest &tests = *testing::UnitTest::GetInstance();
    const testing::TestInfo *test = tests.current_test_info();
    return (test ? *test->result() : tests.ad_hoc_test_result()).total_part_count();
}

void start_body(const Body &body)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int before = failures();
    body();
    fflush(nullptr);
    _exit(failures() > before ? 1 : 0);
}

}  // namespace

bool can_be_stranger()
{
    static const bool can = [] {
        testlib::TempTree tree;
        return testlib::is_root() && child_says([dir = strangers_dir(tree, "home")] {
                   return become_stranger() && mkdir((dir + "/made").c_str(), 0700) == 0;
               });
    }();
    return can;
}

bool can_have_namespace()
{
    static const bool can =
        can_be_stranger() && child_says([] {
            return become_stranger() && enter_namespaces() && mount("none", "/tmp", "tmpfs", 0, nullptr) == 0;
        });
    return can;
}

Body as_stranger(Body body)
{
    return [body = std::move(body)] {
        ASSERT_TRUE(become_stranger()) << strerror(errno);
        body();
    };
}

Body in_own_namespace(Body body)
{
    return as_stranger([body = std::move(body)] {
        ASSERT_TRUE(enter_namespaces()) << strerror(errno);
        body();
    });
}

std::string strangers_dir(testlib::TempTree &tree, const std::string &below)
{
    std::string dir = tree.dir(below);
    EXPECT_EQ(0, chmod(tree.root().c_str(), 0711));
    /* Where it fails the process is none that could become a stranger, either. */
    EXPECT_TRUE(chown(dir.c_str(), kStranger, kStranger) == 0 || !testlib::is_root()) << strerror(errno);
    return dir;
}

bool run(const Body &body, int ms)
{
    Background child(body);
    bool ended = child.wait(ms);
    EXPECT_TRUE(ended) << (child.runs() ? "it took too long" : "it failed");
    return ended;
}

Background::Background(const Body &body)
{
    fflush(nullptr); /* what is buffered would be printed twice */
    pid_ = fork();
    EXPECT_GE(pid_, 0) << strerror(errno);
    if (pid_ == 0)
        start_body(body);
}

Background::~Background()
{
    if (!reap(WNOHANG)) {
        kill(pid_, SIGKILL);
        reap(0);
    }
}

/* Whether it has ended. */
bool Background::reap(int options)
{
    if (status_ == -1 && waitpid(pid_, &status_, options) != pid_)
        status_ = -1;
    return status_ != -1;
}

bool Background::runs() { return !reap(WNOHANG); }

bool Background::wait(int ms)
{
    for (int64_t deadline = now_ms() + ms; !reap(WNOHANG) && now_ms() < deadline;)
        pause_ms(2);
    return status_ == 0;
}

/* ---- what he does ---- */

#define CHECK_CALL(call, path) EXPECT_EQ(0, call) << (path) << ": " << strerror(errno)

void bind_mount(const std::string &from, const std::string &to)
{
    CHECK_CALL(mount(from.c_str(), to.c_str(), nullptr, MS_BIND, nullptr), to);
}

void mount_tmpfs(const std::string &dir) { CHECK_CALL(mount("none", dir.c_str(), "tmpfs", 0, nullptr), dir); }
void unmount(const std::string &dir) { CHECK_CALL(umount2(dir.c_str(), MNT_DETACH), dir); }
void make_link(const std::string &target, const std::string &path)
{
    CHECK_CALL(symlink(target.c_str(), path.c_str()), path);
}

void exchange(const std::string &one, const std::string &other)
{
    CHECK_CALL(renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE), one);
}

int take_lease(const std::string &file, int type)
{
    signal(SIGIO, SIG_IGN);
    int fd = open(file.c_str(), (type == F_WRLCK ? O_RDWR : O_RDONLY) | O_CLOEXEC);
    EXPECT_GE(fd, 0) << file << ": " << strerror(errno);
    EXPECT_EQ(0, fcntl(fd, F_SETLEASE, type)) << file << ": " << strerror(errno);
    return fd;
}

}  // namespace systest
