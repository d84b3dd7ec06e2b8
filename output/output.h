/*
 * output.h: where records go: stdout or a file, one write a batch.
 */
#ifndef OUTPUT_OUTPUT_H
#define OUTPUT_OUTPUT_H

#include <cstdint>
#include <functional>
#include <string>

namespace output
{

class Output
{
public:
    Output() = default;
    ~Output();
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    /* Whether open() can be expected to do what is asked of it; a file stays as it is. False, with the reason in
     * `error`. */
    static bool check(const std::string &path, std::string &error);
    /* An empty path is stdout. What a file holds is replaced, unless `append`. False, with the reason in `error`. */
    bool open(const std::string &path, bool append, std::string &error);
    /* What records end in, so that those that are given up can be counted. */
    void set_end(char end) { end_ = end; }

    std::string &buffer() { return buffer_; }
    bool is_terminal() const;
    int fd() const { return fd_; }
    /* The regular file that is written to, by its full path; empty for pipes, terminals and devices. */
    std::string file_path() const;
    bool is_empty() const; /* a regular file without content */

    /* Milliseconds that a reader may still take; -1: as long as it likes. Asked after each write; `taken`: the reader
     * has taken something. */
    using Patience = std::function<int(bool taken)>;

    /* Writes what the buffer holds and empties it. False: nothing more can be written; closed() separates a reader that
     * has gone from an error, which error() names. When the patience with a reader that does not read ends, the rest
     * and all that comes later is given up. */
    bool flush(const Patience &patience);
    /* Flushes when enough has gathered for a write of its own. */
    bool flush_if_large(const Patience &patience) { return buffer_.size() < kLarge || flush(patience); }
    bool closed() const { return closed_; }
    const std::string &error() const { return error_; }
    bool gave_up() const { return gave_up_; }
    uint64_t given_up() const { return given_up_; } /* records, the one that was written in part among them */

private:
    bool fail(int error_number);
    static constexpr size_t kLarge = 64 << 10;

    int fd_ = -1;
    char end_ = '\n';
    bool owned_ = false, closed_ = false, gave_up_ = false;
    uint64_t given_up_ = 0;
    std::string buffer_, error_;
};

}  // namespace output

#endif
