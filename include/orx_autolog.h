/*
 * orx_autolog.h: the agent's log library.
 */
#ifndef ORX_AUTOLOG_H
#define ORX_AUTOLOG_H

#ifdef __cplusplus
extern "C" {
#endif

/* From now on the log goes to rotating files in the directory `path` (made if it is missing), of which `n` are kept.
 * 0, or -1 when the directory cannot be written: the log then stays where it was. */
int autolog_init(const char *path, int n);

/* Back to stderr; the file is closed. */
void autolog_deinit(void);

#ifdef __cplusplus
}
#endif

#endif
