/*
 * bus_text.h: what a record is called on a bus: its kind, its subject or topic, its id; and the records that an output
 * makes by itself.
 */
#ifndef OUTPUT_SINKS_BUS_TEXT_H
#define OUTPUT_SINKS_BUS_TEXT_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "output/sink.h"
#include "output/spool/spool.h"

namespace output
{

/* The type of a record, or of an event its kind; where an event has several, the one that says most about what is there
 * now: a deletion before a creation, a creation before a change. */
std::string_view bus_kind(const Record &record);

/* A text with {host}, {instance} and {kind} in it. */
class SubjectTemplate
{
public:
    /* `dots`: a dot within a value is kept; otherwise it becomes "_", as everything does that neither letter, digit,
     * "-" nor "_" is. False, with one line in `error`: the text holds something else in braces, or is empty. */
    bool parse(std::string_view text, bool dots, std::string &error);

    std::string make(std::string_view host, std::string_view instance, std::string_view kind) const;

private:
    enum class Part { kText, kHost, kInstance, kKind };
    struct Piece {
        Part part;
        std::string text;
    };
    bool add_name(std::string_view name, std::string &error);

    std::vector<Piece> pieces_;
    bool dots_ = false;
};

/* boot:instance:number; of what the output made itself the number begins with "o". */
std::string bus_id(const SpoolEntry &entry);

struct BusFigures {
    uint64_t accepted = 0, acknowledged = 0, dropped = 0, waiting = 0, losses = 0, spool_bytes = 0;
};
/* A line of JSON each, without its end. `losses`: records of that type that were accepted; `total`: records dropped
 * since the output was opened, `count` of them since the last such line. */
std::string heartbeat_text(const Origin &origin, uint64_t time_ns, const BusFigures &figures);
std::string dropped_text(const Origin &origin, uint64_t time_ns, uint64_t count, uint64_t total);

}  // namespace output

#endif
