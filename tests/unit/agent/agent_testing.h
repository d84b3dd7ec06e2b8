/*
 * agent_testing.h: what the tests of agent/, output/ and the command line share.
 */
#ifndef UNIT_AGENT_AGENT_TESTING_H
#define UNIT_AGENT_AGENT_TESTING_H

#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "agent/queue.h"
#include "common/fd.h"

namespace agent_testing
{

/* A fresh directory, by its real path, removed at the end. */
class Directory
{
public:
    Directory()
    {
        std::string name = std::filesystem::canonical(std::filesystem::temp_directory_path()).string() + "/cliXXXXXX";
        root_ = mkdtemp(name.data());
    }
    ~Directory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
    }
    Directory(const Directory &) = delete;
    Directory &operator=(const Directory &) = delete;

    const std::string &root() const { return root_; }
    std::string path(const std::string &below) const { return root_ + "/" + below; }
    std::string dir(const std::string &below) const
    {
        std::filesystem::create_directories(path(below));
        return path(below);
    }
    std::string file(const std::string &below, const std::string &content = "") const
    {
        std::ofstream(path(below)) << content;
        return path(below);
    }

private:
    std::string root_;
};

inline std::string random_bytes(std::mt19937 &random, size_t max)
{
    std::string bytes(random() % (max + 1), '\0');
    for (char &byte : bytes)
        byte = static_cast<char>(random() % 255 + 1); /* no NUL: names have none */
    return bytes;
}

/* 2024-02-29 12:34:56.789012345 UTC. */
constexpr uint64_t kTime = 1709210096789012345;

inline agent::Event event_of(std::string_view path, uint32_t mask, uint32_t pid = 0,
                             const agent::ProcessInfo *process = nullptr)
{
    return {kTime, mask, pid, 0, path, "", process};
}

/* A stream to the Unix socket at that path. */
inline common::Fd connected_to(const std::string &path)
{
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    common::Fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(0, connect(fd.get(), reinterpret_cast<const struct sockaddr *>(&address), sizeof address)) << path;
    return fd;
}

}  // namespace agent_testing

#endif
