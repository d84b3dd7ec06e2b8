#include "board.h"

#include "agent/time_format.h"

namespace cli
{

namespace
{

// To a second.
std::string time_of_day()
{
    std::string text;
    agent::LocalTime().append(agent::wall_clock_ns(), text);
    return text.substr(0, text.find('.'));
}

}  // namespace

void Board::add(const Happening &event, uint64_t now_ms)
{
    const common::Lock locked(lock_);
    state_.counts.add(event, now_ms - start_ms_);
}

void Board::established(const std::string &what, const std::string &source, uint64_t directories)
{
    const common::Lock locked(lock_);
    state_.status.what = what;
    state_.status.source = source;
    state_.status.directories = directories;
}

void Board::lost(const std::string &source, uint64_t count)
{
    const common::Lock locked(lock_);
    state_.status.losses[source] += count;
}

void Board::say(const std::string &message)
{
    const common::Lock locked(lock_);
    state_.status.message = message;
}

void Board::pause(bool on, uint64_t now_ms)
{
    const common::Lock locked(lock_);
    paused_ = on ? std::make_unique<State>(state_) : nullptr;
    if (!on)
        return;
    paused_->paused_ms = now_ms - start_ms_;
    paused_->clock = time_of_day();
}

Seen Board::look(const Query &query, uint64_t now_ms) const
{
    const common::Lock locked(lock_);
    const State &state = paused_ ? *paused_ : state_;
    const uint64_t now = paused_ ? paused_->paused_ms : now_ms - start_ms_;
    return {state.status,
            state.counts.rows(query, now),
            state.counts.kinds(now),
            state.counts.total(),
            state.counts.recent(now),
            now,
            paused_ ? paused_->clock : time_of_day()};
}

}  // namespace cli
