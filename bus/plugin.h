/*
 * plugin.h: what plug-ins share: the functions of the border, around a `struct fmon_bus` that has them as members.
 */
#ifndef BUS_PLUGIN_H
#define BUS_PLUGIN_H

#include <time.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "common/guard.h"
#include "fmon_bus.h"
#include "settings.h"

namespace bus
{

/* Of a clock that does not run backwards; a few milliseconds coarse. */
inline uint64_t now_ms()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1'000'000;
}

/* `Bus` is struct fmon_bus, once that is complete: made of settings and listener, with open(), send() and poll(). */
template <typename Bus>
Bus *open_bus(const struct fmon_bus_setting *settings, size_t count, const struct fmon_bus_listener *listener,
              char *error, size_t error_size)
{
    return common::without_exceptions<Bus *>(nullptr, [&]() -> Bus * {
        auto made = std::make_unique<Bus>(Settings(settings, count), *listener);
        std::string why;
        if (made->open(why))
            return made.release();
        snprintf(error, error_size, "%s", why.c_str());
        return nullptr;
    });
}

template <typename Bus>
size_t send_to_bus(Bus *bus, const struct fmon_bus_message *messages, size_t count)
{
    return common::without_exceptions<size_t>(0, [&] { return bus->send(messages, count); });
}

template <typename Bus>
void poll_bus(Bus *bus, int timeout_ms)
{
    common::without_exceptions(0, [&] {
        bus->poll(timeout_ms);
        return 0;
    });
}

template <typename Bus>
void close_bus(Bus *bus)
{
    delete bus;
}

template <typename Bus>
constexpr struct fmon_bus_plugin make_plugin(const char *name)
{
    return {FMON_BUS_VERSION, sizeof(struct fmon_bus_plugin), name, open_bus<Bus>, send_to_bus<Bus>, poll_bus<Bus>,
            close_bus<Bus>};
}

}  // namespace bus

extern "C" __attribute__((visibility("default"))) const struct fmon_bus_plugin *fmon_bus_get(void);

#endif
