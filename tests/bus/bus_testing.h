/*
 * bus_testing.h: an output into a bus, and records for it.
 */
#ifndef BUS_BUS_TESTING_H
#define BUS_BUS_TESTING_H

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/fd.h"
#include "output/sinks.h"
#include "testlib/tree.h"

namespace bus_testing
{

constexpr uint64_t kPatienceMs = 60'000; /* servers that start on a busy machine */

uint64_t now_ms();
bool is_long(); /* the long versions are asked for */

/* Looks every few milliseconds whether it is so; false: not within the time. */
bool wait_until(const std::function<bool()> &ready, uint64_t timeout_ms = kPatienceMs);

/* A port of this machine that nobody listens to. */
int free_port();
/* A socket that listens to such a port; one that is connected to this port. No descriptor: it failed. */
common::Fd listen_locally(int &port);
common::Fd connect_locally(int port);

/* A program, ended with the object. */
class Server
{
public:
    Server() = default;
    explicit Server(const std::vector<std::string> &argv, const std::string &log);
    ~Server() { kill(); }
    Server(Server &&other) noexcept : pid_(std::exchange(other.pid_, -1)) {}
    Server &operator=(Server &&other) noexcept
    {
        kill();
        pid_ = std::exchange(other.pid_, -1);
        return *this;
    }
    void kill();         /* by SIGKILL */
    void stop_for_now(); /* answers nothing until go_on() */
    void go_on();

private:
    pid_t pid_ = -1;
};

std::string program_path(const std::string &name); /* empty: it is not there */

/* An output and the records that it was given. */
class Feed
{
public:
    /* False, with `error`: there is no such sink. */
    bool open(const std::string &type, const output::Settings &settings, std::string &error);
    void close() { sink_.reset(); }
    output::Sink &sink() { return *sink_; }

    /* Takes it until all are accepted: the next `count` records, each of about `length` bytes. */
    void put(uint64_t count, size_t length = 200);
    uint64_t given() const { return next_ - 1; }
    void go_on_at(uint64_t number) { next_ = number; }

    /* The names of the records so far. */
    std::vector<std::string> ids() const;
    static std::string id(uint64_t number);

private:
    std::unique_ptr<output::Sink> sink_;
    uint64_t next_ = 1;
};

/* What arrived against what was given: nothing lost, and how many came twice. */
struct Balance {
    uint64_t given = 0, arrived = 0, lost = 0, strange = 0, twice = 0;
    uint64_t out_of_order = 0; /* records that came after one with a higher number */
};
Balance balance_of(uint64_t given, const std::vector<std::string> &arrived);
void print_row(const char *what, const Balance &balance, const char *cut);

/* An output into a bus, with a directory for it. */
class BusTest : public testing::Test
{
protected:
    bool open(const std::string &type, const output::Settings &settings);
    /* Waits until the output is stuck and says so with that text. */
    bool is_stuck_with(const std::string &text);

    testlib::TempTree tree;
    Feed feed;
    std::string last_condition;
};

}  // namespace bus_testing

#endif
