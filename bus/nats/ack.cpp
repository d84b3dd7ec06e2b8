#include "ack.h"

#include <algorithm>

namespace bus
{

namespace
{

/* JetStream's code for a message longer than its stream allows. */
constexpr std::string_view kTooLong = "\"err_code\":10054";
constexpr std::string_view kDescription = "\"description\":\"";

std::string description(std::string_view answer)
{
    const size_t at = answer.find(kDescription);
    if (at == answer.npos)
        return "no reason is given";
    const std::string_view rest = answer.substr(at + kDescription.size());
    return std::string(rest.substr(0, std::min<size_t>(rest.find('"'), 200)));
}

}  // namespace

enum fmon_bus_outcome read_ack(std::string_view answer, std::string &why)
{
    if (answer.find("\"error\":{") != answer.npos) {
        why = "the stream refuses: " + description(answer);
        return answer.find(kTooLong) != answer.npos ? FMON_BUS_REFUSED : FMON_BUS_AGAIN;
    }
    if (answer.starts_with('{') && answer.find("\"stream\":") != answer.npos && answer.find("\"seq\":") != answer.npos)
        return FMON_BUS_STORED;
    why = "the answer is none of a JetStream: something else listens to this subject";
    return FMON_BUS_AGAIN;
}

}  // namespace bus
