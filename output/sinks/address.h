/*
 * address.h: names of far sides, and connections to them.
 */
#ifndef OUTPUT_SINKS_ADDRESS_H
#define OUTPUT_SINKS_ADDRESS_H

#include <cstddef>
#include <string>

#include "common/fd.h"
#include "transport.h"

namespace output
{

struct Address {
    std::string host, port;
    std::string text() const { return (host.find(':') == std::string::npos ? host : "[" + host + "]") + ":" + port; }
};

/* "host:port" or "[address]:port"; without a port the given one. False: neither. */
bool parse_address(const std::string &text, const char *port, Address &address);

/* A socket that does not block, connected within ten seconds for each address that the name has. Looking for the name
 * may take as long as the system's resolver lets. Null: `error` is one line. `type`: SOCK_STREAM or SOCK_DGRAM. */
common::Fd connect_to(const Address &address, int type, const Patience &patience, std::string &error);

inline constexpr size_t kLongestSocketPath = 107;

/* The same to a Unix socket. */
common::Fd connect_to_path(const std::string &path, int type, std::string &error);

}  // namespace output

#endif
