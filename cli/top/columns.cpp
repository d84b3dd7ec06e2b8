#include "columns.h"

#include <clocale>
#include <cwchar>
#include <vector>

#include "agent/escape.h"

namespace cli
{

namespace
{

struct Character {
    std::string_view bytes;
    size_t width;
};

uint32_t code_of(std::string_view character)
{
    uint32_t code = static_cast<uint8_t>(character[0]);
    if (character.size() > 1)
        code &= 0xffu >> (character.size() + 1);
    for (size_t i = 1; i < character.size(); i++)
        code = code << 6 | (static_cast<uint8_t>(character[i]) & 0x3f);
    return code;
}

/* -1: not known */
int width_of_code(uint32_t code) { return code < 0x7f && code >= ' ' ? 1 : wcwidth(static_cast<wchar_t>(code)); }

/* The next of a text that is not empty. */
std::string_view next_of(std::string_view text)
{
    const size_t length = agent::utf8_length(text);
    return text.substr(0, length ? length : 1);
}

template <typename Take>
void for_each_character(std::string_view text, Take take)
{
    while (!text.empty()) {
        const std::string_view bytes = next_of(text);
        const int width = agent::utf8_length(bytes) ? width_of_code(code_of(bytes)) : -1;
        take(bytes, width);
        text.remove_prefix(bytes.size());
    }
}

std::vector<Character> characters_of(std::string_view text)
{
    std::vector<Character> all;
    for_each_character(text, [&](std::string_view bytes, int width) {
        all.push_back({bytes, static_cast<size_t>(width < 0 ? 1 : width)});
    });
    return all;
}

void append_octal(std::string_view bytes, std::string &out)
{
    for (const char c : bytes) {
        const auto byte = static_cast<uint8_t>(c);
        out += {'\\', static_cast<char>('0' + (byte >> 6)), static_cast<char>('0' + (byte >> 3 & 7)),
                static_cast<char>('0' + (byte & 7))};
    }
}

constexpr std::string_view kDots = "...";

}  // namespace

void choose_widths()
{
    if (!setlocale(LC_CTYPE, "C.UTF-8"))
        setlocale(LC_CTYPE, "");
}

std::string printable(std::string_view bytes)
{
    std::string text;
    for_each_character(agent::escaped(bytes), [&](std::string_view character, int width) {
        if (width < 0)
            append_octal(character, text);
        else
            text.append(character);
    });
    return text;
}

size_t width_of(std::string_view text)
{
    size_t width = 0;
    for (const Character &each : characters_of(text))
        width += each.width;
    return width;
}

std::string cut(std::string_view text, size_t width, Keep keep)
{
    if (width_of(text) <= width)
        return std::string(text);
    std::vector<Character> all = characters_of(text);
    const std::string_view dots = kDots.substr(0, width);
    size_t left = width - dots.size();
    std::string kept;
    if (keep == Keep::kStart) {
        for (size_t i = 0; i < all.size() && all[i].width <= left; left -= all[i].width, i++)
            kept.append(all[i].bytes);
        return kept.append(dots);
    }
    size_t first = all.size();
    while (first > 0 && all[first - 1].width <= left)
        left -= all[--first].width;
    while (first < all.size() && all[first].width == 0)  // what belongs to a character that is left out
        first++;
    kept = dots;
    for (; first < all.size(); first++)
        kept.append(all[first].bytes);
    return kept;
}

std::string fit(std::string_view text, size_t width, Keep keep)
{
    std::string fitted = cut(text, width, keep);
    return fitted.append(width - width_of(fitted), ' ');
}

std::string fit_right(std::string_view text, size_t width)
{
    const std::string fitted = cut(text, width);
    return std::string(width - width_of(fitted), ' ') + fitted;
}

}  // namespace cli
