/*
 * output_options.h: which events are shown, in which form, and where they go.
 */
#ifndef OUTPUT_OUTPUT_OPTIONS_H
#define OUTPUT_OUTPUT_OPTIONS_H

#include <cstdint>
#include <string>

#include "filter_options.h"

namespace output
{

struct OutputOptions : FilterOptions {
    std::string format = "text"; /* a name of formats.h, or a template */
    bool stat = false;           /* what is at the path of an event is shown: see FormatStyle */
    std::string time_format;     /* of records that are no JSON, see agent/time_format.h; empty: their own */
    bool null_end = false;
    std::string output; /* empty: stdout */
    bool append = false;
    std::string exec;
    uint64_t count = 0; /* 0: no limit */
};

}  // namespace output

#endif
