/*
 * time_format.h: times as text. All formatters remember the text of the last second, which most calls share.
 */
#ifndef AGENT_TIME_FORMAT_H
#define AGENT_TIME_FORMAT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

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

/* Local time by a format of strftime(3), in which %N stands for the nine digits of the second's fraction, and %1N to
 * %9N for the first so many of them. */
class FormattedTime
{
public:
    static constexpr size_t kMaxFormat = 128; /* bytes, more than any log file needs */

    explicit FormattedTime(std::string_view format);
    void append(uint64_t ns, std::string &out);

private:
    struct Part {
        std::string format;
        size_t digits = 0; /* of the fraction behind it */
        std::string text = {};
    };
    void render(uint64_t second);

    std::vector<Part> parts_;
    uint64_t second_ = UINT64_MAX;
};

uint64_t wall_clock_ns();
uint64_t steady_ms(); /* monotonic, a few milliseconds coarse, cheap */

}  // namespace agent

#endif
