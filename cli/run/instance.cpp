#include "instance.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "agent/time_format.h"
#include "output/formats.h"
#include "output/sinks.h"

namespace cli
{

namespace
{

output::FormatStyle style_of(const OutputConfig &config, const Surroundings &around, const std::string &instance,
                             std::function<agent::ContainerName(std::string_view)> container_name)
{
    output::FormatStyle style;
    style.ancestors = config.ancestors;
    style.stat = config.stat;
    style.pairs = config.pairs;
    style.time_format = config.time_format;
    style.sources.assign(agent::Intake::kMaxSources, instance);
    style.host = around.host;
    style.instance = instance;
    style.container_name = std::move(container_name);
    return style;
}

}  // namespace

unsigned Numbers::take()
{
    const auto free = std::find(taken_.begin(), taken_.end(), false);
    if (free == taken_.end())
        return 0;
    *free = true;
    return static_cast<unsigned>(free - taken_.begin());
}

Instance::Instance(const std::string &name, const Surroundings &around)
    : name_(name), around_(around), fanout_({around.host, around.boot, name})
{
}

Instance::~Instance() { end_watches(std::move(watches_)); }

bool Instance::apply(const InstanceConfig &config, uint64_t drain_ms, output::Leftover &left, std::string &error)
{
    std::vector<Output> kept, opened;
    Outlets outlets;
    for (const OutputConfig &output : config.outputs) {
        const auto same = [&](const Output &other) { return other.config == output && !is_among(kept, other.key); };
        const auto open = std::find_if(outputs_.begin(), outputs_.end(), same);
        if (open != outputs_.end()) {
            kept.push_back(*open);
            continue;
        }
        opened.push_back({output, output.type + "." + std::to_string(++last_output_)});
        outlets.push_back(open_outlet(opened.back(), error));
        if (!outlets.back())
            return false;
    }
    fanout_.set_filter(config.filter, around_.hidden);
    fanout_.set_pacing(config.pacing);
    left.add(fanout_.replace_outlets(keys_of(kept), std::move(outlets), drain_ms));
    outputs_ = std::move(kept);
    outputs_.insert(outputs_.end(), opened.begin(), opened.end());
    return apply_watches(config, error);
}

bool Instance::is_among(const std::vector<Output> &outputs, const std::string &key)
{
    return std::any_of(outputs.begin(), outputs.end(), [&](const Output &output) { return output.key == key; });
}

std::vector<std::string> Instance::keys_of(const std::vector<Output> &outputs)
{
    std::vector<std::string> keys;
    keys.reserve(outputs.size());
    for (const Output &output : outputs)
        keys.push_back(output.key);
    return keys;
}

std::unique_ptr<output::Outlet> Instance::open_outlet(const Output &output, std::string &error)
{
    const OutputConfig &config = output.config;
    std::string reason;
    const output::SinkRow *row = output::find_sink(config.type);
    const output::Origin origin = {around_.host, around_.boot, name_};
    std::unique_ptr<output::Sink> sink = row ? row->make(config.settings, origin, reason) : nullptr;
    std::unique_ptr<output::Formatter> form =
        output::make_formatter(config.format, style_of(config, around_, name_, fanout_.container_name()), reason);
    if (sink && form && sink->open(reason))
        return std::make_unique<output::Outlet>(output.key, config.type, config.format, std::move(form),
                                                std::move(sink));
    error = "instance " + name_ + ", output " + config.type + ": " + reason;
    return nullptr;
}

// New watches are placed beside the old ones, which end then. Where one cannot be started, those from before stay.
bool Instance::apply_watches(const InstanceConfig &config, std::string &error)
{
    Watches fresh;
    std::vector<bool> stays(watches_.size());
    for (const agent::Request &request : config.watches)
        if (!keep_watch(request, stays) && !start_watch(request, fresh, error)) {
            end_watches(std::move(fresh));
            return false;
        }
    Watches ending;
    for (size_t i = stays.size(); i-- > 0;)
        if (!stays[i]) {
            ending.push_back(std::move(watches_[i]));
            watches_.erase(watches_.begin() + static_cast<ptrdiff_t>(i));
        }
    std::move(fresh.begin(), fresh.end(), std::back_inserter(watches_));
    end_watches(std::move(ending));
    return true;
}

bool Instance::keep_watch(const agent::Request &request, std::vector<bool> &stays) const
{
    for (size_t i = 0; i < watches_.size(); i++)
        if (!stays[i] && watches_[i]->request == request &&
            watches_[i]->run->state() <= agent::WatchRun::State::kWatching) {
            stays[i] = true;
            return true;
        }
    return false;
}

bool Instance::start_watch(const agent::Request &request, Watches &fresh, std::string &error)
{
    auto watch = std::make_unique<Watch>();
    watch->request = request;
    watch->report = std::make_unique<output::InstanceReport>(watch->request, fanout_);
    watch->report->hide(around_.monitor.own_log().files);
    watch->run = std::make_unique<agent::WatchRun>(name_, around_.numbers.take(), watch->request, around_.monitor,
                                                   *watch->report, around_.changed);
    if (!watch->run->start()) {
        around_.numbers.give_back(watch->run->number());
        error = "instance " + name_ + ": no thread, or no descriptor, is left for a watch (ulimit -u, ulimit -n)";
        return false;
    }
    fresh.push_back(std::move(watch));
    return true;
}

// All are told before one is waited for.
// NOLINTNEXTLINE(performance-unnecessary-value-param): taken over, and gone when this returns
void Instance::end_watches(Watches watches)
{
    for (const std::unique_ptr<Watch> &watch : watches)
        watch->run->end();
    for (const std::unique_ptr<Watch> &watch : watches) {
        watch->run->join();
        around_.numbers.give_back(watch->run->number());
    }
}

void Instance::end(uint64_t deadline_ms)
{
    fanout_.set_deadline(deadline_ms);
    for (const std::unique_ptr<Watch> &watch : watches_)
        watch->run->end();
}

output::Leftover Instance::drain()
{
    end_watches(std::exchange(watches_, {}));
    return fanout_.drain();
}

bool Instance::is_placing() const { return any_is(agent::WatchRun::State::kPlacing); }

bool Instance::is_broken() const { return any_is(agent::WatchRun::State::kBroken); }

bool Instance::any_is(agent::WatchRun::State state) const
{
    return std::any_of(watches_.begin(), watches_.end(),
                       [&](const std::unique_ptr<Watch> &watch) { return watch->run->state() == state; });
}

bool Instance::is_watching() const { return any_is(agent::WatchRun::State::kWatching); }

bool Instance::is_alive(uint64_t now, uint64_t limit_ms) const
{
    return fanout_.is_waiting() || std::all_of(watches_.begin(), watches_.end(), [&](const auto &watch) {
               const uint64_t since = watch->run->busy_since();
               return since == 0 || now < since + limit_ms;
           });
}

}  // namespace cli
