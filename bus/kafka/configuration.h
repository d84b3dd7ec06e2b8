/*
 * configuration.h: what an output was told, as the engine's own settings.
 */
#ifndef BUS_KAFKA_CONFIGURATION_H
#define BUS_KAFKA_CONFIGURATION_H

#include <librdkafka/rdkafka.h>

#include <memory>
#include <string>

#include "bus/settings.h"

namespace bus
{

using KafkaConfiguration = std::unique_ptr<rd_kafka_conf_t, decltype(&rd_kafka_conf_destroy)>;

/* An idempotent producer that waits for its brokers for ever. Null, with one line in `error`. */
KafkaConfiguration make_configuration(const Settings &settings, std::string &error);

}  // namespace bus

#endif
