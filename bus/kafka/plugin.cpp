/* The plug-in for Kafka: records into a topic, by an idempotent producer that keeps each until the brokers have it. */
#include <librdkafka/rdkafka.h>

#include <iterator>

#include "bus/plugin.h"
#include "configuration.h"

using bus::now_ms;
using bus::Settings;

namespace
{

constexpr uint64_t kReopenMs = 2000;
constexpr int kCloseMs = 500;

/* No later attempt can do better. */
bool is_final(rd_kafka_resp_err_t error)
{
    return error == RD_KAFKA_RESP_ERR_MSG_SIZE_TOO_LARGE || error == RD_KAFKA_RESP_ERR_INVALID_MSG_SIZE ||
           error == RD_KAFKA_RESP_ERR_INVALID_RECORD;
}

/* What a file may have caused that is mended meanwhile: the engine reads files when it is started. */
bool is_of_files(rd_kafka_resp_err_t error)
{
    return error == RD_KAFKA_RESP_ERR__AUTHENTICATION || error == RD_KAFKA_RESP_ERR__SSL ||
           error == RD_KAFKA_RESP_ERR_SASL_AUTHENTICATION_FAILED;
}

/* In the words of our own settings; the engine names its own. */
const char *remedy(rd_kafka_resp_err_t error)
{
    switch (error) {
        case RD_KAFKA_RESP_ERR__SSL:
            return "; `ca` must be the authority of the brokers' certificates, each of which must be for the name in "
                   "`brokers`";
        case RD_KAFKA_RESP_ERR__AUTHENTICATION:
        case RD_KAFKA_RESP_ERR_SASL_AUTHENTICATION_FAILED:
            return "; see `user`, `password` and `sasl`";
        default:
            return "";
    }
}

/* Without how long that took and how often it happened, which is different each time. */
std::string without_times(const std::string &text) { return text.substr(0, text.find(" (after ")); }

void ignore_log(const rd_kafka_t *, int, const char *, const char *) {}

}  // namespace

struct fmon_bus {
    fmon_bus(const Settings &settings, const struct fmon_bus_listener &listener)
        : settings_(settings), listener_(listener)
    {
    }
    ~fmon_bus() { close(); }
    fmon_bus(const fmon_bus &) = delete;
    fmon_bus &operator=(const fmon_bus &) = delete;

    bool open(std::string &error);
    size_t send(const struct fmon_bus_message *messages, size_t count);
    void poll(int timeout_ms);

private:
    rd_kafka_resp_err_t produce(const struct fmon_bus_message &message);
    void report(uint64_t number, rd_kafka_resp_err_t error);
    void say(rd_kafka_resp_err_t error, const char *why);
    void reopen();
    void close();
    static void on_delivery(rd_kafka_t *, const rd_kafka_message_t *message, void *self);
    static void on_error(rd_kafka_t *, int error, const char *why, void *self);

    const Settings settings_;
    const struct fmon_bus_listener listener_;
    rd_kafka_t *producer_ = nullptr;
    std::string cause_;      /* of no broker being there: what went wrong last */
    uint64_t reopen_at_ = 0; /* 0: there is no need to */
};

bool fmon_bus::open(std::string &error)
{
    bus::KafkaConfiguration conf = bus::make_configuration(settings_, error);
    if (!conf)
        return false;
    rd_kafka_conf_set_opaque(conf.get(), this);
    rd_kafka_conf_set_dr_msg_cb(conf.get(), on_delivery);
    rd_kafka_conf_set_error_cb(conf.get(), on_error);
    rd_kafka_conf_set_log_cb(conf.get(), ignore_log);
    char why[256];
    producer_ = rd_kafka_new(RD_KAFKA_PRODUCER, conf.get(), why, sizeof why);
    if (producer_)
        static_cast<void>(conf.release()); /* the producer's now */
    else
        error = why;
    return producer_ != nullptr;
}

void fmon_bus::say(rd_kafka_resp_err_t error, const char *why)
{
    if ((is_of_files(error) || error == RD_KAFKA_RESP_ERR__FATAL) && reopen_at_ == 0)
        reopen_at_ = now_ms() + kReopenMs;
    std::string all = without_times(why) + remedy(error);
    if (error != RD_KAFKA_RESP_ERR__ALL_BROKERS_DOWN)
        cause_ = all;
    else if (!cause_.empty())
        all += ": " + cause_;
    listener_.condition(listener_.context, 0, all.c_str());
}

void fmon_bus::report(uint64_t number, rd_kafka_resp_err_t error)
{
    if (error == RD_KAFKA_RESP_ERR_NO_ERROR) {
        reopen_at_ = 0;
        cause_.clear();
        listener_.outcome(listener_.context, number, FMON_BUS_STORED, "");
        return;
    }
    listener_.outcome(listener_.context, number, is_final(error) ? FMON_BUS_REFUSED : FMON_BUS_AGAIN,
                      rd_kafka_err2str(error));
}

void fmon_bus::on_delivery(rd_kafka_t *, const rd_kafka_message_t *message, void *self)
{
    static_cast<struct fmon_bus *>(self)->report(reinterpret_cast<uintptr_t>(message->_private), message->err);
}

void fmon_bus::on_error(rd_kafka_t *, int error, const char *why, void *self)
{
    static_cast<struct fmon_bus *>(self)->say(static_cast<rd_kafka_resp_err_t>(error), why);
}

rd_kafka_resp_err_t fmon_bus::produce(const struct fmon_bus_message &message)
{
    rd_kafka_vu_t parts[7] = {};
    parts[0].vtype = RD_KAFKA_VTYPE_TOPIC;
    parts[0].u.cstr = message.subject;
    parts[1].vtype = RD_KAFKA_VTYPE_VALUE;
    parts[1].u.mem = {const_cast<char *>(message.text), message.text_size};
    parts[2].vtype = RD_KAFKA_VTYPE_KEY;
    parts[2].u.mem = {const_cast<char *>(message.key_size > 0 ? message.key : nullptr), message.key_size};
    parts[3].vtype = parts[4].vtype = RD_KAFKA_VTYPE_HEADER;
    parts[3].u.header = {"fmon-id", message.id, -1};
    parts[4].u.header = {"fmon-host", message.host, -1};
    parts[5].vtype = RD_KAFKA_VTYPE_MSGFLAGS;
    parts[5].u.i = RD_KAFKA_MSG_F_COPY;
    parts[6].vtype = RD_KAFKA_VTYPE_OPAQUE;
    parts[6].u.ptr = reinterpret_cast<void *>(message.number);
    rd_kafka_error_t *const error = rd_kafka_produceva(producer_, parts, std::size(parts));
    const rd_kafka_resp_err_t code = rd_kafka_error_code(error);
    if (error)
        rd_kafka_error_destroy(error);
    return code;
}

size_t fmon_bus::send(const struct fmon_bus_message *messages, size_t count)
{
    if (!producer_)
        return 0;
    for (size_t i = 0; i < count; i++) {
        const rd_kafka_resp_err_t error = produce(messages[i]);
        if (error == RD_KAFKA_RESP_ERR_NO_ERROR)
            continue;
        if (error == RD_KAFKA_RESP_ERR__QUEUE_FULL)
            return i;
        if (error == RD_KAFKA_RESP_ERR__FATAL) {
            say(error, rd_kafka_err2str(error));
            return i;
        }
        report(messages[i].number, error);
    }
    return count;
}

/* What is in the engine's hands goes back to the spool's order. */
void fmon_bus::close()
{
    if (!producer_)
        return;
    rd_kafka_purge(producer_, RD_KAFKA_PURGE_F_QUEUE | RD_KAFKA_PURGE_F_INFLIGHT);
    rd_kafka_flush(producer_, kCloseMs);
    rd_kafka_destroy(producer_);
    producer_ = nullptr;
}

void fmon_bus::reopen()
{
    close();
    std::string error;
    reopen_at_ = 0;
    if (open(error))
        return;
    reopen_at_ = now_ms() + kReopenMs;
    listener_.condition(listener_.context, 0, error.c_str());
}

void fmon_bus::poll(int timeout_ms)
{
    if (reopen_at_ != 0 && now_ms() >= reopen_at_)
        reopen();
    while (producer_ && rd_kafka_poll(producer_, timeout_ms) > 0)
        timeout_ms = 0;
}

const struct fmon_bus_plugin *fmon_bus_get()
{
    static constexpr struct fmon_bus_plugin kPlugin = bus::make_plugin<struct fmon_bus>("kafka");
    return &kPlugin;
}
