/*
 * stats_text.h: the figures of a service, which its socket gives as an object of JSON, as a text for people and as
 * Prometheus reads them.
 */
#ifndef OUTPUT_STATS_TEXT_H
#define OUTPUT_STATS_TEXT_H

#include <string>
#include <string_view>

namespace output
{

/* Both are false when that is no such object; `text` is then empty. What the object lacks is left out. */
bool stats_text(std::string_view json, std::string &text);
bool prometheus_text(std::string_view json, std::string &text); /* text exposition format 0.0.4 */

}  // namespace output

#endif
