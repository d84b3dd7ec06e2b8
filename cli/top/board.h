/*
 * board.h: what the session writes and the display reads: the counts, and what is to be said beside them. Any thread.
 */
#ifndef CLI_TOP_BOARD_H
#define CLI_TOP_BOARD_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "common/mutex.h"
#include "counts.h"

namespace cli
{

/* Beside the counts. */
struct Status {
    std::string what;   /* is watched: "/srv /etc" */
    std::string source; /* of its events, as in agent::Established */
    uint64_t directories = 0;
    std::map<std::string, uint64_t> losses; /* by source */
    std::string message;                    /* the latest; empty: none */
};

/* What is to be seen at a moment. */
struct Seen {
    Status status;
    std::vector<Row> rows;
    std::vector<Kind> kinds;
    uint64_t total = 0, recent = 0;
    uint64_t now_ms = 0; /* after the start */
    std::string clock;   /* the time of day */
};

class Board
{
public:
    /* `start_ms`: when watching began; all times are agent::steady_ms(). */
    explicit Board(uint64_t start_ms, size_t most = 16384) : start_ms_(start_ms), state_{Counts(most), {}} {}

    void add(const Happening &event, uint64_t now_ms);
    void established(const std::string &what, const std::string &source, uint64_t directories);
    void lost(const std::string &source, uint64_t count);
    void say(const std::string &message);

    /* While it is paused, what is seen is what was to be seen then; counting goes on. */
    void pause(bool on, uint64_t now_ms);
    Seen look(const Query &query, uint64_t now_ms) const;

private:
    struct State {
        Counts counts;
        Status status;
        uint64_t paused_ms = 0;
        std::string clock{};
    };

    const uint64_t start_ms_;
    mutable common::Mutex lock_;
    State state_ GUARDED_BY(lock_);
    std::unique_ptr<State> paused_ GUARDED_BY(lock_);
};

}  // namespace cli

#endif
