/*
 * fallback.h: why marks on directories are used although a mark of the whole file system was wanted, in words.
 */
#ifndef AGENT_FALLBACK_H
#define AGENT_FALLBACK_H

#include <string>

#include "orx_fmon.h"

namespace agent
{

struct FallbackWords {
    std::string text;   /* a part of a sentence: what is refused, and by whom */
    std::string remedy; /* empty: none is known */

    std::string line() const { return remedy.empty() ? text : text + ": " + remedy; }
};

/* `reason`: FMON_FALLBACK_*; `error`: errno, 0: the system was not asked; `type`: that of the file system, empty: not
 * known; `root`: fmon runs as root. */
FallbackWords explain_fallback(uint32_t reason, int error, const std::string &type, bool root);

/* The same of what the monitor has met, with the file system's type from the mount table. */
FallbackWords explain_fallback(const struct fmon_fallback &fallback, bool root);

}  // namespace agent

#endif
