#include "operators.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace model
{

namespace
{

int held = -1;

bool write_byte(int fd) { return fd >= 0 && write(fd, "x", 1) == 1; }

bool write_file(const std::string &path, int flags)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC | flags, 0644);
    const bool done = flags & O_TRUNC ? fd >= 0 : write_byte(fd);
    return fd >= 0 && close(fd) == 0 && done;
}

bool change_mode(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && chmod(path.c_str(), (st.st_mode & 07777) ^ S_IWGRP) == 0;
}

bool make(const Step &step)
{
    switch (step.verb) {
        case kMakeDir:
            return mkdir(step.one.c_str(), 0755) == 0;
        case kMakeFile:
            return write_file(step.one, O_CREAT | O_EXCL);
        case kMakeNode:
            return mknod(step.one.c_str(), S_IFREG | 0644, 0) == 0;
        case kMakeLink:
            return symlink("nowhere", step.one.c_str()) == 0;
        case kMakePipe:
            return mkfifo(step.one.c_str(), 0644) == 0;
        case kLink:
            return link(step.one.c_str(), step.other.c_str()) == 0;
        default:
            errno = ENOSYS;
            return false;
    }
}

bool hold(const std::string &path)
{
    held = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    return held >= 0;
}

bool act(const Step &step)
{
    switch (step.verb) {
        case kRemoveDir:
            return rmdir(step.one.c_str()) == 0;
        case kUnlink:
            return unlink(step.one.c_str()) == 0;
        case kAppend:
            return write_file(step.one, O_APPEND);
        case kTruncate:
            return truncate(step.one.c_str(), 3) == 0;
        case kOpenTruncate:
            return write_file(step.one, O_TRUNC);
        case kChangeMode:
            return change_mode(step.one);
        case kRename:
            return rename(step.one.c_str(), step.other.c_str()) == 0;
        case kExchange:
            return renameat2(AT_FDCWD, step.one.c_str(), AT_FDCWD, step.other.c_str(), RENAME_EXCHANGE) == 0;
        case kHold:
            return hold(step.one);
        case kWriteHeld:
            return write_byte(held);
        case kRelease:
            return close(held) == 0;
        default:
            return make(step);
    }
}

bool transfer(ssize_t (*call)(int, void *, size_t), int fd, void *bytes, size_t size)
{
    for (size_t done = 0; done < size;) {
        const ssize_t n = call(fd, static_cast<char *>(bytes) + done, size - done);
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool read_all(int fd, void *bytes, size_t size) { return transfer(read, fd, bytes, size); }

bool write_all(int fd, void *bytes, size_t size)
{
    return transfer([](int to, void *from, size_t n) { return write(to, from, n); }, fd, bytes, size);
}

std::vector<Step> parse(const std::string &text)
{
    std::vector<Step> steps;
    for (size_t at = 0; at < text.size();) {
        const auto verb = static_cast<Verb>(text[at]);
        const size_t one = text.find('\0', at + 1), other = text.find('\0', one + 1);
        steps.push_back({verb, text.substr(at + 1, one - at - 1), text.substr(one + 1, other - one - 1)});
        at = other + 1;
    }
    return steps;
}

std::string perform(const std::vector<Step> &steps)
{
    for (const Step &step : steps)
        if (!act(step))
            return to_text(step) + ": " + strerror(errno);
    return "";
}

bool send_text(int fd, std::string text)
{
    size_t size = text.size();
    return write_all(fd, &size, sizeof size) && write_all(fd, text.data(), size);
}

bool receive_text(int fd, std::string &text)
{
    size_t size = 0;
    if (!read_all(fd, &size, sizeof size))
        return false;
    text.resize(size);
    return read_all(fd, text.data(), size);
}

[[noreturn]] void serve(int orders, int answers, const std::string &ground)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    umask(0);
    std::string text;
    if (chdir(ground.c_str()) != 0)
        _exit(1);
    while (receive_text(orders, text) && send_text(answers, perform(parse(text)))) {
    }
    _exit(0);
}

}  // namespace

std::string to_text(const Step &step)
{
    return std::string(1, step.verb) + " " + step.one + (step.other.empty() ? "" : " -> " + step.other);
}

Operator::Operator(const std::string &ground)
{
    int orders[2], answers[2];
    if (pipe2(orders, O_CLOEXEC) != 0 || pipe2(answers, O_CLOEXEC) != 0)
        abort();
    pid_ = fork();
    if (pid_ == 0) {
        close(orders[1]);
        close(answers[0]);
        serve(orders[0], answers[1], ground);
    }
    close(orders[0]);
    close(answers[1]);
    orders_ = orders[1];
    answers_ = answers[0];
}

Operator::~Operator()
{
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    close(orders_);
    close(answers_);
}

void Operator::begin(const std::vector<Step> &steps)
{
    std::string text;
    for (const Step &step : steps)
        (((text += step.verb) += step.one) += '\0') += step.other + '\0';
    if (!send_text(orders_, text))
        abort();
}

std::string Operator::end()
{
    std::string answer;
    return receive_text(answers_, answer) ? answer : "the process has ended";
}

}  // namespace model
