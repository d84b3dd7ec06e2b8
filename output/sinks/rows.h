/*
 * rows.h: the rows of the table of outputs (output/sinks.h) that are made here.
 */
#ifndef OUTPUT_SINKS_ROWS_H
#define OUTPUT_SINKS_ROWS_H

#include "output/sinks.h"

namespace output
{

extern const SinkRow kStdoutRow, kFileRow, kCommandRow, kSocketRow, kSyslogRow, kJournalRow, kHttpRow;
extern const SinkRow kNatsRow, kKafkaRow; /* bus.cpp */

}  // namespace output

#endif
