#include "definition.h"

#include <cctype>
#include <cstring>

namespace kprobe
{

namespace
{

constexpr int kLevels = 11;

std::string field(const char *bytes, size_t room) { return std::string(bytes, strnlen(bytes, room)); }

const char *pointed(uint64_t u) { return reinterpret_cast<const char *>(static_cast<uintptr_t>(u)); }

// The place inside `levels` dereferences: "+172(+224(+104(%si)))" with 3 is "%si". Empty: it is nested less deeply.
std::string_view inner_place(std::string_view place, int levels)
{
    for (; levels > 0; levels--) {
        const size_t open = place.find('(');
        if (open == std::string_view::npos || place.back() != ')')
            return {};
        place = place.substr(open + 1, place.size() - open - 2);
    }
    return place;
}

// Counts the arguments LETTER0, LETTER1, … from `first` on.
size_t count_fields(const std::vector<FetchArg> &args, size_t first, char letter)
{
    size_t n = 0;
    while (first + n < args.size() && args[first + n].name == std::string{letter, static_cast<char>('0' + n)})
        n++;
    return n;
}

// "mnt", then the ancestors from "l" to "b" and the own name "a". False: another kind of record.
bool take_file_shape(Definition &def)
{
    if (def.args.empty() || def.args[0].name != "mnt")
        return false;
    size_t next = 1;
    for (int level = kLevels; level >= 0; level--) {
        const size_t fields = count_fields(def.args, next, static_cast<char>('a' + level));
        if (fields != 4 && fields != 8)
            return false;
        next += fields;
    }
    def.dentry = inner_place(def.args[0].place, 3);
    def.more.assign(def.args.begin() + static_cast<std::ptrdiff_t>(next), def.args.end());
    return !def.dentry.empty();
}

bool is_inotify_shape(const Definition &def)
{
    return def.args.size() > 3 && def.args[0].name == "i" && def.args[1].name == "w" && def.args[2].name == "m" &&
           def.args[3].name == "f0";
}

bool parse_arg(std::string_view text, FetchArg &out)
{
    const size_t equals = text.find('=');
    if (equals == std::string_view::npos || !is_identifier(text.substr(0, equals)))
        return false;
    out.name = text.substr(0, equals);
    std::string_view place = text.substr(equals + 1);
    const size_t colon = place.rfind(':');
    if (colon != std::string_view::npos) {
        out.type = place.substr(colon + 1);
        place = place.substr(0, colon);
        if (out.type.empty())
            return false;
    }
    out.place = place;
    return !place.empty();
}

}  // namespace

bool is_identifier(std::string_view text)
{
    if (text.empty() || isdigit(static_cast<unsigned char>(text[0])))
        return false;
    for (const char c : text)
        if (!isalnum(static_cast<unsigned char>(c)) && c != '_')
            return false;
    return true;
}

size_t type_size(std::string_view type, size_t word)
{
    if (type.empty())
        return word;
    if (type[0] != 'u' && type[0] != 's' && type[0] != 'x')
        return 0;
    const std::string_view bits = type.substr(1);
    return bits == "8" ? 1 : bits == "16" ? 2 : bits == "32" ? 4 : bits == "64" ? 8 : 0;
}

bool parse_fetch(std::string_view text, std::vector<FetchArg> &out)
{
    out.clear();
    while (!text.empty()) {
        const size_t end = std::min(text.find(' '), text.size());
        if (end > 0) {
            out.emplace_back();
            if (!parse_arg(text.substr(0, end), out.back()))
                return false;
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return true;
}

bool parse_definition(const kp_probe_def &record, Definition &out)
{
    out = {};
    out.kind = record.kind;
    out.on = record.c0 == '1';
    out.point = field(record.point, sizeof(record.point));
    out.name = field(record.name, sizeof(record.name));
    const char *fetch = pointed(record.fetch.u), *filter = pointed(record.filter.u);
    if (out.kind != 'p' || !is_identifier(out.point) || !is_identifier(out.name) || !fetch)
        return false;
    if (strnlen(fetch, kMaxFetch + 1) > kMaxFetch || (filter && strnlen(filter, kMaxFilter + 1) > kMaxFilter))
        return false;
    if (!parse_fetch(fetch, out.args))
        return false;
    out.filter = filter ? filter : "";
    if (take_file_shape(out))
        out.shape = Shape::kFile;
    else if (is_inotify_shape(out))
        out.shape = Shape::kInotify;
    return true;
}

}  // namespace kprobe
