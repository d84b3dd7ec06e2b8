/*
 * config_file.h: the file that holds the service's configuration: what it says decides what root's service does, so
 * nobody but root and the user who runs the service may have written it.
 */
#ifndef CLI_RUN_CONFIG_FILE_H
#define CLI_RUN_CONFIG_FILE_H

#include <string>

namespace cli
{

inline constexpr char kConfigFile[] = "/etc/fmon/fmon.toml";

/* False: `error` is one line that begins with the path. Refused are files that others may write to, and such as lie in
 * a directory in which others may put another in their place. Links are followed, and what they lead to is held to the
 * same. */
bool read_config_file(const std::string &path, std::string &text, std::string &error);

/* Whether nobody but root and this user can change what stands at that absolute path: it, and all directories above
 * (those with the sticky bit count as safe, as long as what is in them is the user's or root's). */
bool is_ours_alone(const std::string &path, std::string &error);

}  // namespace cli

#endif
