/*
 * log_file.h: a log in a directory: fmon.log, and fmon.log.1, fmon.log.2, ... for what was before.
 *
 * Several processes may log to one directory. Each line is one write to a file opened for appending; before it, one
 * look at the directory shows whether another process has rotated the files (or someone removed them), and the file is
 * opened anew. Who finds the file full rotates under a lock on the directory, which nobody waits for: a line then goes
 * to the full file.
 *
 * No function blocks on anything but the disk itself, and none throws.
 */
#ifndef HOST_LOG_FILE_H
#define HOST_LOG_FILE_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "guard.h"

namespace host
{

constexpr off_t kLogFileLimit = 8 << 20; /* bytes of one file, about */

/* Not thread-safe: its owner locks. */
class LogFile
{
public:
    explicit LogFile(off_t limit = kLogFileLimit) : limit_(limit) {}

    /* Makes the directory if it is missing and opens the log in it; `keep` files are kept, at least one. False, with
     * errno set: the directory cannot be made or written to. To be called once. */
    bool open(const char *directory, int keep);
    bool is_open() const { return !directory_.empty(); }

    /* Appends a line, its newline included. False: it is not in the file (disk full, directory gone, rotation refused).
     * A directory that went away is made again, at the earliest a second after the last attempt. */
    bool write(std::string_view line);

private:
    bool open_directory();
    bool open_file();
    bool reopen();
    bool prepare(size_t length);
    bool rotate(size_t length);
    bool shift_files();
    bool is_full(off_t size, size_t length) const;

    std::string directory_; /* absolute, without links */
    int keep_ = 1;
    off_t limit_;
    Fd dir_, file_;
    dev_t device_ = 0; /* the open file's identity */
    ino_t inode_ = 0;
    uint64_t retry_after_ = 0; /* ms of the timer */
    bool torn_ = false;        /* the last line was cut short: the next one begins with a newline */
};

}  // namespace host

#endif
