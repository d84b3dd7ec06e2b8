#include "mounts.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "below.h"

namespace agent
{

namespace
{

struct FileCloser {
    void operator()(FILE *file) const { fclose(file); }
};

std::string_view take_field(std::string_view &line)
{
    const size_t end = line.find(' ');
    const std::string_view field = line.substr(0, end);
    line.remove_prefix(end == std::string_view::npos ? line.size() : end + 1);
    return field;
}

bool is_octal(char c) { return c >= '0' && c <= '7'; }

// The kernel writes blanks, tabs, newlines and backslashes of a path as "\" and three octal digits.
std::string unescape(std::string_view text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); i++) {
        const bool is_escape = text[i] == '\\' && i + 3 < text.size() && is_octal(text[i + 1]) &&
                               is_octal(text[i + 2]) && is_octal(text[i + 3]);
        if (!is_escape) {
            out.push_back(text[i]);
            continue;
        }
        out.push_back(static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0')));
        i += 3;
    }
    return out;
}

bool has_option(std::string_view options, std::string_view wanted)
{
    while (!options.empty()) {
        const size_t end = options.find(',');
        if (options.substr(0, end) == wanted)
            return true;
        options.remove_prefix(end == std::string_view::npos ? options.size() : end + 1);
    }
    return false;
}

// "8:1" as the kernel keeps it.
uint32_t device_number(std::string_view text)
{
    uint32_t major = 0, minor = 0;
    const size_t colon = std::min(text.find(':'), text.size());
    std::from_chars(text.data(), text.data() + colon, major);
    if (colon < text.size())
        std::from_chars(text.data() + colon + 1, text.data() + text.size(), minor);
    return major << 20 | minor;
}

}  // namespace

// See proc(5): id, parent, device, root, mount point, options, optional fields, "-", type, source, more options.
bool parse_mount(std::string_view line, Mount &out)
{
    const std::string_view id = take_field(line);
    if (std::from_chars(id.data(), id.data() + id.size(), out.id).ec != std::errc())
        return false;
    take_field(line);  // parent
    out.device = device_number(take_field(line));
    const std::string_view root = take_field(line);
    out.point = unescape(take_field(line));
    const std::string_view options = take_field(line);
    while (!line.empty() && take_field(line) != "-")  // optional fields, any number
        continue;
    out.type = take_field(line);
    const std::string_view source = take_field(line);
    out.whole_device = root == "/" && !source.empty() && source.front() == '/' && !has_option(options, "ro");
    return !out.point.empty() && !out.type.empty();
}

std::vector<Mount> read_mounts(const char *table)
{
    std::vector<Mount> mounts;
    const std::unique_ptr<FILE, FileCloser> file(fopen(table, "re"));
    if (!file)
        return mounts;
    char *line = nullptr;
    size_t size = 0;
    ssize_t n;
    while ((n = getline(&line, &size, file.get())) > 0) {
        Mount mount;
        if (parse_mount({line, static_cast<size_t>(n) - (line[n - 1] == '\n')}, mount))
            mounts.push_back(std::move(mount));
    }
    free(line);
    return mounts;
}

std::vector<std::string> markable_mounts_below(const std::vector<Mount> &mounts, const std::string &path)
{
    std::vector<std::string> points;
    for (const Mount &mount : mounts)
        if (mount.whole_device && mount.point != path && is_below(path, mount.point))
            points.push_back(mount.point);
    return points;
}

}  // namespace agent
