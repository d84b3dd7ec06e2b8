#include "escape.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace agent
{

namespace
{

uint8_t byte_at(std::string_view text, size_t i) { return static_cast<uint8_t>(text[i]); }

struct Lead {
    size_t length;
    uint8_t low, high; /* bounds of the second byte */
};

// The bounds of the second byte are what keeps overlong forms, surrogates and values above U+10FFFF out.
Lead lead_byte(uint8_t b)
{
    if (b >= 0xc2 && b <= 0xdf)
        return {2, 0x80, 0xbf};
    if (b == 0xe0)
        return {3, 0xa0, 0xbf};
    if (b == 0xed)
        return {3, 0x80, 0x9f};
    if (b >= 0xe1 && b <= 0xef)
        return {3, 0x80, 0xbf};
    if (b == 0xf0)
        return {4, 0x90, 0xbf};
    if (b >= 0xf1 && b <= 0xf3)
        return {4, 0x80, 0xbf};
    if (b == 0xf4)
        return {4, 0x80, 0x8f};
    return {0, 0, 0};
}

// Bytes that every function here copies as they are.
bool is_plain(uint8_t b) { return b >= 0x20 && b < 0x7f && b != '\\'; }

// C1 controls (0x9b starts a control sequence on some terminals), direction marks and overrides, line separators.
bool is_hidden_character(std::string_view s)
{
    if (s.size() == 2)
        return (byte_at(s, 0) == 0xc2 && byte_at(s, 1) < 0xa0) || s == "\xd8\x9c";
    if (s.size() != 3 || byte_at(s, 0) != 0xe2)
        return s == "\xef\xbb\xbf";
    const uint8_t second = byte_at(s, 1), third = byte_at(s, 2);
    if (second == 0x80)
        return (third >= 0x8b && third <= 0x8f) || (third >= 0xa8 && third <= 0xae);
    return second == 0x81 && third >= 0xa0 && third <= 0xaf;
}

void append_octal(uint8_t b, std::string &out)
{
    const char digits[4] = {'\\', static_cast<char>('0' + (b >> 6)), static_cast<char>('0' + ((b >> 3) & 7)),
                            static_cast<char>('0' + (b & 7))};
    out.append(digits, sizeof digits);
}

void append_escaped_byte(uint8_t b, std::string &out)
{
    constexpr char kLetters[] = "abtnvfr";  // 7 to 13
    if (b == '\\') {
        out.append("\\\\");
    } else if (b >= 7 && b <= 13) {
        out.push_back('\\');
        out.push_back(kLetters[b - 7]);
    } else {
        append_octal(b, out);
    }
}

size_t plain_prefix(std::string_view text)
{
    size_t n = 0;
    while (n < text.size() && is_plain(byte_at(text, n)))
        n++;
    return n;
}

// Of one to three bytes: what lies beyond has no hidden characters.
void append_unicode(std::string_view character, std::string &out)
{
    const uint32_t lead[] = {0x7f, 0x1f, 0x0f};
    uint32_t value = byte_at(character, 0) & lead[character.size() - 1];
    for (size_t i = 1; i < character.size(); i++)
        value = value << 6 | (byte_at(character, i) & 0x3fu);
    char text[8];
    snprintf(text, sizeof text, "\\u%04x", value & 0xffffu);
    out.append(text);
}

// The first character, which is not plain. Returns how many bytes were consumed.
size_t append_escaped_character(std::string_view text, std::string &out)
{
    const size_t length = utf8_length(text);
    if (length <= 1) {
        append_escaped_byte(byte_at(text, 0), out);
        return 1;
    }
    if (!is_hidden_character(text.substr(0, length))) {
        out.append(text.substr(0, length));
        return length;
    }
    for (size_t i = 0; i < length; i++)
        append_octal(byte_at(text, i), out);
    return length;
}

}  // namespace

size_t utf8_length(std::string_view text)
{
    const uint8_t first = byte_at(text, 0);
    if (first < 0x80)
        return 1;
    const Lead lead = lead_byte(first);
    if (lead.length == 0 || text.size() < lead.length)
        return 0;
    if (byte_at(text, 1) < lead.low || byte_at(text, 1) > lead.high)
        return 0;
    for (size_t i = 2; i < lead.length; i++)
        if ((byte_at(text, i) & 0xc0) != 0x80)
            return 0;
    return lead.length;
}

bool is_utf8(std::string_view text)
{
    // Most names are ASCII: eight bytes at a time.
    uint64_t eight;
    while (text.size() >= sizeof eight) {
        memcpy(&eight, text.data(), sizeof eight);
        if (eight & 0x8080808080808080)
            break;
        text.remove_prefix(sizeof eight);
    }
    while (!text.empty()) {
        const size_t length = utf8_length(text);
        if (length == 0)
            return false;
        text.remove_prefix(length);
    }
    return true;
}

void append_utf8(std::string_view text, std::string &out)
{
    while (!text.empty()) {
        const size_t length = utf8_length(text);
        if (length)
            out.append(text.substr(0, length));
        else
            out.append("\xef\xbf\xbd");
        text.remove_prefix(length ? length : 1);
    }
}

void append_escaped(std::string_view text, std::string &out)
{
    while (!text.empty()) {
        const size_t plain = plain_prefix(text);
        out.append(text.substr(0, plain));
        text.remove_prefix(plain);
        if (!text.empty())
            text.remove_prefix(append_escaped_character(text, out));
    }
}

void append_safe(std::string_view text, std::string &out)
{
    size_t backslash;
    while ((backslash = text.find('\\')) != std::string_view::npos) {
        append_escaped(text.substr(0, backslash), out);
        out.push_back('\\');
        text.remove_prefix(backslash + 1);
    }
    append_escaped(text, out);
}

std::string escaped(std::string_view text)
{
    std::string out;
    append_escaped(text, out);
    return out;
}

void append_json_safe(std::string_view json, std::string &out)
{
    while (!json.empty()) {
        const size_t length = std::max<size_t>(utf8_length(json), 1);
        const std::string_view character = json.substr(0, length);
        if (character == "\x7f" || is_hidden_character(character))
            append_unicode(character, out);
        else
            out.append(character);
        json.remove_prefix(length);
    }
}

void append_csv(std::string_view field, std::string &out)
{
    if (field.find_first_of(",\"\r\n") == std::string_view::npos) {
        out.append(field);
        return;
    }
    out.push_back('"');
    for (const char c : field) {
        if (c == '"')
            out.push_back('"');
        out.push_back(c);
    }
    out.push_back('"');
}

void append_base64(std::string_view bytes, std::string &out)
{
    constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (size_t i = 0; i < bytes.size(); i += 3) {
        const size_t n = bytes.size() - i < 3 ? bytes.size() - i : 3;
        uint32_t group = 0;
        for (size_t k = 0; k < 3; k++)
            group = group << 8 | (k < n ? byte_at(bytes, i + k) : 0u);
        for (size_t k = 0; k < 4; k++)
            out.push_back(k <= n ? kDigits[group >> (18 - 6 * k) & 63] : '=');
    }
}

}  // namespace agent
