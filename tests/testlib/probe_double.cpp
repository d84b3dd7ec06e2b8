#include "testlib/probe_double.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace testlib
{

namespace
{

constexpr char kVariable[] = "FMON_PROBE_DOUBLE";
constexpr int kPatienceMs = 10000;

/* openat, because open is a wrapped call. Without a reader, and until then for ever, there is no FIFO. */
int open_fifo(const std::string &path)
{
    int fd = openat(AT_FDCWD, path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_GE(fd, 0) << path << ": " << strerror(errno) << ": no instance of that name was made";
    return fd;
}

/* A FIFO takes a write of this size whole or not at all. */
bool write_whole(int fd, const std::string &bytes)
{
    while (write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
        struct pollfd room = {fd, POLLOUT, 0};
        if (errno != EAGAIN || poll(&room, 1, kPatienceMs) <= 0)
            return false;
    }
    return true;
}

}  // namespace

std::string probe_double_installation(const std::string &without)
{
    const std::string directory = FMON_TEST_PROBE_DOUBLES "/";
    if (without.empty())
        return directory + "whole";
    return directory + "without_" + (without[0] == '_' ? without.substr(1) : without);
}

ProbeDouble::ProbeDouble() { setenv(kVariable, directory().c_str(), 1); }
ProbeDouble::~ProbeDouble() { unsetenv(kVariable); }

std::string ProbeDouble::environment() const { return kVariable + ("=" + directory()); }

void ProbeDouble::set_os_info(const OsInfo &info)
{
    std::ofstream(tree_.path("os_info")) << info.major << " " << info.minor << " " << info.patch << " " << info.arch
                                         << " " << info.count << " " << info.pid << "\n";
}

void ProbeDouble::set_losses(const std::string &numbers) { std::ofstream(tree_.path("losses")) << numbers << "\n"; }

void ProbeDouble::set_unavailable(const std::string &words) { std::ofstream(tree_.path("unavailable")) << words; }

void ProbeDouble::behave(const std::string &lines)
{
    /* In one step: the library may read at any moment. */
    std::ofstream(tree_.path("behave.new")) << lines << "\n";
    EXPECT_EQ(0, rename(tree_.path("behave.new").c_str(), tree_.path("behave").c_str()));
}

std::vector<std::string> ProbeDouble::calls() const { return calls(""); }

std::vector<std::string> ProbeDouble::calls(const std::string &beginning) const
{
    std::ifstream in(tree_.path("calls"));
    std::vector<std::string> found;
    for (std::string line; std::getline(in, line);)
        if (line.starts_with(beginning))
            found.push_back(line);
    return found;
}

bool ProbeDouble::await_calls(const std::string &beginning, size_t count) const
{
    pollfd changes = {inotify_init1(IN_CLOEXEC | IN_NONBLOCK), POLLIN, 0};
    inotify_add_watch(changes.fd, tree_.root().c_str(), IN_MODIFY);
    char told[4096];
    while (calls(beginning).size() < count && poll(&changes, 1, kPatienceMs) > 0)
        while (read(changes.fd, told, sizeof told) > 0) {
        }
    close(changes.fd);
    return calls(beginning).size() >= count;
}

bool ProbeDouble::called(const std::string &call) const
{
    for (const std::string &line : calls(call))
        if (line == call)
            return true;
    return false;
}

void ProbeDouble::forget_calls() { tree_.remove("calls"); }

std::string ProbeDouble::frame(const std::string &event, uint32_t pid, const std::string &record)
{
    const uint32_t numbers[] = {pid, static_cast<uint32_t>(record.size())};
    std::string head = event;
    head.resize(8);
    return head.append(reinterpret_cast<const char *>(numbers), sizeof numbers) + record;
}

void ProbeDouble::put(const std::string &event, uint32_t pid, const std::string &record, int index)
{
    const std::string name = event == "Ki" ? "clt_inotify." : "clt_file.";
    put_bytes(name + std::to_string(index), frame(event, pid, record));
}

void ProbeDouble::put_bytes(const std::string &fifo, const std::string &bytes)
{
    const int fd = open_fifo(tree_.path(fifo));
    if (fd < 0)
        return;
    EXPECT_TRUE(write_whole(fd, bytes)) << fifo << " stays full: " << strerror(errno);
    close(fd);
}

}  // namespace testlib
