/*
 * outlet.h: one output of an instance: the form of its records, those that gather, and the sink that takes them.
 */
#ifndef OUTPUT_OUTLET_H
#define OUTPUT_OUTLET_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/queue.h"
#include "format.h"
#include "sink.h"

namespace output
{

struct OutletFigures {
    std::string type, format;
    SinkFigures sink;
    Condition condition;
    uint64_t safe = 0;
};

/* One thread's at a time, but for figures(). */
class Outlet
{
public:
    /* `key`: what tells it from others; equal keys are the same output. */
    Outlet(const std::string &key, const std::string &type, const std::string &format,
           std::unique_ptr<Formatter> formatter, std::unique_ptr<Sink> sink)
        : key_(key), type_(type), format_(format), formatter_(std::move(formatter)), sink_(std::move(sink))
    {
    }

    const std::string &key() const { return key_; }
    Formatter &formatter() { return *formatter_; }

    /* A record in the making: its text is to be appended to text(), then ended. An empty one is none. The event's
     * process must stay until the record was taken. */
    std::string &text() { return text_; }
    void end_record(uint64_t number, uint64_t time_ns, const char *type, const agent::Event *event);

    bool is_full() const { return text_.size() >= kLarge; }
    /* Hands over what gathered. False: the sink does not take all of it now. */
    bool offer();
    /* Nothing follows for now. */
    void flush() { sink_->flush(); }
    /* What gathered and was not taken will not be: how many records. */
    uint64_t give_up();
    /* At the end: until all that was taken is safe, or until then, by agent::steady_ms(). What is not. */
    Leftover drain(uint64_t deadline_ms);

    OutletFigures figures() const { return {type_, format_, sink_->figures(), sink_->condition(), sink_->safe()}; }
    /* What the sink's condition says, where that is news. */
    std::optional<std::string> news();

private:
    static constexpr size_t kLarge = 64 << 10;

    /* As Record has it, with places in texts that still grow instead of views of them. */
    struct Row {
        uint64_t number, time_ns;
        const char *type;
        size_t end; /* of its text */
        bool is_event = false;
        agent::Event event = {}; /* but for its path and container */
        size_t path = 0, path_length = 0, container_length = 0;
    };
    void make_records();
    void clear();

    const std::string key_, type_, format_;
    const std::unique_ptr<Formatter> formatter_;
    const std::unique_ptr<Sink> sink_;
    std::string text_;
    std::vector<Row> rows_;
    std::string paths_;           /* and containers, of the rows' events, a NUL behind each */
    std::vector<Record> records_; /* what is offered, made of the rows */
    size_t taken_ = 0;            /* rows that the sink took */
    std::string told_;            /* what the sink said last */
    bool stuck_ = false;          /* told as stuck */
};

}  // namespace output

#endif
