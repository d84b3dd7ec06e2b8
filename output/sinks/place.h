/*
 * place.h: whether files and sockets can be made at a path without others having a say in what is there.
 */
#ifndef OUTPUT_SINKS_PLACE_H
#define OUTPUT_SINKS_PLACE_H

#include <string>

namespace output
{

enum class Shared {
    kNever,
    kSticky, /* where everybody may make files and nobody but their owner may take them away, as in /tmp */
};

/* Whether the directory of `path`, and all above, are root's or the caller's own, with nobody else allowed to write to
 * them; the directory itself may be a shared one where `shared` says so. False: `error` is one line, and `error_number`
 * says why where the system would not tell; 0: others may write there. */
bool is_safe_place(const std::string &path, Shared shared, std::string &error, int &error_number);

}  // namespace output

#endif
