/*
 * orx_event_loop.h: the agent's event-loop library, as far as plug-ins use it.
 */
#ifndef ORX_EVENT_LOOP_H
#define ORX_EVENT_LOOP_H

#ifdef __cplusplus
extern "C" {
#endif

/* Starts a thread outside the agent's pool that runs fn(arg) once and then ends. `attr` may be null; what else it is is
 * the agent's business (liborx_base.so: the thread's name, of which 15 bytes count). On success a handle is stored,
 * which the caller need not release. Negative: the thread could not be made. */
int cl_ev_create_isolated_thread(void **handle, void *attr, int (*fn)(void *), void *arg);

/* For the calling thread's loop: n != 0 makes the following turns return at once when nothing is ready. Returns 0. */
int cl_ev_loop_nowait(int n);

/* One turn of the calling thread's loop. Returns how many handlers are still active, 0 for none. */
int cl_event_loop_once(void);

/* Turns until nothing is left to wait for. Returns 0. */
int cl_event_loop(void);

#ifdef __cplusplus
}
#endif

#endif
