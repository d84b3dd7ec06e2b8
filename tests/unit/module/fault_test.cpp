/*
 * The fault switches' own tests: a switch that does not switch would make every fault test pass.
 */
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/fanotify.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <set>
#include <thread>

#include "orx_base.h"
#include "testlib/fake_host.h"
#include "testlib/fault.h"
#include "testlib/records.h"
#include "testlib/tree.h"

using namespace testlib;

namespace
{

/* The compiler may drop an allocation whose result nobody sees. */
void *volatile seen;
void *volatile no_block; /* realloc(nullptr, n) known at compile time becomes malloc(n) */

bool allocated(void *block)
{
    seen = block;
    free(block);
    return seen != nullptr;
}

/* ---- one row a call: does it succeed? ---- */

struct CallRow {
    const char *name;
    bool (*works)();
};

using fanotify_init_fn = int (*)(unsigned, unsigned);
using fanotify_mark_fn = int (*)(int, unsigned, uint64_t, int, const char *);

template <typename Fn>
Fn looked_up(const char *name)
{
    return reinterpret_cast<Fn>(dlsym(RTLD_DEFAULT, name));
}

bool try_fd(int fd)
{
    if (fd < 0)
        return false;
    close(fd);
    return true;
}

bool try_inotify_watch()
{
    int fd = inotify_init();
    int wd = inotify_add_watch(fd, "/", IN_CREATE);
    int saved = errno;
    close(fd);
    errno = saved;
    return wd >= 0;
}

bool try_inotify_remove()
{
    int fd = inotify_init();
    int result = inotify_rm_watch(fd, inotify_add_watch(fd, "/", IN_CREATE));
    int saved = errno;
    close(fd);
    errno = saved;
    return result == 0;
}

bool try_select()
{
    struct timeval none = {};
    return select(0, nullptr, nullptr, nullptr, &none) == 0;
}

bool try_read()
{
    Pipe pipe;
    pipe.put("x");
    char c;
    return read(pipe.read_fd(), &c, 1) == 1;
}

bool try_readlink()
{
    char out[64];
    return readlink("/proc/self", out, sizeof out) > 0;
}

bool try_realpath()
{
    char out[PATH_MAX];
    return realpath("/", out) != nullptr;
}

bool try_stat()
{
    struct stat st;
    return stat("/", &st) == 0;
}

bool try_lstat()
{
    struct stat st;
    return lstat("/", &st) == 0;
}

bool try_statx()
{
    struct statx out;
    return statx(0, "", AT_EMPTY_PATH, STATX_MODE, &out) == 0;
}

bool try_fstat()
{
    struct stat st;
    return fstat(0, &st) == 0;
}

bool try_opendir()
{
    DIR *dir = opendir("/");
    if (dir)
        closedir(dir);
    return dir != nullptr;
}

bool try_readdir()
{
    DIR *dir = opendir("/");
    bool read_one = readdir(dir) != nullptr;
    int saved = errno;
    closedir(dir);
    errno = saved;
    return read_one;
}

bool try_uname()
{
    struct utsname name;
    return uname(&name) == 0;
}

bool try_fgets()
{
    char line[128];
    FILE *file = fopen("/proc/self/status", "r");
    bool read_one = fgets(line, sizeof line, file) != nullptr;
    int saved = errno;
    fclose(file);
    errno = saved;
    return read_one;
}

bool try_fopen()
{
    FILE *file = fopen("/dev/null", "r");
    if (file)
        fclose(file);
    return file != nullptr;
}

const CallRow rows[] = {
    {"malloc", [] { return allocated(malloc(16)); }},
    {"calloc", [] { return allocated(calloc(2, 8)); }},
    {"realloc", [] { return allocated(realloc(no_block, 16)); }},
    {"inotify_init", [] { return try_fd(inotify_init()); }},
    {"inotify_add_watch", try_inotify_watch},
    {"inotify_rm_watch", try_inotify_remove},
    {"select", try_select},
    {"read", try_read},
    {"readlink", try_readlink},
    {"realpath", try_realpath},
    {"stat", try_stat},
    {"lstat", try_lstat},
    {"fstat", try_fstat},
    {"statx", try_statx},
    {"opendir", try_opendir},
    {"readdir", try_readdir},
    {"closedir", [] { return closedir(opendir("/")) == 0; }},
    {"uname", try_uname},
    {"prctl", [] { return prctl(PR_SET_NAME, "testlib", 0, 0, 0) == 0; }},
    {"dlopen", [] { return dlopen(nullptr, RTLD_LAZY) != nullptr; }},
    {"dlsym", [] { return dlsym(RTLD_DEFAULT, "strlen") != nullptr; }},
    {"close", [] { return close(dup(0)) == 0; }},
    {"fopen", try_fopen},
    {"fgets", try_fgets},
    {"open", [] { return try_fd(open("/dev/null", O_RDONLY)); }},
    {"fcntl", [] { return fcntl(0, F_GETFD) >= 0; }},
};

class EachCall : public testing::TestWithParam<CallRow>
{
};

TEST_P(EachCall, WorksUntouched) { EXPECT_TRUE(GetParam().works()) << strerror(errno); }

TEST_P(EachCall, FailsOnceWithItsErrno)
{
    Fault fault(GetParam().name, 1, EXDEV);
    EXPECT_FALSE(GetParam().works());
    EXPECT_EQ(EXDEV, errno);
    EXPECT_TRUE(fault.hit());
    EXPECT_TRUE(GetParam().works());
    EXPECT_EQ(2, fault.calls());
}

TEST_P(EachCall, FailsAtTheCallAsked)
{
    Fault fault(GetParam().name, 3, EIO, 2);
    std::string outcome;
    for (int i = 0; i < 6; i++) {
        EXPECT_EQ(fault.hit(), i >= 3);
        outcome += GetParam().works() ? '1' : '0';
    }
    EXPECT_EQ("110011", outcome);
}

TEST_P(EachCall, LeavesNoDescriptorBehind)
{
    int before = open_fds();
    {
        Fault fault(GetParam().name);
        GetParam().works();
    }
    EXPECT_EQ(open_fds(), before);
}

INSTANTIATE_TEST_SUITE_P(Testlib, EachCall, testing::ValuesIn(rows),
                         [](const auto &row) { return std::string(row.param.name); });

/* ---- switches ---- */

TEST(Fault, IsGoneWithItsScope)
{
    {
        Fault fault("stat", 1, EIO, 1000);
        EXPECT_FALSE(try_stat());
    }
    EXPECT_TRUE(try_stat());
}

TEST(Fault, CountsTheArmingThreadOnly)
{
    Fault fault("stat", 1, EIO);
    CallCount count("stat");
    bool other = false;
    std::thread([&] { other = try_stat(); }).join();
    EXPECT_TRUE(other);
    EXPECT_EQ(0, fault.calls());
    EXPECT_FALSE(try_stat());
    EXPECT_EQ(1, fault.calls());
    EXPECT_EQ(1, count.calls());
}

TEST(Fault, ReachesAllThreadsWhenAsked)
{
    Fault fault("stat", 1, EIO, 1, ThreadScope::kAll);
    bool other = true;
    std::thread([&] { other = try_stat(); }).join();
    EXPECT_FALSE(other);
    EXPECT_TRUE(try_stat());
}

TEST(Fault, TwoOfOneNameCountEachForItself)
{
    Fault first("stat", 1, EIO);
    EXPECT_FALSE(try_stat());
    Fault second("stat", 2, EXDEV);
    EXPECT_TRUE(try_stat());
    EXPECT_FALSE(try_stat());
    EXPECT_EQ(EXDEV, errno);
    EXPECT_EQ(3, first.calls());
}

TEST(Fault, CountOnlyFailsNothing)
{
    CallCount count("close");
    EXPECT_TRUE(try_fd(dup(0)));
    EXPECT_TRUE(try_fd(dup(0)));
    EXPECT_EQ(2, count.calls());
}

TEST(Fault, FailEachWalksThroughEveryCall)
{
    std::set<int> failed_at;
    int hits = fail_each("calloc", ENOMEM, [&](Fault &) {
        for (int i = 0; i < 4; i++)
            if (!allocated(calloc(1, 8)))
                failed_at.insert(i);
    });
    EXPECT_EQ(4, hits);
    EXPECT_EQ((std::set<int>{0, 1, 2, 3}), failed_at);
}

TEST(Fault, FailedLookUpsLeaveAText)
{
    {
        Fault fault("dlopen");
        EXPECT_EQ(nullptr, dlopen(nullptr, RTLD_LAZY));
        EXPECT_NE(nullptr, dlerror());
    }
    Fault fault("dlsym");
    EXPECT_EQ(nullptr, dlsym(RTLD_DEFAULT, "strlen"));
    EXPECT_NE(nullptr, dlerror());
}

TEST(Fault, OpenPassesItsModeOn)
{
    TempTree tree;
    umask(022);
    EXPECT_TRUE(try_fd(open(tree.path("new").c_str(), O_WRONLY | O_CREAT | O_EXCL, 0640)));
    struct stat st;
    ASSERT_EQ(0, stat(tree.path("new").c_str(), &st));
    EXPECT_EQ(0640U, st.st_mode & 0777);
}

TEST(Fault, FcntlPassesItsArgumentOn)
{
    int fd = fcntl(0, F_DUPFD_CLOEXEC, 200);
    EXPECT_GE(fd, 200);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    close(fd);
}

/* ---- fanotify, found through dlsym ---- */

TEST(Fanotify, IsCountedAndFailedBehindDlsym)
{
    auto init = looked_up<fanotify_init_fn>("fanotify_init");
    auto mark = looked_up<fanotify_mark_fn>("fanotify_mark");
    ASSERT_NE(nullptr, init);
    ASSERT_NE(nullptr, mark);
    Fault init_fault("fanotify_init", 1, EMFILE);
    EXPECT_EQ(-1, init(0, 0));
    EXPECT_EQ(EMFILE, errno);
    Fault mark_fault("fanotify_mark", 2, ENOSPC);
    EXPECT_EQ(-1, mark(-1, FAN_MARK_ADD, FAN_OPEN, AT_FDCWD, "/"));
    EXPECT_NE(ENOSPC, errno); /* the kernel's own refusal */
    EXPECT_EQ(-1, mark(-1, FAN_MARK_ADD, FAN_OPEN, AT_FDCWD, "/"));
    EXPECT_EQ(ENOSPC, errno);
}

TEST(Fanotify, WorksUntouched)
{
    NEED(can_fanotify(), "fanotify needs root");
    int fd = looked_up<fanotify_init_fn>("fanotify_init")(FAN_CLOEXEC, O_RDONLY);
    ASSERT_GE(fd, 0);
    TempTree tree;
    auto mark = looked_up<fanotify_mark_fn>("fanotify_mark");
    EXPECT_EQ(0, mark(fd, FAN_MARK_ADD, FAN_CLOSE_WRITE | FAN_EVENT_ON_CHILD, AT_FDCWD, tree.root().c_str()));
    close(fd);
}

/* ---- replacements ---- */

TEST(Replaced, DlopenAndDlsymAnswerForTheTest)
{
    static int library;
    replace_dlopen([](const char *path, int flags) -> void * {
        return strcmp(path, "lib-of-the-test.so") ? dlopen(path, flags) : &library;
    });
    replace_dlsym([](void *handle, const char *symbol) -> void * {
        if (handle == &library)
            return nullptr;
        return dlsym(handle, symbol);
    });
    EXPECT_EQ(dlopen("lib-of-the-test.so", RTLD_LAZY), &library);
    EXPECT_EQ(nullptr, dlopen("no-such-library.so", RTLD_LAZY));
    EXPECT_EQ(nullptr, dlsym(&library, "strlen"));
    EXPECT_NE(nullptr, dlsym(RTLD_DEFAULT, "strlen"));
    EXPECT_EQ(0, orx_dll_close(&library));
    EXPECT_EQ(1, dll_closes());
    replace_dlopen(nullptr);
    replace_dlsym(nullptr);
    EXPECT_EQ(nullptr, dlopen("lib-of-the-test.so", RTLD_LAZY));
    reset_host();
}

TEST(Replaced, UnameAnswersForTheTest)
{
    replace_uname([](void *out) {
        uname(static_cast<struct utsname *>(out));
        strcpy(static_cast<struct utsname *>(out)->release, "4.19.0-1");
        return 0;
    });
    struct utsname name;
    EXPECT_EQ(0, uname(&name));
    EXPECT_STREQ("4.19.0-1", name.release);
    replace_uname(nullptr);
    EXPECT_EQ(0, uname(&name));
    EXPECT_STRNE("4.19.0-1", name.release);
}

TEST(Replaced, OpensGoWhereTheyAreSent)
{
    TempTree tree;
    redirect_path("/proc/self/mountinfo", tree.file("mounts", "line\n"));
    redirect_path("/nowhere", tree.dir("sub"));
    char text[16] = "";
    FILE *file = fopen("/proc/self/mountinfo", "r");
    ASSERT_NE(nullptr, file);
    EXPECT_STREQ("line\n", fgets(text, sizeof text, file));
    fclose(file);
    int fd = open("/proc/self/mountinfo", O_RDONLY);
    EXPECT_EQ(5, read(fd, text, sizeof text));
    close(fd);
    DIR *dir = opendir("/nowhere");
    EXPECT_NE(nullptr, dir);
    closedir(dir);
    clear_redirects();
    EXPECT_EQ(nullptr, opendir("/nowhere"));
}

TEST(Replaced, EntryTypesCanBeHidden)
{
    TempTree tree;
    tree.file("a");
    for (bool hidden : {true, false}) {
        hide_entry_types(hidden);
        DIR *dir = opendir(tree.root().c_str());
        for (struct dirent *entry; (entry = readdir(dir));)
            EXPECT_EQ(entry->d_type == DT_UNKNOWN, hidden) << entry->d_name;
        closedir(dir);
    }
}

}  // namespace
