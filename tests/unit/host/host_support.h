/*
 * host_support.h: what the embedded host's tests share: temporary directories, files, environment, captured stderr.
 */
#ifndef HOST_SUPPORT_H
#define HOST_SUPPORT_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace host_test
{

/* A fresh directory, removed with everything in it at the end. */
class TempDir
{
public:
    TempDir()
    {
        std::string pattern = std::filesystem::temp_directory_path() / "fmon-host-XXXXXX";
        if (!mkdtemp(pattern.data()))
            abort();
        root_ = std::filesystem::canonical(pattern);
    }
    ~TempDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    std::string path(const std::string &below = "") const { return below.empty() ? root_ : root_ + "/" + below; }
    std::string dir(const std::string &below) const
    {
        std::filesystem::create_directories(path(below));
        return path(below);
    }
    std::string file(const std::string &below, const std::string &content = "") const
    {
        std::filesystem::create_directories(std::filesystem::path(path(below)).parent_path());
        std::ofstream(path(below), std::ios::binary) << content;
        return path(below);
    }
    bool has(const std::string &below) const { return std::filesystem::exists(path(below)); }

private:
    std::string root_;
};

inline std::string contents(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline std::vector<std::string> lines(const std::string &text)
{
    std::vector<std::string> all;
    size_t at = 0, end;
    while ((end = text.find('\n', at)) != std::string::npos) {
        all.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    if (at < text.size())
        all.push_back(text.substr(at) + " (no newline)");
    return all;
}

/* Sets (or with null removes) a variable for its life. */
class Environment
{
public:
    Environment(const char *name, const char *value) : name_(name)
    {
        const char *before = getenv(name);
        had_ = before != nullptr;
        before_ = before ? before : "";
        value ? setenv(name, value, 1) : unsetenv(name);
    }
    ~Environment() { had_ ? setenv(name_.c_str(), before_.c_str(), 1) : unsetenv(name_.c_str()); }
    Environment(const Environment &) = delete;
    Environment &operator=(const Environment &) = delete;

private:
    std::string name_, before_;
    bool had_;
};

/* Sends stderr to a file for its life. */
class CapturedStderr
{
public:
    CapturedStderr() : saved_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3))
    {
        int fd = open(dir_.file("stderr").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
        dup2(fd, STDERR_FILENO);
        close(fd);
    }
    ~CapturedStderr()
    {
        dup2(saved_, STDERR_FILENO);
        close(saved_);
    }
    CapturedStderr(const CapturedStderr &) = delete;
    CapturedStderr &operator=(const CapturedStderr &) = delete;

    std::string text() const { return contents(dir_.path("stderr")); }
    std::vector<std::string> lines() const { return host_test::lines(text()); }

private:
    TempDir dir_;
    int saved_;
};

inline int open_descriptors()
{
    int count = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        count++;
    return count;
}

}  // namespace host_test

#endif
