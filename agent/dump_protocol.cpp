#include "dump_protocol.h"

#include <sys/socket.h>

#include <charconv>

#include "escape.h"

namespace agent
{

const DumpType kDumpTypeTable[kDumpTypes] = {
    {"all", "everything below (default)"},
    {"instances", "the clients' instances: their watches, and the events that wait for them"},
    {"waiting", "watches whose path is missing, and patterns"},
    {"dentries", "directories and files that are known, with their watches"},
    {"events", "event records that wait"},
    {"backend", "the source of each watch, and marked file systems, where any is"},
    {"files", "the backend's watched files, where it names any"},
    {"losses", "what was missed since the watch began, and why"},
};

namespace
{

constexpr std::string_view kVerb = "dump ";

// The number at the start of `text`, which is cut off; false when there is none.
bool take_number(std::string_view &text, uint32_t &number)
{
    const auto [stopped, code] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (code != std::errc())
        return false;
    text.remove_prefix(static_cast<size_t>(stopped - text.data()));
    return true;
}

void append_line(std::string_view line, std::string &out)
{
    // A heading begins with an empty line of its own; all other newlines are in names.
    if (!line.empty() && line.front() == '\n') {
        if (!out.empty())
            out.push_back('\n');
        line.remove_prefix(1);
    }
    append_safe(line, out);
    out.push_back('\n');
}

}  // namespace

bool parse_dump_type(std::string_view text, uint32_t &type)
{
    for (uint32_t i = 0; i < kDumpTypes; i++) {
        if (text == kDumpTypeTable[i].name || text == std::to_string(i)) {
            type = i;
            return true;
        }
    }
    return false;
}

std::string format_request(const DumpRequest &request)
{
    return std::string(kVerb) + std::to_string(request.type) + " " + std::to_string(request.hold_ms) + "\n";
}

bool parse_request(std::string_view line, DumpRequest &request)
{
    if (line.substr(0, kVerb.size()) != kVerb)
        return false;
    line.remove_prefix(kVerb.size());
    if (!take_number(line, request.type) || line.empty() || line.front() != ' ')
        return false;
    line.remove_prefix(1);
    return take_number(line, request.hold_ms) && line.empty() && request.hold_ms <= kMaxHoldMs;
}

void append_record(RecordKind kind, std::string_view text, std::string &out)
{
    out.push_back(kind);
    out.append(text);
    out.push_back('\0');
}

DumpAnswer read_answer(std::string_view records)
{
    DumpAnswer answer;
    size_t end;
    while (!answer.complete && (end = records.find('\0')) != std::string_view::npos) {
        const std::string_view record = records.substr(0, end);
        records.remove_prefix(end + 1);
        if (record.empty())
            break;
        const std::string_view text = record.substr(1);
        if (record[0] == kRecordLine)
            append_line(text, answer.text);
        else if (record[0] == kRecordError)
            answer.error = text;
        answer.cut |= record[0] == kRecordCut;
        answer.complete = record[0] == kRecordEnd || record[0] == kRecordError;
    }
    return answer;
}

Peer peer_of(int fd)
{
    struct ucred who = {};
    socklen_t size = sizeof who;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &who, &size) != 0)
        return {};
    return {who.pid, who.uid};
}

}  // namespace agent
