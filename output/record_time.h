/*
 * record_time.h: the time of a record, as its form has it or by the user's format.
 */
#ifndef OUTPUT_RECORD_TIME_H
#define OUTPUT_RECORD_TIME_H

#include <cstdint>
#include <optional>
#include <string>

#include "agent/time_format.h"

namespace output
{

/* `Default`: a class of agent/time_format.h. */
template <typename Default>
class RecordTime
{
public:
    /* `format`: as agent::FormattedTime takes it; empty: the form's own. */
    explicit RecordTime(const std::string &format)
    {
        if (!format.empty())
            formatted_.emplace(format);
    }

    bool is_formatted() const { return formatted_.has_value(); }

    void append(uint64_t ns, std::string &out)
    {
        if (formatted_)
            formatted_->append(ns, out);
        else
            default_.append(ns, out);
    }

private:
    Default default_;
    std::optional<agent::FormattedTime> formatted_;
};

}  // namespace output

#endif
