#include "path_list.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string_view>

#include "common/fd.h"

namespace cli
{

namespace
{

/* Lines out of what comes in pieces. */
class Lines
{
public:
    explicit Lines(std::vector<std::string> &out) : out_(out) {}

    /* False: what follows cannot be a path, see trouble(). */
    bool add(std::string_view bytes)
    {
        while (!bytes.empty()) {
            const size_t end = bytes.find('\n');
            line_.append(bytes.substr(0, end));
            if (!is_path())
                return false;
            if (end == std::string_view::npos)
                return true;
            finish();
            bytes.remove_prefix(end + 1);
        }
        return true;
    }

    void finish()
    {
        if (!line_.empty())
            out_.push_back(line_);
        line_.clear();
        number_++;
    }

    std::string trouble() const
    {
        const char *const what = line_.find('\0') == std::string::npos ? " is too long for a path" : " holds a NUL";
        return "line " + std::to_string(number_) + what;
    }

private:
    bool is_path() const { return line_.size() < PATH_MAX && line_.find('\0') == std::string::npos; }

    std::vector<std::string> &out_;
    std::string line_;
    size_t number_ = 1;
};

// What read(2) said last: 0: all has been read; above: a line is no path.
ssize_t read_lines(int fd, Lines &lines)
{
    char bytes[PATH_MAX];
    for (;;) {
        const ssize_t got = read(fd, bytes, sizeof bytes);
        const bool again = got < 0 && errno == EINTR;
        if (!again && (got <= 0 || !lines.add({bytes, static_cast<size_t>(got)})))
            return got;
    }
}

}  // namespace

bool read_path_list(const std::string &file, std::vector<std::string> &paths, std::string &error)
{
    const bool is_stdin = file == "-";
    const common::Fd opened(is_stdin ? -1 : open(file.c_str(), O_RDONLY | O_CLOEXEC));
    const int fd = is_stdin ? STDIN_FILENO : opened.get();
    Lines lines(paths);
    const ssize_t end = fd < 0 ? -1 : read_lines(fd, lines);
    if (end < 0)
        error = "--fromfile " + file + " cannot be read: " + strerror(errno);
    else if (end > 0)
        error = "--fromfile " + file + ": " + lines.trouble();
    else
        lines.finish();
    return end == 0;
}

}  // namespace cli
