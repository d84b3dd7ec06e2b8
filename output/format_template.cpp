/* Events by a template of the user's; format.h. */

#include <algorithm>
#include <cctype>
#include <string>

#include "agent/escape.h"
#include "agent/event_names.h"
#include "file_facts.h"
#include "format.h"
#include "record_time.h"

namespace output
{

namespace
{

enum class Part : char {
    kText = 0,
    kEvents = 'e',
    kPath = 'p',
    kDirectory = 'w',
    kFileName = 'F',
    kPid = 'P',
    kName = 'n',
    kAncestors = 'a',
    kTime = 't',
    kFound = 'f',
    kIsDirectory = 'd',
    kOldPath = 'o',
    kInode = 'i',
    kDevice = 'D',
    kGroup = 'g'
};

struct Piece {
    Part part;
    std::string text; /* of kText */
};

bool is_octal(char c) { return c >= '0' && c <= '7'; }

// Where the last name of a path begins: what stands before, "/" included, is its directory.
size_t name_at(std::string_view path) { return path.rfind('/') + 1; }

int hex_value(char c)
{
    const int lower = std::tolower(static_cast<unsigned char>(c));
    if (lower >= '0' && lower <= '9')
        return lower - '0';
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

/* Cuts a template into pieces. */
class Parser
{
public:
    Parser(std::string_view pattern, std::string &error) : rest_(pattern), error_(error) {}

    bool parse(std::vector<Piece> &pieces)
    {
        while (!rest_.empty()) {
            const char c = next();
            const bool ok = c == '%' ? directive(pieces) : c == '\\' ? escape(pieces) : literal(c, pieces);
            if (!ok)
                return false;
        }
        return true;
    }

private:
    char next()
    {
        const char c = rest_.front();
        rest_.remove_prefix(1);
        return c;
    }

    static bool literal(char c, std::vector<Piece> &pieces)
    {
        if (pieces.empty() || pieces.back().part != Part::kText)
            pieces.push_back({Part::kText, {}});
        pieces.back().text.push_back(c);
        return true;
    }

    bool directive(std::vector<Piece> &pieces)
    {
        if (rest_.empty())
            return fail("ends in a single \"%\"");
        const char c = next();
        if (c == '%')
            return literal(c, pieces);
        if (std::string_view("epwFPnatfdoiDg").find(c) == std::string_view::npos)
            return fail("has the unknown \"%" + agent::escaped({&c, 1}) + "\"");
        pieces.push_back({static_cast<Part>(c), {}});
        return true;
    }

    bool escape(std::vector<Piece> &pieces)
    {
        constexpr std::string_view kLetters = "abefnrtv\\", kBytes = "\a\b\033\f\n\r\t\v\\";
        if (rest_.empty())
            return fail("ends in a single \"\\\"");
        const char c = next();
        if (is_octal(c))
            return literal(octal(c), pieces);
        if (c == 'x')
            return hexadecimal(pieces);
        const size_t i = kLetters.find(c);
        if (i == std::string_view::npos)
            return fail("has the unknown \"\\" + agent::escaped({&c, 1}) + "\"");
        return literal(kBytes[i], pieces);
    }

    // Up to three digits, the first of which has been read; what does not fit into a byte loses its upper bits.
    char octal(char first)
    {
        int value = first - '0';
        for (int i = 0; i < 2 && !rest_.empty() && is_octal(rest_.front()); i++)
            value = value * 8 + (next() - '0');
        return static_cast<char>(value);
    }

    bool hexadecimal(std::vector<Piece> &pieces)
    {
        if (rest_.empty() || hex_value(rest_.front()) < 0)
            return fail("has \"\\x\" without a hexadecimal digit");
        int value = hex_value(next());
        if (!rest_.empty() && hex_value(rest_.front()) >= 0)
            value = value * 16 + hex_value(next());
        return literal(static_cast<char>(value), pieces);
    }

    bool fail(const std::string &what)
    {
        error_ = "the template " + what;
        return false;
    }

    std::string_view rest_;
    std::string &error_;
};

class TemplateFormatter : public Formatter
{
public:
    TemplateFormatter(const FormatStyle &style, std::vector<Piece> pieces)
        : end_(style.end), terminal_(style.terminal), pieces_(std::move(pieces)), time_(style.time_format)
    {
    }

    bool wants_dir() const override
    {
        return shows([](Part part) { return part == Part::kIsDirectory; });
    }
    bool wants_file() const override { return shows(is_of_file); }

    void event(const agent::Event &event, std::string &out) override
    {
        for (const Piece &piece : pieces_)
            append(piece, event, out);
        out.push_back(end_);
    }

private:
    static bool is_of_file(Part part) { return part == Part::kInode || part == Part::kDevice || part == Part::kGroup; }

    template <typename Is>
    bool shows(Is is) const
    {
        return std::any_of(pieces_.begin(), pieces_.end(), [&](const Piece &piece) { return is(piece.part); });
    }

    void append(const Piece &piece, const agent::Event &event, std::string &out)
    {
        switch (piece.part) {
            case Part::kText:
                out.append(piece.text);
                break;
            case Part::kEvents:
                agent::append_events(event.mask, ",", out);
                break;
            case Part::kPath:
                append_bytes(event.path, out);
                break;
            case Part::kDirectory:
                append_bytes(event.path.substr(0, name_at(event.path)), out);
                break;
            case Part::kFileName:
                append_bytes(event.path.substr(name_at(event.path)), out);
                break;
            case Part::kPid:
                out.append(std::to_string(event.pid));
                break;
            case Part::kName:
            case Part::kAncestors:
                if (event.process)
                    append_process(piece.part, *event.process, out);
                break;
            case Part::kTime:
                time_.append(event.time_ns, out);
                break;
            case Part::kOldPath:
                append_bytes(event.from, out);
                break;
            case Part::kFound:
            case Part::kIsDirectory:
            case Part::kInode:
            case Part::kDevice:
            case Part::kGroup:
                append_fact(piece.part, event, out);
                break;
        }
    }

    // What is known of some files only.
    static void append_fact(Part part, const agent::Event &event, std::string &out)
    {
        if (part == Part::kFound)
            out.append(event.found ? "found" : "");
        else if (part == Part::kIsDirectory)
            out.append(event.dir == agent::Known::kYes ? "dir" : "");
        else if (event.file && part == Part::kDevice)
            out.append(device_text(*event.file));
        else if (event.file)
            out.append(std::to_string(part == Part::kInode ? event.file->ino : event.file->gid));
    }

    void append_process(Part part, const agent::ProcessInfo &process, std::string &out) const
    {
        if (part == Part::kName)
            append_bytes(process.name, out);
        else
            agent::append_ancestors(
                process.parent, [this](const auto &name, auto &to) { append_bytes(name, to); }, out);
    }

    // A script gets the bytes as they are; a terminal is kept from obeying them.
    void append_bytes(std::string_view bytes, std::string &out) const
    {
        if (terminal_)
            agent::append_escaped(bytes, out);
        else
            out.append(bytes);
    }

    const char end_;
    const bool terminal_;
    const std::vector<Piece> pieces_;
    RecordTime<agent::UtcTime> time_;
};

}  // namespace

std::unique_ptr<Formatter> make_template_formatter(const FormatStyle &style, std::string_view pattern,
                                                   std::string &error)
{
    std::vector<Piece> pieces;
    if (!Parser(pattern, error).parse(pieces))
        return nullptr;
    return std::make_unique<TemplateFormatter>(style, std::move(pieces));
}

}  // namespace output
