#include "option.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace cli
{

bool bad_value(const Given &given, const std::string &wanted, std::string &error)
{
    error = std::string("--") + given.option.name + " takes " + wanted + ", not '" + given.value + "'";
    return false;
}

bool parse_number(std::string_view value, uint64_t low, uint64_t high, uint64_t &number)
{
    const char *end = value.data() + value.size();
    const auto [stopped, code] = std::from_chars(value.data(), end, number);
    return code == std::errc() && stopped == end && number >= low && number <= high;
}

// The limits keep "nan" and "inf" out.
bool parse_seconds(std::string_view value, double low, double high, uint64_t &milliseconds)
{
    double seconds = 0;
    const char *end = value.data() + value.size();
    const auto [stopped, code] = std::from_chars(value.data(), end, seconds, std::chars_format::fixed);
    if (code != std::errc() || stopped != end || !(seconds >= low && seconds <= high))
        return false;
    milliseconds = static_cast<uint64_t>(std::llround(seconds * 1000));
    return true;
}

namespace
{

// "a b c" as "a, b or c".
std::string spoken(std::string words)
{
    const size_t last = words.rfind(' ');
    if (last == std::string::npos)
        return words;
    words.replace(last, 1, " or ");
    for (size_t blank = words.find(' '); blank < last; blank = words.find(' ', blank + 2))
        words.insert(blank, ",");
    return words;
}

}  // namespace

int find_word(const Words &words, std::string_view value)
{
    const std::string all = words.all();
    int place = 0;
    for (size_t begin = 0; begin < all.size(); place++) {
        const size_t end = std::min(all.find(' ', begin), all.size());
        if (value == std::string_view(all).substr(begin, end - begin))
            return place;
        begin = end + 1;
    }
    return -1;
}

int parse_choice(const Given &given, std::string &error)
{
    const int place = find_word(given.option.words, given.value);
    if (place < 0)
        bad_value(given, spoken(given.option.words.all()), error);
    return place;
}

}  // namespace cli
