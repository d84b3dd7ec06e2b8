/*
 * clients.h: eight clients of the module in this process, all that they are told, and the commands beside them.
 */
#ifndef HOSTILE_CLIENTS_H
#define HOSTILE_CLIENTS_H

#include <array>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "ground.h"
#include "orx_fmon.h"
#include "system/marks.h"

namespace hostile
{

using systest::Asked;
using systest::Marks;

constexpr int kClients = 8;

/* Who watches what: trees with and without "sync" and "delay", kinds of files and of names, single directories, files.
 */
enum Client { kAll, kSync, kDelay, kFlatFiles, kFlatNames, kOwnDirs, kFileWrites, kFileAll };

struct Planned {
    int client;
    Asked watch;
};

/* What somebody was told of a path. */
using Told = std::array<uint32_t, kClients>;

/* The paths that are looked out for, and what was told of each. Any thread. */
class Signs
{
public:
    void look_for(const std::string &path);
    void forbid(const std::string &path); /* told of, the path is a false one */
    void told(int client, const std::string &path, uint32_t mask);
    Told seen(const std::string &path);
    void forget(); /* all but what is forbidden */
    std::vector<std::string> false_ones();

private:
    std::mutex lock_;
    std::unordered_map<std::string, Told> seen_;
    std::map<std::string, uint32_t> forbidden_;
};

/* The module with its eight clients; one in a process, and for its life. */
class Clients
{
public:
    /* The ground's root. */
    Clients(Shared *shared, std::string root);

    /* Starts the module, hardened, without limits of rate, and places the watches. An empty text, or what failed. */
    std::string start(const std::vector<Planned> &plan);

    Signs &signs() { return signs_; }
    std::vector<std::string> strays(); /* paths outside of what is watched that were told of */
    uint64_t delivered() const { return delivered_.load(); }

    /* The cached directories' paths, and how long the latest of the calm directory's files took to be told of. */
    static std::vector<std::string> dentries();
    void told(int client, const struct event *event);

private:
    void take_fence(const char *name, uint32_t mask);

    Shared *shared_;
    const std::string root_;
    Signs signs_;
    std::mutex lock_;
    std::vector<std::string> strays_;
    std::atomic<uint64_t> delivered_ = 0;
};

/* A fence's number and whose it is, out of a path's last name. */
bool parse_fence(const char *name, int *index, uint64_t *number);

/* Lets the post know that what was told of reached this far. */
void pass_fence(Shared *shared, const char *name, bool names, bool files, Queue first);

/* `fmon watch` over a part of the ground; what it prints is taken in when asked for. */
class Command
{
public:
    Command(Shared *shared, const std::vector<std::string> &arguments, std::vector<Asked> watches);

    bool established();
    void take(); /* what is there now */
    Signs &signs() { return signs_; }
    pid_t pid() const { return process_.pid(); }
    const std::vector<Asked> &watches() const { return watches_; }
    uint64_t lost(const std::string &source) { return losses_[source]; }
    int stop() { return process_.interrupt(); }
    std::string errors() const { return process_.errors(); }

private:
    void take_line(const std::string &line);

    Shared *shared_;
    systest::Process process_;
    std::vector<Asked> watches_;
    Signs signs_;
    std::map<std::string, uint64_t> losses_;
};

}  // namespace hostile

#endif
