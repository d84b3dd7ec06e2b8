/*
 * places.h: where an installation keeps what is asked for as "@/../...": below one directory, or where the system keeps
 * such files.
 */
#ifndef HOST_PLACES_H
#define HOST_PLACES_H

#include <optional>
#include <string>

namespace host
{

/* The directory in which this library lies, without links, as it was when it was loaded; empty where that is not known.
 */
const std::string &library_directory();

/* Where `path`, which begins with "@", lies for a program in `program` when this library lies in `library`, both
 * directories without links. Nothing: the installation is one directory, or the path is none that the system has a
 * place for.
 */
std::optional<std::string> system_place(const std::string &path, const std::string &program,
                                        const std::string &library);

}  // namespace host

#endif
