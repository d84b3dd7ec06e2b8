/*
 * watcher.h: a program that watches files, run as a child and measured from outside.
 */
#ifndef BENCH_WATCHER_H
#define BENCH_WATCHER_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

class Watcher
{
public:
    /* Starts it with stdout and stderr going to files below `directory`. `uid` 0: as this user. */
    Watcher(const std::vector<std::string> &command, const std::string &directory, uid_t uid);
    ~Watcher(); /* kills it if it still runs */
    Watcher(const Watcher &) = delete;
    Watcher &operator=(const Watcher &) = delete;

    /* Waits until it has written one of these texts. Seconds since the start, or negative: it ended or took too long.
     */
    double wait_ready(const std::vector<std::string> &texts, double limit_seconds);
    void wait_quiet(); /* until it has written nothing and hardly run for a second */
    void stop();       /* asks it to end, and waits */

    double cpu_seconds() const; /* user and system time of all its threads */
    long resident_kib() const;

    const std::string &out() const { return out_; }
    std::string errors() const; /* all that it wrote on stderr */

private:
    bool ended();
    std::string out_, err_;
    pid_t pid_ = -1;
    double started_;
};

double now_seconds();

#endif
