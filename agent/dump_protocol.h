/*
 * dump_protocol.h: what `fmon dump` and a running `fmon watch` say to each other.
 *
 * A watch listens on a socket named after its process, in a directory that only its user can enter (dump_place.h). The
 * asker sends one line, "dump TYPE HOLD\n", and reads records until the end of the stream: a kind, a text, a NUL. Texts
 * may hold any byte but NUL, so that names arrive whole; whoever shows them escapes them. Both sides ask the kernel who
 * the other one is.
 */
#ifndef AGENT_DUMP_PROTOCOL_H
#define AGENT_DUMP_PROTOCOL_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace agent
{

/* A part of the monitor's state; the row is the type's number in the monitor, but for kDumpLosses, which the watch
 * counts. */
struct DumpType {
    const char *name;
    const char *meaning;
};
inline constexpr uint32_t kDumpTypes = 8, kDumpLosses = 7;
extern const DumpType kDumpTypeTable[kDumpTypes];

/* A name or a number. False: neither of a type. */
bool parse_dump_type(std::string_view text, uint32_t &type);

inline constexpr uint64_t kMaxHoldMs = 60000;

struct DumpRequest {
    uint32_t type = 0;    /* numbers beyond the table are for the monitor to refuse */
    uint32_t hold_ms = 0; /* how long events are to gather first */
};
inline constexpr size_t kMaxRequest = 64; /* bytes, newline included */
std::string format_request(const DumpRequest &request);
bool parse_request(std::string_view line, DumpRequest &request); /* without the newline */

enum RecordKind : char {
    kRecordLine = 'L',  /* a line of the dump */
    kRecordError = 'E', /* instead of a dump: why there is none; the last record */
    kRecordCut = 'C',   /* there was more than kMaxAnswer */
    kRecordEnd = 'Z',   /* all has been said; the last record */
};
inline constexpr size_t kMaxAnswer = 64 << 20;
void append_record(RecordKind kind, std::string_view text, std::string &out);

struct DumpAnswer {
    std::string text; /* each line with a newline, safe for a terminal */
    std::string error;
    bool cut = false;
    bool complete = false; /* it ended with an end or an error */
};
DumpAnswer read_answer(std::string_view records);

struct Peer {
    pid_t pid = 0; /* 0: not known, or not in sight from here */
    uid_t uid = static_cast<uid_t>(-1);
};
Peer peer_of(int fd);

}  // namespace agent

#endif
