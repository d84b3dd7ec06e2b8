/*
 * bus_library.h: the plug-in library of a message bus, found beside the program's other libraries.
 */
#ifndef OUTPUT_SINKS_BUS_LIBRARY_H
#define OUTPUT_SINKS_BUS_LIBRARY_H

#include <string>

#include "fmon_bus.h"

namespace output
{

/* That of the bus "nats" is libfmon-nats.so. Stays loaded: engines have threads that outlive what started them. Null,
 * with one line in `error`: what to install, or what is wrong with the library. */
const struct fmon_bus_plugin *load_bus(const std::string &bus, std::string &error);

/* The same with the library's path. */
const struct fmon_bus_plugin *load_bus_from(const std::string &path, const std::string &bus, std::string &error);

}  // namespace output

#endif
