/*
 * text.h: numbers from configuration texts.
 */
#ifndef FMON_TEXT_H
#define FMON_TEXT_H

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

/* As the C library's atoi, but defined for every text: what follows the digits is ignored, 0 without any, and a number
 * too large loses its upper bits. */
inline int32_t text_to_int(const char *text) { return static_cast<int32_t>(strtol(text, nullptr, 10)); }

/* Strict: digits only, blanks around them allowed, 0..max; else false and *out stays. */
inline bool text_to_count(const char *text, uint32_t max, uint32_t *out)
{
    constexpr char kBlanks[] = " \t";
    const char *digits = text + strspn(text, kBlanks);
    const size_t len = strspn(digits, "0123456789");
    const char *rest = digits + len;
    if (len == 0 || rest[strspn(rest, kBlanks)] != '\0')
        return false;
    errno = 0;
    const unsigned long number = strtoul(digits, nullptr, 10);
    if (errno != 0 || number > max)
        return false;
    *out = static_cast<uint32_t>(number);
    return true;
}

#endif
