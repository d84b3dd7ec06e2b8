/*
 * output.h: where records go: stdout or a file, one write a batch.
 */
#ifndef CLI_OUTPUT_H
#define CLI_OUTPUT_H

#include <functional>
#include <string>

namespace cli
{

class Output
{
public:
    Output() = default;
    ~Output();
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    /* An empty path is stdout. False, with the reason in `error`. */
    bool open(const std::string &path, std::string &error);

    std::string &buffer() { return buffer_; }
    bool is_terminal() const;
    int fd() const { return fd_; }
    /* The regular file that is written to, by its full path; empty for pipes, terminals and devices. */
    std::string file_path() const;

    /* Writes what the buffer holds and empties it. False: nothing more can be written; closed() tells a reader that has
     * gone from an error, which error() names. When `stop` answers true while the reader does not read, the rest is
     * given up. */
    bool flush(const std::function<bool()> &stop);
    /* Flushes when enough has gathered for a write of its own. */
    bool flush_if_large(const std::function<bool()> &stop) { return buffer_.size() < kLarge || flush(stop); }
    bool closed() const { return closed_; }
    const std::string &error() const { return error_; }

private:
    bool fail(int error_number);
    static constexpr size_t kLarge = 64 << 10;

    int fd_ = -1;
    bool owned_ = false, closed_ = false;
    std::string buffer_, error_;
};

}  // namespace cli

#endif
