/*
 * places.h: where an installation keeps what is asked for as "@/../...": below one folder, or where the system keeps
 * such files.
 */
#ifndef HOST_PLACES_H
#define HOST_PLACES_H

#include <optional>
#include <string>

namespace host
{

/* The folder in which this library lies, without links, as it was when it was loaded; empty where nobody tells. */
const std::string &library_folder();

/* Where `path`, which begins with "@", lies for a program in `program` when this library lies in `library`, both
 * folders without links. Nothing: the installation is one folder, or the path is none that the system has a place for.
 */
std::optional<std::string> system_place(const std::string &path, const std::string &program,
                                        const std::string &library);

}  // namespace host

#endif
