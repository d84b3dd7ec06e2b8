/*
 * limits.h: the kernel's limits that a benchmark needs lifted for its life.
 */
#ifndef BENCH_LIMITS_H
#define BENCH_LIMITS_H

#include <string>

/* Raises a number in /proc/sys while it lives, and puts the old one back. Lowers nothing. */
class Limit
{
public:
    Limit(const std::string &name, long wanted);
    ~Limit();
    Limit(const Limit &) = delete;
    Limit &operator=(const Limit &) = delete;
    bool enough() const { return enough_; }

private:
    std::string path_;
    long before_;
    bool raised_ = false, enough_;
};

/* Room for both kinds of marks on that many directories. Only root can make it. */
class MarkLimits
{
public:
    explicit MarkLimits(long directories);
    bool enough() const { return watches_.enough() && marks_.enough(); }

private:
    Limit watches_, marks_;
};

#endif
