/*
 * fake_bus.h: a message bus that answers as a test says, and remembers what it was sent.
 */
#ifndef UNIT_OUTPUT_DISK_FAKE_BUS_H
#define UNIT_OUTPUT_DISK_FAKE_BUS_H

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "fmon_bus.h"

struct fmon_bus {
    const struct fmon_bus_listener *listener;
};

namespace fake_bus
{

struct Sent {
    uint64_t number;
    std::string subject, id, host, key, text;
};

/* There is one, as there is one engine in a process. */
struct World {
    std::mutex mutex;
    std::condition_variable changed;
    /* What becomes of a message; null: no answer. */
    std::function<const fmon_bus_outcome *(const Sent &)> answer;
    std::string refuses_to_open;
    bool takes = true;
    std::string condition; /* handed to the listener at the next poll; "" after that */
    std::vector<Sent> sent;
    std::map<std::string, std::string> settings;
    int opened = 0, closed = 0;
};
inline World &world()
{
    static World object;
    return object;
}

inline constexpr fmon_bus_outcome kStored = FMON_BUS_STORED, kAgain = FMON_BUS_AGAIN, kRefused = FMON_BUS_REFUSED;
inline std::deque<std::pair<uint64_t, fmon_bus_outcome>> &answers()
{
    static std::deque<std::pair<uint64_t, fmon_bus_outcome>> queue;
    return queue;
}

inline struct fmon_bus *open_bus(const struct fmon_bus_setting *settings, size_t count,
                                 const struct fmon_bus_listener *listener, char *error, size_t error_size)
{
    World &all = world();
    const std::lock_guard<std::mutex> guard(all.mutex);
    all.opened++;
    all.changed.notify_all();
    for (size_t i = 0; i < count; i++)
        all.settings[settings[i].key] = settings[i].value;
    snprintf(error, error_size, "%s", all.refuses_to_open.c_str());
    return all.refuses_to_open.empty() ? new fmon_bus{listener} : nullptr;
}

inline size_t send(struct fmon_bus *, const struct fmon_bus_message *messages, size_t count)
{
    World &all = world();
    const std::lock_guard<std::mutex> guard(all.mutex);
    if (!all.takes)
        return 0;
    for (size_t i = 0; i < count; i++) {
        const struct fmon_bus_message &m = messages[i];
        const Sent sent = {
            m.number, m.subject, m.id, m.host, std::string(m.key, m.key_size), std::string(m.text, m.text_size)};
        if (const fmon_bus_outcome *outcome = all.answer ? all.answer(sent) : &kStored)
            answers().emplace_back(m.number, *outcome);
        all.sent.push_back(sent);
    }
    all.changed.notify_all();
    return count;
}

inline void poll(struct fmon_bus *bus, int timeout_ms)
{
    World &all = world();
    std::unique_lock<std::mutex> guard(all.mutex);
    if (answers().empty() && all.condition.empty())
        all.changed.wait_for(guard, std::chrono::milliseconds(timeout_ms));
    const auto reported = std::exchange(answers(), {});
    const std::string condition = std::exchange(all.condition, "");
    guard.unlock();
    if (!condition.empty())
        bus->listener->condition(bus->listener->context, 0, condition.c_str());
    for (const auto &[number, outcome] : reported)
        bus->listener->outcome(bus->listener->context, number, outcome, outcome == kStored ? "" : "because");
}

inline void close(struct fmon_bus *bus)
{
    World &all = world();
    const std::lock_guard<std::mutex> guard(all.mutex);
    all.closed++;
    answers().clear();
    delete bus;
}

inline constexpr struct fmon_bus_plugin kPlugin = {
    FMON_BUS_VERSION, sizeof kPlugin, "fake 1", open_bus, send, poll, close};

}  // namespace fake_bus

#endif
