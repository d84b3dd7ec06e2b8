/*
 * event_loop.h: the loop behind the calling thread's cl_event_loop functions.
 */
#ifndef HOST_EVENT_LOOP_H
#define HOST_EVENT_LOOP_H

#include <uv.h>

namespace host
{

/* The calling thread's loop, made by the first call on that thread; null when it cannot be made (no descriptors left).
 * It ends with the thread: handles that are left are closed then, so their memory must outlive the thread. */
uv_loop_t *thread_loop();

}  // namespace host

#endif
