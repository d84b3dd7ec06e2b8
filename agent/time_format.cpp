#include "time_format.h"

#include <ctime>
#include <iomanip>
#include <sstream>

namespace agent
{

namespace
{

constexpr uint64_t kNs = 1000000000;

constexpr size_t kNsDigits = 9;

// Appends the first `digits` digits of a fraction of a second.
void append_fraction(uint64_t ns, size_t digits, std::string &out)
{
    char text[kNsDigits];
    for (size_t i = kNsDigits; i > 0; i--) {
        text[i - 1] = static_cast<char>('0' + ns % 10);
        ns /= 10;
    }
    out.append(text, digits);
}

// The digits that "%N" or "%3N" at the start of a format asks for; 0: it is something else. `length`: of what was
// looked at, which is "%%" as a whole, so that "%%N" has no fraction in it.
size_t fraction_digits(std::string_view format, size_t &length)
{
    const bool is_directive = format.size() > 1 && format[0] == '%';
    length = is_directive ? 2 : 1;
    if (!is_directive || format[1] == 'N')
        return is_directive ? kNsDigits : 0;
    if (format.size() < 3 || format[1] < '1' || format[1] > '9' || format[2] != 'N')
        return 0;
    length = 3;
    return static_cast<size_t>(format[1] - '0');
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
    out.append(text_).push_back('.');
    append_fraction(ns % kNs, kNsDigits, out);
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
    out.append(text_).push_back('.');
    append_fraction(ns % kNs, 3, out);
}

FormattedTime::FormattedTime(std::string_view format)
{
    parts_.emplace_back();
    while (!format.empty()) {
        size_t length;
        const size_t digits = fraction_digits(format, length);
        if (digits) {
            parts_.back().digits = digits;
            parts_.emplace_back();
        } else {
            parts_.back().format.append(format.substr(0, length));
        }
        format.remove_prefix(length);
    }
}

void FormattedTime::render(uint64_t second)
{
    second_ = second;
    const time_t t = static_cast<time_t>(second);
    struct tm tm;
    localtime_r(&t, &tm);
    for (Part &part : parts_) {
        std::ostringstream text;
        text << std::put_time(&tm, part.format.c_str());
        part.text = text.str();
    }
}

void FormattedTime::append(uint64_t ns, std::string &out)
{
    if (ns / kNs != second_)
        render(ns / kNs);
    for (const Part &part : parts_) {
        out.append(part.text);
        append_fraction(ns % kNs, part.digits, out);
    }
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
