/*
 * deleted_path.h: paths of files whose name was gone when the kernel wrote the path: "/a/b (deleted)".
 */
#ifndef AGENT_DELETED_PATH_H
#define AGENT_DELETED_PATH_H

#include "queue.h"

namespace agent
{

/* Says in `event` that its file's name was gone, and takes the kernel's " (deleted)" off the path, which then lasts as
 * long as `storage`. A name may end so by itself: then a file of that name is there, or the event came from its
 * directory, of which the kernel reports names as they are. (A name of that kind that is removed before this looks is
 * taken for the kernel's word.) */
void take_deleted(Event &event, std::string &storage);

}  // namespace agent

#endif
