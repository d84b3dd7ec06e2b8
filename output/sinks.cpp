#include "sinks.h"

#include <vector>

#include "sinks/rows.h"

namespace output
{

std::span<const SinkRow> sinks()
{
    static const std::vector<SinkRow> rows = {kStdoutRow,  kFileRow, kCommandRow, kSocketRow, kSyslogRow,
                                              kJournalRow, kHttpRow, kNatsRow,    kKafkaRow};
    return rows;
}

const SinkRow *find_sink(std::string_view type)
{
    for (const SinkRow &row : sinks())
        if (type == row.type)
            return &row;
    return nullptr;
}

}  // namespace output
