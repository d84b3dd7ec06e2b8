/*
 * time_format.h: times as text. Both formatters remember the text of the last second, which most calls share.
 */
#ifndef AGENT_TIME_FORMAT_H
#define AGENT_TIME_FORMAT_H

#include <cstdint>
#include <string>

namespace agent
{

/* RFC 3339 in UTC with nanoseconds: 2024-02-29T23:59:59.000000001Z. `ns` counts from 1970. */
class UtcTime
{
public:
    void append(uint64_t ns, std::string &out);

private:
    uint64_t second_ = UINT64_MAX;
    char text_[32] = {};
};

/* Local time of day with milliseconds: 23:59:59.000. */
class LocalTime
{
public:
    void append(uint64_t ns, std::string &out);

private:
    uint64_t second_ = UINT64_MAX;
    char text_[16] = {};
};

uint64_t wall_clock_ns();
uint64_t steady_ms(); /* monotonic, a few milliseconds coarse, cheap */

}  // namespace agent

#endif
