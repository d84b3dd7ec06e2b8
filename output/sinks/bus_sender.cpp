#include "bus_sender.h"

#include <algorithm>
#include <chrono>
#include <deque>
#include <system_error>

#include "agent/time_format.h"

namespace output
{

namespace
{

constexpr size_t kWindowBytes = size_t{8} << 20;
constexpr size_t kReadBytes = size_t{256} << 10;
constexpr size_t kAtOnce = 256; /* messages of a call */
constexpr uint64_t kFirstPauseMs = 250, kLastPauseMs = 4000;
constexpr uint64_t kLastReopenMs = 2000;
constexpr uint64_t kIdleMs = 1000;
constexpr int kAnswerMs = 10;   /* while answers are awaited and something may be sent after them */
constexpr int kBlockedMs = 100; /* while the bus takes nothing */

}  // namespace

BusSender::BusSender(const BusOptions &options, Spool &spool, std::function<void(uint64_t now)> tick)
    : options_(options),
      current_(options.origin.boot + ":" + options.origin.instance),
      spool_(spool),
      tick_(std::move(tick)),
      listener_{this, on_outcome, on_condition}
{
}

BusSender::~BusSender()
{
    {
        const common::Lock lock(lock_);
        shared_.ending = true;
    }
    changed_.notify_all();
    if (thread_.joinable())
        thread_.join();
}

bool BusSender::start()
{
    try {
        thread_ = std::thread([this] { run(); });
    } catch (const std::system_error &) {
        return false;
    }
    return true;
}

void BusSender::wake()
{
    {
        const common::Lock lock(lock_);
        if (shared_.awake)
            return;
        shared_.awake = true;
    }
    changed_.notify_all();
}

bool BusSender::wait_until_empty(uint64_t timeout_ms)
{
    wake();
    const common::Lock lock(lock_);
    return changed_.wait_for(lock_, std::chrono::milliseconds(timeout_ms),
                             [&] { return spool_.figures().waiting == 0; });
}

SenderFigures BusSender::figures() const
{
    const common::Lock lock(lock_);
    return shared_.figures;
}

Condition BusSender::condition() const
{
    const common::Lock lock(lock_);
    return shared_.condition;
}

bool BusSender::ending() const
{
    const common::Lock lock(lock_);
    return shared_.ending;
}

void BusSender::say(bool works, const std::string &why)
{
    pace_.works = works;
    const common::Lock lock(lock_);
    Condition &condition = shared_.condition;
    if (!works && !condition.stuck)
        condition.since_ms = agent::steady_ms();
    condition.stuck = !works;
    condition.text = why;
}

void BusSender::on_outcome(void *self, uint64_t number, enum fmon_bus_outcome outcome, const char *why)
{
    BusSender &sender = *static_cast<BusSender *>(self);
    sender.window_.settle(number, outcome);
    if (outcome == FMON_BUS_AGAIN) {
        sender.pace_.failed = true;
        sender.say(false, why);
        return;
    }
    if (outcome == FMON_BUS_REFUSED) {
        sender.pace_.refused++;
        sender.pace_.why_refused = why;
    }
    if (!sender.pace_.works)
        sender.say(true, "");
    sender.pace_.pause = 0;
}

void BusSender::on_condition(void *self, int works, const char *why)
{
    static_cast<BusSender *>(self)->say(works != 0, why);
}

bool BusSender::open_bus()
{
    std::vector<std::pair<std::string, std::string>> texts;
    std::string error;
    if (!options_.settings(texts, error)) {
        say(false, error);
        return false;
    }
    std::vector<struct fmon_bus_setting> settings;
    settings.reserve(texts.size());
    for (const auto &[key, value] : texts)
        settings.push_back({key.c_str(), value.c_str()});
    char why[256] = "";
    bus_ = options_.plugin->open(settings.data(), settings.size(), &listener_, why, sizeof why);
    if (!bus_) {
        say(false, why);
        return false;
    }
    pace_.pause = 0;
    if (!pace_.works)
        say(true, "");
    return true;
}

void BusSender::fill()
{
    const size_t room = options_.in_flight - std::min(options_.in_flight, window_.size());
    if (room < options_.in_flight / 4 || window_.bytes() >= kWindowBytes)
        return;
    std::deque<SpoolEntry> entries;
    while (window_.size() + entries.size() < options_.in_flight && window_.bytes() < kWindowBytes &&
           spool_.read(kReadBytes, entries)) {
        for (SpoolEntry &entry : entries) {
            BusRecord record;
            record.id = bus_id(entry);
            record.subject = options_.subject.make(options_.origin.host, options_.origin.instance, entry.kind());
            record.entry = std::move(entry);
            window_.push(std::move(record));
        }
        entries.clear();
    }
}

/* How many were taken. */
size_t BusSender::send_some()
{
    struct fmon_bus_message messages[kAtOnce];
    size_t indexes[kAtOnce];
    size_t count = 0;
    const Origin &origin = options_.origin;
    for (size_t i = window_.first_waiting(); i < window_.size() && count < kAtOnce; i = window_.next_waiting(i + 1)) {
        if (window_.sent() + count >= options_.in_flight)
            break;
        const BusRecord &record = window_.at(i);
        const std::string_view text = record.entry.text();
        const std::string_view key = options_.key_is_host ? std::string_view(origin.host) : record.entry.key();
        messages[count] = {record.entry.ordinal, record.subject.c_str(),
                           record.id.c_str(),    origin.host.c_str(),
                           key.data(),           key.size(),
                           text.data(),          text.size()};
        indexes[count++] = i;
    }
    /* Before the call: the outcome may be reported from inside of it. */
    for (size_t i = 0; i < count; i++)
        window_.mark_sent(indexes[i]);
    const size_t taken = count == 0 ? 0 : options_.plugin->send(bus_, messages, count);
    for (size_t i = taken; i < count; i++)
        window_.take_back(indexes[i]);
    return taken;
}

/* Whether anything was sent. */
bool BusSender::send(uint64_t now)
{
    if (now < pace_.until)
        return false;
    size_t all = 0;
    while (const size_t some = send_some()) {
        all += some;
        if (pace_.failed)
            break;
    }
    return all > 0;
}

void BusSender::note_pop(const BusRecord &record, SenderFigures &news) const
{
    news.acknowledged++;
    news.retries += record.again;
    if (!record.entry.own && *record.entry.origin == current_)
        news.safe = record.entry.number;
}

/* Longer from time to time. */
void BusSender::pause(uint64_t now, uint64_t longest)
{
    pace_.pause = std::clamp(pace_.pause * 2, kFirstPauseMs, longest);
    pace_.until = now + pace_.pause;
}

void BusSender::collect(uint64_t now)
{
    if (std::exchange(pace_.failed, false))
        pause(now, kLastPauseMs);
    BusRecord record;
    SenderFigures news;
    uint64_t ordinal = 0;
    while (window_.pop_done(record)) {
        note_pop(record, news);
        ordinal = record.entry.ordinal;
    }
    if (ordinal == 0)
        return;
    const uint64_t refused = std::exchange(pace_.refused, 0);
    const common::Lock lock(lock_); /* before the spool is empty: whoever waits for that then finds the figures */
    spool_.acknowledge(ordinal);
    SenderFigures &figures = shared_.figures;
    figures.acknowledged += news.acknowledged - std::min(refused, news.acknowledged);
    figures.refused += refused;
    figures.retries += news.retries;
    figures.safe = std::max(figures.safe, news.safe);
    if (refused != 0 && !shared_.condition.stuck)
        shared_.condition.text = "refused a record: " + pace_.why_refused;
    changed_.notify_all();
}

void BusSender::sleep(uint64_t ms)
{
    const common::Lock lock(lock_);
    changed_.wait_for(lock_, std::chrono::milliseconds(ms),
                      [&]() REQUIRES(lock_) { return shared_.ending || shared_.awake; });
    shared_.awake = false;
}

void BusSender::turn(uint64_t now)
{
    fill();
    const bool sent = send(now);
    const int blocked = window_.sent() > 0 ? kAnswerMs : kBlockedMs;
    options_.plugin->poll(bus_, sent || window_.empty() ? 0 : blocked);
    collect(agent::steady_ms());
    tick_(now);
    if (window_.empty() && !spool_.has_unread())
        sleep(kIdleMs);
}

void BusSender::run()
{
    while (!ending()) {
        const uint64_t now = agent::steady_ms();
        if (bus_ || (now >= pace_.until && open_bus())) {
            turn(now);
            continue;
        }
        if (now >= pace_.until)
            pause(now, kLastReopenMs);
        tick_(now);
        sleep(std::min(kIdleMs, pace_.until - now));
    }
    if (bus_)
        options_.plugin->close(bus_);
}

}  // namespace output
