/*
 * churn.h: many files that are created, written, closed and deleted at once, and how much of that a watcher reported.
 */
#ifndef BENCH_CHURN_H
#define BENCH_CHURN_H

#include <cstdint>
#include <string>
#include <vector>

/* What happens to each file. */
enum ChurnKind : uint8_t { kCreated = 1, kModified = 2, kClosed = 4, kDeleted = 8 };

/* Makes DIRECTORIES directories below `root`, for run_churn(). */
void prepare_churn(const std::string &root, int directories);

struct ChurnCost {
    double cpu, wall; /* of the process that did it, seconds */
};
/* `files` files, one after the other, by a process of its own. */
ChurnCost run_churn(const std::string &root, int directories, int files);

/* What a watcher's output says of a churn: its lines are those of fmon's text, inotifywait or fatrace. */
struct ChurnReport {
    std::vector<uint8_t> files;    /* the kinds of each */
    uint64_t lines = 0, named = 0; /* lines that name a process */
    bool loss = false;

    void read(const std::string &output, int count);
    /* How many of the wanted kinds came, of all that happened. */
    double seen(unsigned kinds) const;
};

#endif
