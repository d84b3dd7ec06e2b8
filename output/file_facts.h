/*
 * file_facts.h: what forms say of the file that an event is about, beside its path.
 */
#ifndef OUTPUT_FILE_FACTS_H
#define OUTPUT_FILE_FACTS_H

#include <string>

#include "agent/paths.h"
#include "agent/queue.h"

namespace output
{

/* As the schemas of others call it; null and 0: not known. */
struct FileType {
    const char *ecs;
    int ocsf;
};

/* By a look at the file where there was one, else by what the source says: what it says to be no directory counts as a
 * regular file then. */
FileType type_of(const agent::Event &event);

/* Major and minor number of the device that holds the file, as "8:1". */
std::string device_text(const agent::Identity &file);

}  // namespace output

#endif
