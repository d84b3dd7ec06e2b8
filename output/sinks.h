/*
 * sinks.h: the kinds of outputs, by name: a row each.
 */
#ifndef OUTPUT_SINKS_H
#define OUTPUT_SINKS_H

#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "settings.h"
#include "sink.h"

namespace output
{

struct SinkRow {
    const char *type; /* "file", "syslog", ... */
    const char *meaning;
    std::span<const Setting> settings; /* beside those that all outputs have (format, ...) */
    /* Null, with one line in `error`: what was set contradicts itself, or this build or machine cannot do it. */
    std::unique_ptr<Sink> (*make)(const Settings &settings, const Origin &origin, std::string &error);
};

std::span<const SinkRow> sinks();

/* Null: there is none of that type. */
const SinkRow *find_sink(std::string_view type);

}  // namespace output

#endif
