/*
 * body.h: what a request carries.
 */
#ifndef OUTPUT_SINKS_BODY_H
#define OUTPUT_SINKS_BODY_H

#include <string>
#include <string_view>

#include "packets.h"

namespace output
{

/* The records as the elements of a JSON array; each of them ends in a byte that is none of it. */
std::string json_array(const Packets &packets);

enum class Squeeze { kNone, kGzip, kZstd };

/* False: there is no memory for it. */
bool squeeze(std::string_view bytes, Squeeze how, std::string &out);

}  // namespace output

#endif
