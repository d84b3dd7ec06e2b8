/*
 * harness.h: starts the programs under test and follows what they print. Everything has a time limit.
 */
#ifndef SYSTEM_HARNESS_H
#define SYSTEM_HARNESS_H

#include <sys/types.h>

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "events_source.h"
#include "json.h"
#include "testlib/tree.h"

namespace systest
{

using Names = std::set<std::string>;
using Paths = std::map<std::string, Names>; /* path below the watched directory -> event names */

constexpr int kPatienceMs = 15000; /* a machine under load is slow, not wrong */

/* Monotonic milliseconds. */
int64_t now_ms();

/* "create,open" -> {"create", "open"} */
Names names(const std::string &list);
Paths paths(const std::map<std::string, std::string> &table);

/* Runs `body` in a child that has done so when the constructor returns, and lives as long as the object. */
class Child
{
public:
    explicit Child(const std::function<void()> &body);
    ~Child();
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    pid_t pid() const { return pid_; }

private:
    pid_t pid_;
};

struct Launch {
    std::vector<std::string> argv;
    bool close_standard = false; /* start without descriptors 0, 1 and 2 */
    std::vector<std::string> env = {};
};

/* A program of ours that runs the staged libraries. */
class Process
{
public:
    explicit Process(const Launch &launch);
    ~Process(); /* kills what still runs */
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    pid_t pid() const { return pid_; }
    /* The next line of its standard output without the newline; nothing at its end or after `ms`. */
    std::optional<std::string> line(int ms = kPatienceMs);
    std::string errors() const; /* what it wrote to standard error so far */
    void close_input();
    void send(int signal);
    /* The exit status, 128 + signal, or -1 when it still runs after `ms`. */
    int wait(int ms = kPatienceMs);
    int interrupt(); /* sends SIGINT; the result of wait() */

private:
    testlib::TempTree scratch_;
    pid_t pid_;
    int in_, out_;
    std::string buffer_;
    bool reaped_ = false;
};

/* Whether the kernel-probe library works on this kernel, and the monitor so hears of names by probes. */
bool probes_work();
/* The longest file name, in bytes, that is reported whole. */
size_t longest_name();

/* `fmon watch --format json ARGUMENTS` over one directory. */
class Watch
{
public:
    Watch(std::string root, const std::vector<std::string> &arguments);

    /* The first line; fails the test when it is not `established`. */
    Json established();
    /* The next object of the output, checked for what every object has. */
    std::optional<Json> next(int ms = kPatienceMs);
    /* The next of that type, others skipped; fails the test when none comes within `ms`. */
    Json next_of(const std::string &type, int ms = kPatienceMs);

    /* Makes a marker file in `dir` and reads until everything that happened before it has been reported: each kernel
     * queue is in order, so the marker is awaited from both (`awaited`). Returns what was reported, markers and
     * what the monitor itself did while reading directories left out. */
    Paths barrier(const std::string &dir, const Names &awaited = {"create", "close_write"});
    /* The same for several rounds of `act`, until something is reported or time is up. */
    Paths until_reported(const std::function<void(int round)> &act, int ms = kPatienceMs);

    void losses_are_due() { losses_are_due_ = true; } /* what is lost is told, and no failure of the test */

    const std::vector<Json> &events() const { return events_; } /* of the last barrier, with markers left out */
    Process &process() { return process_; }
    int stop(); /* SIGINT; the exit status */

private:
    void await_marker(const std::string &dir, const Names &awaited, Paths &seen);
    bool is_marker(const std::string &path) const;
    bool is_own_reading(const Json &event) const;
    void take(const Json &event, Paths &seen);

    std::string root_;
    Process process_;
    std::vector<Json> events_;
    bool losses_are_due_ = false;
    int markers_ = 0;
};

/* The test agent over one directory, with both clients' watches placed. */
class Agent : public Process
{
public:
    Agent(const std::string &root, const std::vector<std::string> &options = {},
          const std::string &program = FMON_TEST_AGENT);
};

/* One delivery that the agent printed. */
struct Delivery {
    std::string client, path;
    unsigned mask, pid;
};
std::optional<Delivery> parse_delivery(const std::string &line);

/* ---- file operations as single system calls; each fails the test when the call fails ---- */
void make_file(const std::string &path, const std::string &content = "x"); /* open, write, close */
void append_file(const std::string &path, const std::string &content = "x");
void read_file(const std::string &path);
void make_dir(const std::string &path);
void move(const std::string &from, const std::string &to);
void hard_link(const std::string &from, const std::string &to);
void change_mode(const std::string &path, mode_t mode);
void remove_file(const std::string &path);
void remove_dir(const std::string &path);
std::string content(const std::string &path); /* empty: it cannot be read */
void pause_ms(int ms);

}  // namespace systest

#endif
