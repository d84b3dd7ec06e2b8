/*
 * ack.h: what a JetStream answers to a message: where it stored it, or why it did not.
 */
#ifndef BUS_NATS_ACK_H
#define BUS_NATS_ACK_H

#include <string>
#include <string_view>

#include "fmon_bus.h"

namespace bus
{

/* `why`: of what was not stored. An answer that is none of a stream's means: again. */
enum fmon_bus_outcome read_ack(std::string_view answer, std::string &why);

}  // namespace bus

#endif
