#include "log_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "agent/descriptors.h"
#include "place.h"

namespace output
{

namespace
{

constexpr uint64_t kLongestLine = 1 << 20; /* a file without an end of line in its last bytes is none of ours */

bool is_for_a_person(int error)
{
    for (const int later : {ENOSPC, EDQUOT, EMFILE, ENFILE, ENOMEM, EIO, EINTR, EAGAIN, ETXTBSY})
        if (error == later)
            return false;
    return true;
}

LogFile::Opened say(int error_number, const std::string &why, std::string &error)
{
    error = why;
    return is_for_a_person(error_number) ? LogFile::Opened::kNever : LogFile::Opened::kLater;
}

// When the file was made, where its file system knows that.
uint64_t begin_of(int fd)
{
    struct statx st = {};
    if (statx(fd, "", AT_EMPTY_PATH, STATX_BTIME | STATX_MTIME, &st) != 0)
        return 0;
    const struct statx_timestamp &time = (st.stx_mask & STATX_BTIME) ? st.stx_btime : st.stx_mtime;
    return static_cast<uint64_t>(time.tv_sec) * 1000 + time.tv_nsec / 1'000'000;
}

}  // namespace

LogFile::Opened LogFile::open(const std::string &path, mode_t mode, std::string &error)
{
    int error_number = 0;
    if (!is_safe_place(path, Shared::kSticky, error, error_number))
        return say(error_number, error, error);
    const int how = O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    fd_.reset(::open(path.c_str(), how, mode));
    if (!fd_) {
        error_number = errno;
        const std::string why =
            error_number == ELOOP ? "a link: say where it leads to" : agent::reason_text(error_number);
        return say(error_number, "cannot write to " + path + ": " + why, error);
    }
    const Opened result = check(path, error);
    if (result != Opened::kYes)
        close();
    return result;
}

// A file system without locks has to do without.
LogFile::Opened LogFile::check(const std::string &path, std::string &error)
{
    struct stat st;
    if (fstat(fd_.get(), &st) != 0)
        return say(errno, "cannot write to " + path + ": " + strerror(errno), error);
    if (!S_ISREG(st.st_mode))
        return say(EINVAL, path + " is no regular file", error);
    if (st.st_uid != 0 && st.st_uid != geteuid())
        return say(EPERM, path + " belongs to another user: chown it to root", error);
    if ((flock(fd_.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) || !is_at(path))
        return say(EAGAIN, path + " is written to by another output or process", error);
    size_ = static_cast<uint64_t>(st.st_size);
    begun_ms_ = begin_of(fd_.get());
    if (const int failed = cut_torn())
        return say(failed, "cannot mend the last line of " + path + ": " + strerror(failed), error);
    return Opened::kYes;
}

bool LogFile::is_at(const std::string &path) const
{
    struct stat there, here;
    return lstat(path.c_str(), &there) == 0 && fstat(fd_.get(), &here) == 0 && there.st_ino == here.st_ino &&
           there.st_dev == here.st_dev;
}

int LogFile::cut_torn()
{
    too_long_ = false;
    cut_ = 0;
    const int64_t end = find_end(size_);
    if (end < 0)
        return errno;
    cut_ = size_ - static_cast<uint64_t>(end);
    take_back(static_cast<uint64_t>(end));
    return mend();
}

// Behind the last end of a line: a newline, or the single NUL that records may end in as well; several are what a disk
// has that lost its end. The whole size where there is none near: then this is no file of lines, and stays as it is.
int64_t LogFile::find_end(uint64_t size) const
{
    std::string tail(std::min(size, kLongestLine), '\0');
    const ssize_t n = pread(fd_.get(), tail.data(), tail.size(), static_cast<off_t>(size - tail.size()));
    if (n < 0)
        return -1;
    const std::string_view held(tail.data(), static_cast<size_t>(n));
    if (held.empty() || held.back() == '\n' || (held.back() == '\0' && !held.ends_with(std::string_view("\0\0", 2))))
        return static_cast<int64_t>(size);
    const size_t newline = held.rfind('\n');
    if (newline != std::string_view::npos)
        return static_cast<int64_t>(size - held.size() + newline + 1);
    return size > kLongestLine ? static_cast<int64_t>(size) : 0;
}

int LogFile::write(const Packets &packets, size_t &done)
{
    done = 0;
    if (const int failed = mend())
        return failed;
    const std::string_view bytes = packets.bytes();
    size_t written = 0;
    int failed = 0;
    while (written < bytes.size() && failed == 0) {
        const ssize_t n = ::write(fd_.get(), bytes.data() + written, bytes.size() - written);
        if (n >= 0)
            written += static_cast<size_t>(n);
        else if (errno != EINTR)
            failed = errno;
    }
    done = packets.whole_in(written);
    size_ += packets.end_of(done);
    if (failed)
        take_back(size_);
    return failed;
}

int LogFile::sync() const { return fdatasync(fd_.get()) == 0 ? 0 : errno; }

void LogFile::take_back(uint64_t size)
{
    size_ = size;
    too_long_ = true;
    mend();
}

int LogFile::mend()
{
    if (too_long_ && ftruncate(fd_.get(), static_cast<off_t>(size_)) != 0)
        return errno;
    too_long_ = false;
    return 0;
}

}  // namespace output
