#include "outlet.h"

#include <utility>

#include "agent/time_format.h"

namespace output
{

void Outlet::end_record(uint64_t number, uint64_t time_ns, const char *type, const agent::Event *event)
{
    const size_t begin = rows_.empty() ? 0 : rows_.back().end;
    if (text_.size() == begin)
        return;
    Row row = {number, time_ns, type, text_.size()};
    if (event) {
        row.is_event = true;
        row.event = *event;
        row.event.from = {}; /* sinks have no use for these two */
        row.event.file = nullptr;
        row.path = paths_.size();
        row.path_length = event->path.size();
        row.container_length = event->container.size();
        ((paths_ += event->path).push_back('\0'), paths_ += event->container).push_back('\0');
    }
    rows_.push_back(row);
}

// Of all that was not taken.
void Outlet::make_records()
{
    records_.clear();
    size_t begin = taken_ ? rows_[taken_ - 1].end : 0;
    const std::string_view text = text_, paths = paths_;
    for (size_t i = taken_; i < rows_.size(); i++) {
        Row &row = rows_[i];
        if (row.is_event) {
            row.event.path = paths.substr(row.path, row.path_length);
            row.event.container = paths.substr(row.path + row.path_length + 1, row.container_length);
        }
        const agent::Event *event = row.is_event ? &row.event : nullptr;
        records_.push_back({row.number, row.time_ns, row.type, text.substr(begin, row.end - begin), event});
        begin = row.end;
    }
}

bool Outlet::offer()
{
    if (taken_ < rows_.size()) {
        make_records();
        taken_ += sink_->accept(records_);
    }
    const bool all = taken_ == rows_.size();
    if (all)
        clear();
    return all;
}

uint64_t Outlet::give_up()
{
    const uint64_t left = rows_.size() - taken_;
    clear();
    return left;
}

Leftover Outlet::drain(uint64_t deadline_ms)
{
    const uint64_t now = agent::steady_ms();
    sink_->drain(deadline_ms > now ? deadline_ms - now : 0);
    const uint64_t waiting = sink_->figures().waiting;
    return sink_->keeps_waiting() ? Leftover{0, waiting} : Leftover{waiting, 0};
}

void Outlet::clear()
{
    text_.clear();
    rows_.clear();
    paths_.clear();
    taken_ = 0;
}

std::optional<std::string> Outlet::news()
{
    Condition now = sink_->condition();
    const bool was_stuck = std::exchange(stuck_, now.stuck);
    if (now.stuck == was_stuck && now.text == told_)
        return {};
    told_ = now.text;
    if (now.stuck)
        return "output " + type_ + " is stuck: " + now.text;
    if (was_stuck)
        return "output " + type_ + " goes on" + (now.text.empty() ? "" : ": " + now.text);
    return now.text.empty() ? std::optional<std::string>() : "output " + type_ + ": " + now.text;
}

}  // namespace output
