/*
 * unread.h: what the kernel has reported to this process, and nobody here has read yet.
 */
#ifndef AGENT_UNREAD_H
#define AGENT_UNREAD_H

namespace agent
{

/* Whether a group of inotify or fanotify that belongs to this process holds records, whoever opened the group. False
 * also where that cannot be found out. */
bool has_unread_records();

}  // namespace agent

#endif
