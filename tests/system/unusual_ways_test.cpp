/*
 * Ways to change files that programs seldom take, and that somebody who wants not to be seen may: what is reported of
 * each, by both sources. What is not reported stands in docs/limits.md.
 */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "file_systems.h"

using namespace systest;
using testlib::TempTree;

namespace
{

/* A file of the watched directory that is open, for as long as the object lives. */
class Opened
{
public:
    Opened(const std::string &path, int flags) : fd_(open(path.c_str(), flags | O_CLOEXEC, 0600))
    {
        EXPECT_GE(fd_, 0) << path << strerror(errno);
    }
    ~Opened() { close(fd_); }
    Opened(const Opened &) = delete;
    Opened &operator=(const Opened &) = delete;
    operator int() const { return fd_; }

private:
    int fd_;
};

void write_to(int fd) { EXPECT_EQ(1, write(fd, "x", 1)) << strerror(errno); }

void write_at(const std::string &path) { write_to(Opened(path, O_WRONLY)); }

void store_mapped(const std::string &path)
{
    const Opened file(path, O_RDWR);
    void *const at = mmap(nullptr, 1, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    ASSERT_NE(MAP_FAILED, at);
    *static_cast<volatile char *>(at) = 'x';
    munmap(at, 1);
}

void copy_within_the_kernel(const std::string &from, const std::string &path)
{
    const Opened source(from, O_RDONLY), file(path, O_WRONLY);
    EXPECT_EQ(1, copy_file_range(source, nullptr, file, nullptr, 1, 0)) << strerror(errno);
}

void send(const std::string &from, const std::string &path)
{
    const Opened source(from, O_RDONLY), file(path, O_WRONLY);
    EXPECT_EQ(1, sendfile(file, source, nullptr, 1)) << strerror(errno);
}

void splice_into(const std::string &path)
{
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    write_to(ends[1]);
    EXPECT_EQ(1, splice(ends[0], nullptr, Opened(path, O_WRONLY), nullptr, 1, 0)) << strerror(errno);
    close(ends[0]);
    close(ends[1]);
}

void name_what_had_no_name(const std::string &dir, const std::string &path)
{
    const Opened file(dir, O_TMPFILE | O_WRONLY);
    const std::string link = "/proc/self/fd/" + std::to_string(int{file});
    EXPECT_EQ(0, linkat(AT_FDCWD, link.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW)) << strerror(errno);
}

void write_in_a_root_of_its_own(const std::string &root, const std::string &path)
{
    const pid_t pid = fork();
    if (pid == 0)
        _exit(chroot(root.c_str()) != 0 || (write_at(path), testing::Test::HasFailure()));
    int status = -1;
    EXPECT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_EQ(0, status);
}

/* In a mount namespace whose root is that directory, bound to itself. */
void write_behind_a_pivot(const std::string &root, const std::string &path)
{
    ASSERT_EQ(0, unshare(CLONE_NEWNS)) << strerror(errno);
    ASSERT_EQ(0, mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr)) << strerror(errno);
    ASSERT_EQ(0, mount(root.c_str(), root.c_str(), nullptr, MS_BIND, nullptr)) << strerror(errno);
    ASSERT_EQ(0, chdir(root.c_str())) << strerror(errno);
    if (syscall(SYS_pivot_root, ".", ".") == 0) {
        ASSERT_EQ(0, umount2(".", MNT_DETACH)) << strerror(errno);
    } else { /* the root of an initramfs stays, and is covered */
        ASSERT_EQ(EINVAL, errno);
        ASSERT_EQ(0, mount(".", "/", nullptr, MS_MOVE, nullptr)) << strerror(errno);
        ASSERT_EQ(0, chroot(".")) << strerror(errno);
    }
    write_at(path);
}

class UnusualWays : public FileSystems
{
protected:
    static constexpr char kKinds[] = "create,modify,close_write,attrib";
    std::string at(const std::string &name) const { return dir + "/" + name; }
    void make_files()
    {
        for (const char *name : {"mapped", "copied", "sent", "spliced", "cut", "by root", "by pid", "in chroot",
                                 "pivoted", "xattr", "times", "source"})
            write_to(Opened(at(name), O_WRONLY | O_CREAT));
        make_file(other);
    }
    void take_all()
    {
        store_mapped(at("mapped"));
        copy_within_the_kernel(at("source"), at("copied"));
        send(at("source"), at("sent"));
        splice_into(at("spliced"));
        EXPECT_EQ(0, truncate(at("cut").c_str(), 0));
        write_at("/proc/self/root" + at("by root"));
        write_at("/proc/" + std::to_string(getpid()) + "/root" + at("by pid"));
        write_in_a_root_of_its_own(dir, "/in chroot");
        elsewhere.emplace([this] { write_behind_a_pivot(dir, "/pivoted"); });
        name_what_had_no_name(dir, at("unnamed"));
        EXPECT_EQ(0, link(other.c_str(), at("from outside").c_str()));
        write_at(other);
        if (setxattr(at("xattr").c_str(), "user.x", "x", 1, 0) != 0) {
            EXPECT_EQ(EOPNOTSUPP, errno); /* of tmpfs before 6.6 */
            EXPECT_EQ(0, chmod(at("xattr").c_str(), 0640));
        }
        EXPECT_EQ(0, utimensat(AT_FDCWD, at("times").c_str(), nullptr, 0));
    }
    /* What both sources report. */
    static Paths reported()
    {
        Paths all;
        for (const char *name : {"copied", "sent", "spliced", "by root", "by pid", "in chroot", "pivoted"})
            all[name] = names("modify,close_write");
        for (const char *name : {"xattr", "times"})
            all[name] = names("attrib");
        all["mapped"] = names("close_write"); /* of stores nothing */
        all["unnamed"] = names("create");
        all["from outside"] = names("create"); /* of what is written by the other name nothing */
        return all;
    }
    /* What was written before a file had a name has a number for one. */
    static Paths without_numbers(Paths seen)
    {
        std::erase_if(seen, [](const auto &entry) { return entry.first.starts_with("#"); });
        return seen;
    }
    const std::string dir = tree.dir("dir"), other = tree.path("other");
    /* By marks on directories the path is known only while the namespace is there: without, it would be a loss. */
    std::optional<Child> elsewhere;
};

TEST_F(UnusualWays, ByTheMarkOfAFileSystem)
{
    make_files();
    Watch watch(dir, with({"-e", kKinds}));
    watch.established();
    take_all();
    Paths expected = reported();
    expected["cut"] = names("modify");
    EXPECT_EQ(expected, without_numbers(watch.barrier(dir)));
    expect_processes(watch);
    EXPECT_EQ(0, watch.stop());
}

TEST_F(UnusualWays, ByMarksOnDirectories)
{
    make_files();
    Watch watch(dir, {"-r", "--source", "marks", "-e", kKinds});
    watch.established();
    take_all();
    EXPECT_EQ(reported(), without_numbers(watch.barrier(dir)));
    EXPECT_EQ(0, watch.stop());
}

/* By FICLONE, as cp does on file systems that share what is stored. */
TEST_F(UnusualWays, AClonedRangeIsAWrite)
{
    const std::string point = tree.dir("point"), image = tree.path("image");
    const std::string command = "exec 2>&1 >/dev/null; truncate -s 120M " + image + " && mkfs.btrfs -q " + image +
                                " && mount -o loop " + image + " " + point;
    NEED(system(command.c_str()) == 0, "needs btrfs, its programs and a loop device");
    for (const std::string source : {"filesystem", "marks"}) {
        SCOPED_TRACE(source);
        const std::string place = point + "/" + source;
        make_dir(place);
        for (const char *name : {"/source", "/cloned"})
            write_to(Opened(place + name, O_WRONLY | O_CREAT));
        Watch watch(place, {"-r", "--source", source, "-e", kKinds});
        watch.established();
        {
            const Opened from(place + "/source", O_RDONLY), to(place + "/cloned", O_WRONLY);
            EXPECT_EQ(0, ioctl(to, FICLONE, int{from})) << strerror(errno);
        }
        EXPECT_EQ((Paths{{"cloned", names("modify,close_write")}}), watch.barrier(place));
        EXPECT_EQ(0, watch.stop());
    }
    unmount(point);
}

/* As a server of NFS does: of a file that nobody has looked at since the mount, the kernel does not know the place. */
TEST_F(UnusualWays, AFileThatIsOpenedByItsHandleIsALoss)
{
    const std::string point = tree.dir("point"), image = tree.path("image");
    const std::string mount_it = "mount -o loop " + image + " " + point;
    const std::string command =
        "exec 2>&1 >/dev/null; truncate -s 8M " + image + " && mkfs.ext4 -q " + image + " && " + mount_it;
    NEED(system(command.c_str()) == 0, "needs mkfs.ext4 and loop devices");
    make_dir(point + "/d");
    make_file(point + "/d/f");
    union {
        struct file_handle handle;
        char room[sizeof(struct file_handle) + MAX_HANDLE_SZ];
    };
    handle.handle_bytes = MAX_HANDLE_SZ;
    int mount_id;
    ASSERT_EQ(0, name_to_handle_at(AT_FDCWD, (point + "/d/f").c_str(), &handle, &mount_id, 0));
    unmount(point);
    ASSERT_EQ(0, system(mount_it.c_str()));
    Watch watch(point, with({"-e", kKinds}));
    watch.established();
    watch.losses_are_due();
    {
        const Opened mounted_at(point, O_RDONLY | O_DIRECTORY);
        const int file = open_by_handle_at(mounted_at, &handle, O_WRONLY | O_CLOEXEC);
        ASSERT_GE(file, 0) << strerror(errno);
        write_to(file);
        close(file);
    }
    EXPECT_EQ("table", watch.next_of("loss").value("source", ""));
    EXPECT_EQ(0, watch.stop());
    unmount(point);
}

}  // namespace
