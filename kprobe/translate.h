/*
 * translate.h: from a definition as it was written to what the running kernel is asked for.
 *
 * The monitor's texts are exact for the kernels of their time. Since then functions have moved, arguments have changed
 * places, and a mount id can no longer be told from a super block; also one array costs a fraction of the words that it
 * holds. So what is fetched differs from what is handed on: a plan says how.
 */
#ifndef KPROBE_TRANSLATE_H
#define KPROBE_TRANSLATE_H

#include <string>

#include "definition.h"
#include "facts.h"
#include "plan.h"

namespace kprobe
{

// False: it cannot be placed on this kernel, or nobody knows what it would record there, and why.
bool translate(const Definition &def, const Facts &facts, Plan &out, std::string &why);

// Whether the inotify source can work here at all.
bool can_watch_inotify(const Facts &facts);

}  // namespace kprobe

#endif
