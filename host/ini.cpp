/* INI files, as orx_base.h and orx_host.h have them: load, get, free, and values that override. */

#include <fcntl.h>
#include <ini.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "common/mutex.h"
#include "guard.h"
#include "orx_base.h"
#include "orx_host.h"

/*
 * The dialect is libinih's: "[section]", "key = value" or "key: value", comments after ";" or "#" at the start of a
 * line and after " ;" behind a value. Sections and keys are case-sensitive; keys before the first section are in
 * section "". Where a key stands twice in a section, the last one counts. An indented line is a line like any other.
 * Lines that libinih cannot hold, and lines with a NUL in them, are skipped.
 */
namespace
{

constexpr char kFile[] = "ini.c";
constexpr size_t kMaxFile = 4 << 20; /* bytes; a configuration file is a thousandth of that */
constexpr size_t kMaxSection = 49;   /* bytes of a section's name that libinih keeps */
constexpr char kBlanks[] = " \t\r\f\v";

using Key = std::pair<std::string, std::string>; /* section, name */
using Values = std::map<Key, std::string>;

/* What orx_host_ini_override has set, for the life of the process. */
struct Overrides {
    common::Mutex lock;
    Values values GUARDED_BY(lock);
};

Overrides &overrides()
{
    static Overrides *const all = new Overrides; /* never destroyed: threads may load files while the process ends */
    return *all;
}

/* Sections are stored, overridden and asked for by the part of the name that libinih keeps. */
Key make_key(std::string_view section, std::string_view name)
{
    return {std::string(section.substr(0, kMaxSection)), std::string(name)};
}

/* Hands the lines of a text to libinih, which would go on with the rest of an overlong line as if it were a new one,
 * and takes an indented line for the continuation of the one before. */
class LineReader
{
public:
    LineReader(const char *path, std::string_view text) : path_(path), rest_(text) {}

    /* An ini_reader: at most size - 1 bytes, null at the end. */
    static char *next(char *out, int size, void *reader)
    {
        return static_cast<LineReader *>(reader)->read(out, static_cast<size_t>(size));
    }

private:
    char *read(char *out, size_t size)
    {
        while (!rest_.empty()) {
            std::string_view line = take_line();
            number_++;
            if (is_section(line) && line.size() > kMaxSection + 2)
                return copy_section(out, line.substr(1, kMaxSection));
            if (line.size() < size && line.find('\0') == std::string_view::npos)
                return copy(out, line);
            if (!is_comment(line))
                error_output(ORX_LOG_WARNING, kFile, __LINE__, "%s, line %d is skipped: too long or binary", path_,
                             number_);
        }
        return nullptr;
    }

    std::string_view take_line()
    {
        size_t end = std::min(rest_.find('\n'), rest_.size());
        std::string_view line = rest_.substr(0, end);
        rest_.remove_prefix(std::min(end + 1, rest_.size()));
        return line.substr(std::min(line.find_first_not_of(kBlanks), line.size()));
    }

    static bool is_section(std::string_view line) { return !line.empty() && line.front() == '['; }
    static bool is_comment(std::string_view line) { return !line.empty() && strchr(";#", line.front()) != nullptr; }

    static char *copy(char *out, std::string_view line)
    {
        memcpy(out, line.data(), line.size());
        out[line.size()] = 0;
        return out;
    }

    static char *copy_section(char *out, std::string_view name)
    {
        out[0] = '[';
        copy(out + 1, name);
        out[1 + name.size()] = ']';
        out[2 + name.size()] = 0;
        return out;
    }

    const char *path_;
    std::string_view rest_;
    int number_ = 0;
};

/* An ini_handler; libinih is C and must not see an exception. */
int store(void *values, const char *section, const char *name, const char *value)
{
    return host::without_exceptions(0, [&] {
        (*static_cast<Values *>(values))[make_key(section, name)] = value ? value : "";
        return 1;
    });
}

/* The whole file, or nothing. Opened without waiting: the path may be a pipe that nobody writes to. */
std::optional<std::string> read_file(const char *path)
{
    host::Fd fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat st;
    if (!fd || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode))
        return std::nullopt;
    std::string text;
    char block[4096];
    ssize_t got;
    while ((got = read(fd.get(), block, sizeof block)) > 0) {
        text.append(block, static_cast<size_t>(got));
        if (text.size() > kMaxFile) {
            error_output(ORX_LOG_ERROR, kFile, __LINE__, "%s is not loaded: more than %zu bytes", path, kMaxFile);
            return std::nullopt;
        }
    }
    return got == 0 ? std::optional(std::move(text)) : std::nullopt;
}

std::unique_ptr<Values> load(const char *path)
{
    std::optional<std::string> text = read_file(path);
    Overrides &set = overrides();
    const common::Lock hold(set.lock);
    if (!text && set.values.empty())
        return nullptr;
    auto values = std::make_unique<Values>();
    if (text) {
        LineReader reader(path, *text);
        int bad_line = ini_parse_stream(LineReader::next, &reader, store, values.get());
        if (bad_line != 0)
            error_output(ORX_LOG_WARNING, kFile, __LINE__, "%s has lines that are neither section nor value", path);
    }
    for (const auto &[key, value] : set.values)
        (*values)[key] = value;
    return values;
}

void set_override(const char *section, const char *key, const char *value)
{
    Overrides &set = overrides();
    const common::Lock hold(set.lock);
    if (value)
        set.values[make_key(section, key)] = value;
    else
        set.values.erase(make_key(section, key));
}

}  // namespace

void *orx_ini_file_load(const char *path)
{
    if (!path)
        return nullptr;
    return host::without_exceptions<Values *>(nullptr, [path] { return load(path).release(); });
}

const char *orx_ini_file_get(void *ini, const char *section, const char *key)
{
    if (!ini || !section || !key)
        return nullptr;
    return host::without_exceptions<const char *>(nullptr, [=]() -> const char * {
        const auto &values = *static_cast<const Values *>(ini);
        auto found = values.find(make_key(section, key));
        return found == values.end() ? nullptr : found->second.c_str();
    });
}

void orx_ini_file_free(void *ini) { delete static_cast<Values *>(ini); }

int orx_host_ini_override(const char *section, const char *key, const char *value)
{
    if (!section || !key)
        return -1;
    return host::without_exceptions(-1, [=] {
        set_override(section, key, value);
        return 0;
    });
}
