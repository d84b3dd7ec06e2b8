#include "log_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "orx_base.h"

namespace host
{

namespace
{

constexpr char kName[] = "fmon.log";
constexpr uint64_t kRetryMs = 1000;
constexpr int kMaxKeep = 1000;

/* A path's name among the kept files: 0 is the current one. */
struct FileName {
    char text[32];
};

FileName numbered(int number)
{
    FileName name;
    if (number == 0)
        snprintf(name.text, sizeof name.text, "%s", kName);
    else
        snprintf(name.text, sizeof name.text, "%s.%d", kName, number);
    return name;
}

/* Out of the reach of what believes that 0, 1 and 2 are standard streams, where the process was started without them.
 */
Fd above_standard(int fd)
{
    if (fd < 0 || fd > STDERR_FILENO)
        return Fd(fd);
    Fd low(fd);
    return Fd(fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

/* As mkdir -p. What fails shows when the directory is opened. The log names files of all users: others may not read it.
 */
void make_directories(std::string path)
{
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        path[slash] = 0;
        mkdir(path.c_str(), 0755);
        path[slash] = '/';
    }
    mkdir(path.c_str(), 0750);
}

uint64_t now_ms() { return timer_ticks2ms(timer_get_ticks()); }

/* The directory's lock. Advisory, gone with the descriptor, and never waited for. */
class DirectoryLock
{
public:
    explicit DirectoryLock(int dir) : dir_(dir), busy_(flock(dir, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {}
    ~DirectoryLock()
    {
        if (!busy_)
            flock(dir_, LOCK_UN);
    }
    DirectoryLock(const DirectoryLock &) = delete;
    DirectoryLock &operator=(const DirectoryLock &) = delete;

    /* Held by somebody else. A file system without locks is taken as free: it has no second process to fear more than
     * a log that never rotates. */
    bool busy() const { return busy_; }

private:
    int dir_;
    bool busy_;
};

}  // namespace

bool LogFile::open(const char *directory, int keep)
{
    keep_ = std::clamp(keep, 1, kMaxKeep);
    return without_exceptions(false, [&] {
        make_directories(directory);
        char real[PATH_MAX];
        if (!realpath(directory, real))
            return false;
        directory_ = real;
        if (open_directory() && open_file())
            return true;
        directory_.clear();
        return false;
    });
}

bool LogFile::open_directory()
{
    dir_ = above_standard(::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return static_cast<bool>(dir_);
}

/* Neither a link nor a pipe in the file's place is followed or waited for. */
bool LogFile::open_file()
{
    constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    file_ = above_standard(openat(dir_.get(), kName, kFlags, 0640));
    struct stat st;
    if (!file_ || fstat(file_.get(), &st) != 0)
        return false;
    if (!S_ISREG(st.st_mode)) {
        file_.reset();
        errno = EINVAL;
        return false;
    }
    device_ = st.st_dev;
    inode_ = st.st_ino;
    torn_ = false;
    return true;
}

/* The file again, or the directory as a whole when that has gone. */
bool LogFile::reopen()
{
    uint64_t now = now_ms();
    if (now < retry_after_)
        return false;
    if (dir_ && open_file())
        return true;
    retry_after_ = now + kRetryMs;
    make_directories(directory_);
    return open_directory() && open_file();
}

bool LogFile::is_full(off_t size, size_t length) const
{
    return size > 0 && size + static_cast<off_t>(length) > limit_;
}

/* Has the right file open for a line of that length. */
bool LogFile::prepare(size_t length)
{
    struct stat st;
    bool found = dir_ && fstatat(dir_.get(), kName, &st, AT_SYMLINK_NOFOLLOW) == 0;
    bool same = found && file_ && st.st_dev == device_ && st.st_ino == inode_;
    if (!same)
        return reopen();
    if (!is_full(st.st_size, length))
        return true;
    /* A process that hangs with the lock in its hands must not make the file grow for ever. */
    return rotate(length) || (st.st_size < limit_ + kLogFileLimit && errno == EWOULDBLOCK);
}

bool LogFile::rotate(size_t length)
{
    DirectoryLock lock(dir_.get());
    if (lock.busy()) {
        errno = EWOULDBLOCK;
        return false;
    }
    struct stat st;
    bool found = fstatat(dir_.get(), kName, &st, AT_SYMLINK_NOFOLLOW) == 0;
    if (found && is_full(st.st_size, length) && !shift_files())
        return false;
    return open_file();
}

/* Makes room for a new current file; the oldest goes, and so do those that an earlier, larger `keep` left behind. */
bool LogFile::shift_files()
{
    int dir = dir_.get();
    for (int i = keep_; i < kMaxKeep && unlinkat(dir, numbered(i).text, 0) == 0; i++)
        continue;
    if (keep_ == 1)
        return unlinkat(dir, kName, 0) == 0;
    for (int i = keep_ - 2; i > 0; i--)
        renameat(dir, numbered(i).text, dir, numbered(i + 1).text);
    return renameat(dir, kName, dir, numbered(1).text) == 0;
}

bool LogFile::write(std::string_view line)
{
    if (!without_exceptions(false, [&] { return prepare(line.size()); }))
        return false;
    char newline = '\n';
    struct iovec parts[2] = {{&newline, torn_ ? 1u : 0u}, {const_cast<char *>(line.data()), line.size()}};
    ssize_t total = static_cast<ssize_t>(parts[0].iov_len + parts[1].iov_len);
    ssize_t written = writev(file_.get(), parts, 2);
    if (written > 0)
        torn_ = written != total;
    return written == total;
}

}  // namespace host
