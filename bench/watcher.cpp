#include "watcher.h"

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>

namespace
{

constexpr useconds_t kPoll = 2000, kQuiet = 1000000;

std::string read_text(const std::string &path, size_t limit)
{
    std::ifstream file(path, std::ios::binary);
    std::string text(limit, '\0');
    file.read(text.data(), static_cast<std::streamsize>(limit));
    text.resize(static_cast<size_t>(file.gcount()));
    return text;
}

off_t size_of(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : 0;
}

void redirect(const std::string &path, int fd)
{
    const int file = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
    dup2(file, fd);
    close(file);
}

[[noreturn]] void become(const std::vector<std::string> &command, uid_t uid)
{
    if (uid != 0 && (setgroups(0, nullptr) < 0 || setgid(uid) < 0 || setuid(uid) < 0))
        _exit(126);
    std::vector<char *> args;
    for (const std::string &arg : command)
        args.push_back(const_cast<char *>(arg.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    perror(args[0]);
    _exit(127);
}

}  // namespace

double now_seconds()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

Watcher::Watcher(const std::vector<std::string> &command, const std::string &directory, uid_t uid)
    : out_(directory + "/out"), err_(directory + "/err"), started_(now_seconds())
{
    unlink(out_.c_str()); /* an earlier watcher's must not be taken for this one's */
    unlink(err_.c_str());
    pid_ = fork();
    if (pid_ != 0)
        return;
    redirect("/dev/null", STDIN_FILENO);
    redirect(out_, STDOUT_FILENO);
    redirect(err_, STDERR_FILENO);
    become(command, uid);
}

Watcher::~Watcher()
{
    if (pid_ <= 0)
        return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

bool Watcher::ended()
{
    if (pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == pid_)
        pid_ = -1;
    return pid_ <= 0;
}

double Watcher::wait_ready(const std::vector<std::string> &texts, double limit_seconds)
{
    while (now_seconds() - started_ < limit_seconds) {
        const std::string written = read_text(out_, 4096) + read_text(err_, 4096);
        for (const std::string &text : texts) {
            if (written.find(text) != std::string::npos)
                return now_seconds() - started_;
        }
        if (ended())
            return -1;
        usleep(kPoll);
    }
    return -1;
}

void Watcher::wait_quiet()
{
    off_t size;
    double cpu;
    do {
        size = size_of(out_);
        cpu = cpu_seconds();
        usleep(kQuiet);
    } while (!ended() && (size_of(out_) != size || cpu_seconds() - cpu > 0.01));
}

void Watcher::stop()
{
    if (ended())
        return;
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

double Watcher::cpu_seconds() const
{
    clockid_t clock;
    struct timespec used;
    if (pid_ <= 0 || clock_getcpuclockid(pid_, &clock) != 0 || clock_gettime(clock, &used) != 0)
        return 0;
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

long Watcher::resident_kib() const
{
    std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0)
            return atol(line.c_str() + 6);
    }
    return 0;
}

std::string Watcher::errors() const { return read_text(err_, 65536); }
