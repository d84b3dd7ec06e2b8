#include "time_format.h"

#include <ctime>

namespace agent
{

namespace
{

constexpr uint64_t kNs = 1000000000;

// Appends ".", then `value` with exactly `digits` digits.
void append_fraction(uint64_t value, size_t digits, std::string &out)
{
    char text[10];
    for (size_t i = digits; i > 0; i--) {
        text[i] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
    text[0] = '.';
    out.append(text, digits + 1);
}

}  // namespace

void UtcTime::append(uint64_t ns, std::string &out)
{
    if (ns / kNs != second_) {
        second_ = ns / kNs;
        const time_t t = static_cast<time_t>(second_);
        struct tm tm;
        gmtime_r(&t, &tm);
        strftime(text_, sizeof text_, "%Y-%m-%dT%H:%M:%S", &tm);
    }
    out.append(text_);
    append_fraction(ns % kNs, 9, out);
    out.push_back('Z');
}

// localtime_r may look at the zone file, so it is called once a second at most.
void LocalTime::append(uint64_t ns, std::string &out)
{
    if (ns / kNs != second_) {
        second_ = ns / kNs;
        const time_t t = static_cast<time_t>(second_);
        struct tm tm;
        localtime_r(&t, &tm);
        strftime(text_, sizeof text_, "%H:%M:%S", &tm);
    }
    out.append(text_);
    append_fraction(ns % kNs / 1000000, 3, out);
}

uint64_t wall_clock_ns()
{
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * kNs + static_cast<uint64_t>(ts.tv_nsec);
}

uint64_t steady_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}

}  // namespace agent
