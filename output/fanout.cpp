#include "fanout.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <iterator>
#include <utility>

#include "agent/time_format.h"
#include "look.h"

namespace output
{

namespace
{

constexpr int kTryMs = 20; /* between two offers to an output that takes nothing */

// Microseconds since the machine was started: a service that starts anew goes on above where it was.
uint64_t boot_us()
{
    struct timespec now;
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

bool is_hidden(const std::vector<std::string> &hidden, std::string_view path)
{
    return std::any_of(hidden.begin(), hidden.end(), [&](const std::string &own) {
        return path.starts_with(own) && (path.size() == own.size() || path[own.size()] == '.' ||
                                         path[own.size()] == '-' || path[own.size()] == '/');
    });
}

}  // namespace

Fanout::Fanout(const Origin &origin) : origin_(origin), filter_(std::make_unique<EventFilter>()), number_(boot_us()) {}

void Fanout::set_filter(const FilterOptions &options, const std::vector<std::string> &hidden)
{
    auto filter = std::make_unique<EventFilter>();
    std::string key, error;
    filter->prepare(options, container_name(), key, error);
    const common::Lock hold(lock_);
    filter_ = std::move(filter);
    hidden_ = hidden;
}

// The lock is held by whoever has an event filtered or put into its form.
EventFilter::NameOf Fanout::container_name()
{
    return [this](std::string_view id)
               NO_THREAD_SAFETY_ANALYSIS { return container_names_.find(id, agent::steady_ms()); };
}

void Fanout::set_pacing(const PacingOptions &options)
{
    const common::Lock hold(lock_);
    take_paced(true);
    pacing_ = Pacing(options);
}

void Fanout::add_outlet(std::unique_ptr<Outlet> outlet)
{
    const common::Lock hold(lock_);
    enter(std::move(outlet));
}

void Fanout::enter(std::unique_ptr<Outlet> outlet)
{
    outlet->formatter().begin(outlet->text());
    outlet->end_record(next_number(), agent::wall_clock_ns(), "heading", nullptr);
    outlets_.push_back(std::move(outlet));
}

// What takes long, the draining, holds no record up.
Leftover Fanout::replace_outlets(const std::vector<std::string> &kept, std::vector<std::unique_ptr<Outlet>> fresh,
                                 uint64_t timeout_ms)
{
    std::vector<std::unique_ptr<Outlet>> gone;
    {
        const common::Lock hold(lock_);
        const auto first = std::stable_partition(outlets_.begin(), outlets_.end(), [&](const auto &outlet) {
            return std::find(kept.begin(), kept.end(), outlet->key()) != kept.end();
        });
        gone.assign(std::move_iterator(first), std::move_iterator(outlets_.end()));
        outlets_.erase(first, outlets_.end());
        for (std::unique_ptr<Outlet> &outlet : fresh)
            enter(std::move(outlet));
    }
    const uint64_t end = agent::steady_ms() + timeout_ms;
    Leftover left;
    for (const std::unique_ptr<Outlet> &outlet : gone) {
        outlet->offer();
        left.add(outlet->drain(end));
        left.lost += outlet->give_up();
    }
    return left;
}

uint64_t Fanout::next_number() { return ++number_; }

void Fanout::event(const agent::Event &event, const Presentation &how)
{
    const common::Lock hold(lock_);
    const bool shown = !is_hidden(hidden_, event.path) && filter_->shows(event);
    const Pacing::Verdict verdict = shown ? pacing_.judge(event, agent::steady_ms()) : Pacing::Verdict::kShown;
    {
        const common::Lock count(figures_lock_);
        figures_.events_in++;
        figures_.filtered += !shown;
        figures_.sampled += verdict == Pacing::Verdict::kSampled;
        figures_.limited += verdict == Pacing::Verdict::kLimited;
        figures_.summarised += verdict == Pacing::Verdict::kSummarised;
    }
    if (shown && verdict == Pacing::Verdict::kShown)
        pass_on(event, how);
}

void Fanout::pass_on(agent::Event event, const Presentation &how)
{
    Look wanted;
    for (const std::unique_ptr<Outlet> &outlet : outlets_) {
        const Look one = look_of(outlet->formatter());
        wanted = {wanted.dir || one.dir, wanted.file || one.file};
    }
    agent::Identity there;
    look_at_path(event, how.happened, wanted, there);
    std::string given, given_from;
    if (how.given) {
        event.path = how.given->of(event.path, given);
        event.from = how.given->of(event.from, given_from);
    }
    const uint64_t number = next_number();
    bool full = false;
    for (const std::unique_ptr<Outlet> &outlet : outlets_) {
        outlet->formatter().event(event, outlet->text());
        outlet->end_record(number, event.time_ns, "event", &event);
        full |= outlet->is_full();
    }
    times_.push_back(event.time_ns);
    if (full)
        deliver();
}

void Fanout::add(const char *type, const std::function<void(Formatter &, uint64_t, std::string &)> &make)
{
    const uint64_t number = next_number(), time = agent::wall_clock_ns();
    for (const std::unique_ptr<Outlet> &outlet : outlets_) {
        make(outlet->formatter(), time, outlet->text());
        outlet->end_record(number, time, type, nullptr);
    }
}

void Fanout::record(const char *type, const std::function<void(Formatter &, uint64_t, std::string &)> &make)
{
    const common::Lock hold(lock_);
    add(type, make);
}

void Fanout::take_paced(bool end)
{
    const uint64_t now = agent::steady_ms();
    for (const Burst &burst : pacing_.take_bursts(now, end))
        add("burst", [&](Formatter &form, uint64_t time, std::string &out) { form.burst(time, burst, out); });
    if (const uint64_t count = pacing_.take_limited(now, end))
        add("loss",
            [&](Formatter &form, uint64_t time, std::string &out) { form.loss(time, "rate_limit", count, "", out); });
}

void Fanout::flush()
{
    const common::Lock hold(lock_);
    take_paced(false);
    deliver();
    for (const std::unique_ptr<Outlet> &outlet : outlets_)
        outlet->flush();
}

// Every output is offered its records before one is waited for.
bool Fanout::offer()
{
    bool all = true;
    for (const std::unique_ptr<Outlet> &outlet : outlets_)
        all &= outlet->offer();
    return all;
}

void Fanout::deliver()
{
    while (!offer()) {
        waiting_ = true;
        for (const std::unique_ptr<Outlet> &outlet : outlets_)
            outlet->flush();
        if (agent::steady_ms() >= deadline_ms_) {
            for (const std::unique_ptr<Outlet> &outlet : outlets_)
                given_up_ += outlet->give_up();
            break;
        }
        common::Condition never;
        never.wait_for(lock_, std::chrono::milliseconds(kTryMs), [] { return false; });
    }
    waiting_ = false;
    measure();
}

void Fanout::measure()
{
    const uint64_t now = agent::wall_clock_ns();
    const common::Lock count(figures_lock_);
    for (const uint64_t time : times_)
        figures_.latencies.add(now > time ? (now - time) / 1000 : 0);
    figures_.events += times_.size();
    times_.clear();
}

Leftover Fanout::drain()
{
    const common::Lock hold(lock_);
    take_paced(true);
    deliver();
    Leftover left = {std::exchange(given_up_, 0), 0};
    for (const std::unique_ptr<Outlet> &outlet : outlets_)
        left.add(outlet->drain(deadline_ms_));
    return left;
}

FanoutFigures Fanout::figures() const
{
    const common::Lock hold(figures_lock_);
    return figures_;
}

std::vector<OutletFigures> Fanout::outlet_figures() const
{
    const common::Lock hold(lock_);
    std::vector<OutletFigures> all;
    for (const std::unique_ptr<Outlet> &outlet : outlets_)
        all.push_back(outlet->figures());
    return all;
}

uint64_t Fanout::number() const
{
    const common::Lock hold(lock_);
    return number_;
}

std::vector<std::string> Fanout::news()
{
    const common::Lock hold(lock_);
    std::vector<std::string> lines;
    for (const std::unique_ptr<Outlet> &outlet : outlets_)
        if (std::optional<std::string> line = outlet->news())
            lines.push_back(*line);
    return lines;
}

}  // namespace output
