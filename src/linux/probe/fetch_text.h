/*
 * fetch_text.h: fetch arguments of the file probes: what a probe reads from the kernel at each hit.
 *
 * A text is a list of NAME=EXPRESSION[:TYPE], where "+O(E)" is the word at O bytes behind what E points to. It fetches,
 * in this order, what a file record holds: the mount id, the short names of eleven ancestors, the outermost first, and
 * the beginning of the entry's own name.
 */
#ifndef FMON_FETCH_TEXT_H
#define FMON_FETCH_TEXT_H

#include <cstddef>
#include <cstdint>

enum { FETCH_TEXT_SIZE = 4096 };

/* Makes the text for a 64-bit or a 32-bit kernel. `dentry` is where the probed function has its dentry argument, such
 * as "%si"; the offsets lead from a super block to one of its mounts and to that mount's id. */
void fetch_text_make(bool is_64, int32_t mnt_id_offset, int32_t s_mounts_offset, const char *dentry,
                     char out[FETCH_TEXT_SIZE]);

/* The templates that they are made from: two "%d" and one "%s" an argument. */
extern const char *const fetch_template_64, *const fetch_template_32;

#endif
