/*
 * stats_client.h: asks a service for its figures, over its socket.
 */
#ifndef CLI_STATS_CLIENT_H
#define CLI_STATS_CLIENT_H

#include <cstdint>
#include <string>

namespace cli
{

/* What the service that listens at `path` answers, without the end of the line; a service of root or of this user.
 * False, with one line in `error`. */
bool ask_service(const std::string &path, uint64_t patience_ms, std::string &answer, std::string &error);

}  // namespace cli

#endif
