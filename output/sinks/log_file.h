/*
 * log_file.h: a file of lines that grows, in which no line is ever torn for long.
 */
#ifndef OUTPUT_SINKS_LOG_FILE_H
#define OUTPUT_SINKS_LOG_FILE_H

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "common/fd.h"
#include "packets.h"

namespace output
{

class LogFile
{
public:
    enum class Opened {
        kYes,
        kLater,
        kNever
    }; /* kLater: a full disk, another that writes; kNever: that takes a person */

    /* Makes it where it is missing, in a directory that nobody else may write to (or a sticky one), and locks it. A
     * last line without an end, which a process left that was killed while writing, or a disk that lost its end, is cut
     * off. `error` is one line unless kYes. */
    Opened open(const std::string &path, mode_t mode, std::string &error);
    void close() { fd_.reset(); }
    explicit operator bool() const { return static_cast<bool>(fd_); }

    /* Whether the path still names it. */
    bool is_at(const std::string &path) const;
    uint64_t size() const { return size_; }
    uint64_t begun_ms() const { return begun_ms_; } /* wall clock */
    uint64_t cut() const { return cut_; }           /* bytes that open() cut off */

    /* 0, or the errno because of which only the first `done` are there. Nothing of the others is. */
    int write(const Packets &packets, size_t &done);
    /* 0 or an errno. */
    int sync() const;
    /* What was written beyond that size is to go; where that fails now, before the next write. */
    void take_back(uint64_t size);

private:
    Opened check(const std::string &path, std::string &error);
    int cut_torn();
    int64_t find_end(uint64_t size) const;
    int mend();

    common::Fd fd_;
    uint64_t size_ = 0, begun_ms_ = 0, cut_ = 0;
    bool too_long_ = false; /* the file goes beyond size_ */
};

}  // namespace output

#endif
