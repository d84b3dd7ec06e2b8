#include "log_line.h"

#include <cstdint>
#include <cstdio>

#include "orx_base.h"

namespace host
{

namespace
{

const char *level_name(int level)
{
    static constexpr const char *kNames[] = {"fatal", "error", "warning", "info", "debug"};
    static_assert(sizeof kNames / sizeof kNames[0] == ORX_LOG_DEBUG + 1);
    if (level < 0)
        return kNames[0];
    return level > ORX_LOG_DEBUG ? kNames[ORX_LOG_DEBUG] : kNames[level];
}

bool is_plain_ascii(unsigned char c) { return c >= 0x20 && c < 0x7f && c != '\\'; }

struct CodePoint {
    uint32_t value;
    size_t length; /* bytes; 0: not a character */
};

/* The first character of a text that does not begin with ASCII. */
CodePoint decode(std::string_view text)
{
    static constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000}; /* by length: shorter forms are required */
    auto lead = static_cast<unsigned char>(text[0]);
    size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4 || text.size() < length)
        return {0, 0};
    uint32_t value = lead & (0x7fu >> length);
    for (size_t i = 1; i < length; i++) {
        auto next = static_cast<unsigned char>(text[i]);
        if ((next & 0xc0) != 0x80)
            return {0, 0};
        value = value << 6 | (next & 0x3fu);
    }
    bool surrogate = value >= 0xd800 && value <= 0xdfff;
    if (value < kSmallest[length] || value > 0x10ffff || surrogate)
        return {0, 0};
    return {value, length};
}

/* Controls of the second set, line and paragraph separators, and what changes the writing direction. */
bool is_unsafe(uint32_t value)
{
    return value < 0xa0 || (value >= 0x2028 && value <= 0x202e) || (value >= 0x2066 && value <= 0x2069);
}

void append_escape(std::string &out, unsigned char c)
{
    static constexpr char kHex[] = "0123456789abcdef";
    out += '\\';
    switch (c) {
        case '\\':
            out += '\\';
            break;
        case '\n':
            out += 'n';
            break;
        case '\r':
            out += 'r';
            break;
        case '\t':
            out += 't';
            break;
        default:
            out += 'x';
            out += kHex[c >> 4];
            out += kHex[c & 0xf];
    }
}

/* Appends one character or one byte and returns how many bytes it took. */
size_t append_character(std::string &out, std::string_view text)
{
    auto first = static_cast<unsigned char>(text[0]);
    CodePoint point = first < 0x80 ? CodePoint{first, 1} : decode(text);
    if (point.length > 1 && !is_unsafe(point.value)) {
        out.append(text.substr(0, point.length));
        return point.length;
    }
    size_t length = point.length > 0 ? point.length : 1;
    for (char c : text.substr(0, length))
        append_escape(out, static_cast<unsigned char>(c));
    return length;
}

}  // namespace

void append_escaped(std::string &out, std::string_view text)
{
    size_t at = 0;
    while (at < text.size()) {
        size_t run = at;
        while (run < text.size() && is_plain_ascii(static_cast<unsigned char>(text[run])))
            run++;
        out.append(text.substr(at, run - at));
        at = run;
        if (at < text.size())
            at += append_character(out, text.substr(at));
    }
}

std::string log_line(const LogOrigin &origin, std::string_view text)
{
    struct tm utc = {};
    gmtime_r(&origin.time.tv_sec, &utc);
    char time[32], place[64];
    size_t length = strftime(time, sizeof time, "%Y-%m-%dT%H:%M:%S", &utc);
    snprintf(time + length, sizeof time - length, ".%06ldZ ", origin.time.tv_nsec / 1000);
    snprintf(place, sizeof place, ":%d [%d] ", origin.line, static_cast<int>(origin.thread));

    std::string line;
    line.reserve(text.size() + sizeof time + sizeof place + 64);
    line.append(time).append(level_name(origin.level)).append(" ");
    append_escaped(line, origin.file ? origin.file : "?");
    line.append(place);
    append_escaped(line, text);
    line += '\n';
    return line;
}

}  // namespace host
