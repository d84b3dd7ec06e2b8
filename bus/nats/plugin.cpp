/* The plug-in for NATS: records into a JetStream, each with an acknowledgement of its own. A record's subject for the
 * answer ends in its number. */
#include <nats/nats.h>
#include <time.h>

#include <algorithm>
#include <charconv>
#include <random>
#include <string>
#include <string_view>

#include "ack.h"
#include "bus/plugin.h"
#include "connection.h"
#include "pending.h"

using bus::now_ms;
using bus::Settings;

namespace
{

constexpr uint64_t kReopenMs = 500, kReopenSpreadMs = 500; /* so that a fleet does not come back at once */
constexpr long kUnconnectedMs = 100;
constexpr size_t kMany = 512; /* answers to come that are worth a pause */
constexpr struct timespec kGather = {0, 1'000'000};

struct Message {
    natsMsg *message = nullptr;
    ~Message() { natsMsg_Destroy(message); }
};

}  // namespace

struct fmon_bus {
    fmon_bus(const Settings &settings, const struct fmon_bus_listener &listener)
        : settings_(settings), listener_(listener)
    {
    }

    bool open(std::string &error);
    size_t send(const struct fmon_bus_message *messages, size_t count);
    void poll(int timeout_ms);

private:
    natsStatus publish(const struct fmon_bus_message &message);
    void take_answers(int timeout_ms);
    void take_answer(natsMsg *answer);
    void all_again(uint64_t until, const std::string &why);
    bool keep_connected();
    void reopen();
    void say(const std::string &why); /* "": it works */

    const Settings settings_;
    const struct fmon_bus_listener listener_;
    bus::NatsConnection connection_;
    bus::Pending pending_;
    std::minstd_rand spread_{std::random_device()()};
    uint64_t reopen_at_ = 0;
    std::string said_;
};

void fmon_bus::say(const std::string &why)
{
    if (why == said_)
        return;
    said_ = why;
    listener_.condition(listener_.context, why.empty(), why.c_str());
}

bool fmon_bus::open(std::string &error) { return bus::NatsConnection::check(settings_, error); }

natsStatus fmon_bus::publish(const struct fmon_bus_message &message)
{
    const std::string reply = connection_.reply_prefix() + std::to_string(message.number);
    Message made;
    natsStatus status = natsMsg_Create(&made.message, message.subject, reply.c_str(), message.text,
                                       static_cast<int>(message.text_size));
    if (status == NATS_OK)
        status = natsMsgHeader_Set(made.message, "Nats-Msg-Id", message.id);
    if (status == NATS_OK)
        status = natsMsgHeader_Set(made.message, "Fmon-Host", message.host);
    return status == NATS_OK ? natsConnection_PublishMsg(connection_.get(), made.message) : status;
}

size_t fmon_bus::send(const struct fmon_bus_message *messages, size_t count)
{
    if (!connection_.connected())
        return 0;
    const uint64_t now = now_ms();
    for (size_t i = 0; i < count; i++) {
        const natsStatus status = publish(messages[i]);
        if (status == NATS_OK) {
            pending_.add(messages[i].number, now);
        } else if (status == NATS_MAX_PAYLOAD) {
            listener_.outcome(listener_.context, messages[i].number, FMON_BUS_REFUSED,
                              "the server takes no message as long");
        } else {
            say(std::string("cannot send: ") + natsStatus_GetText(status));
            return i;
        }
    }
    return count;
}

void fmon_bus::take_answer(natsMsg *answer)
{
    const std::string_view subject = natsMsg_GetSubject(answer);
    uint64_t number = 0;
    const size_t at = std::min(connection_.reply_prefix().size(), subject.size());
    std::from_chars(subject.data() + at, subject.data() + subject.size(), number);
    if (!pending_.remove(number))
        return;
    std::string why;
    const std::string_view text(natsMsg_GetData(answer), static_cast<size_t>(natsMsg_GetDataLength(answer)));
    const enum fmon_bus_outcome outcome = bus::read_ack(text, why);
    if (outcome == FMON_BUS_STORED)
        said_.clear();
    listener_.outcome(listener_.context, number, outcome, why.c_str());
}

/* All that were sent up to then. */
void fmon_bus::all_again(uint64_t until, const std::string &why)
{
    for (const uint64_t number : pending_.take(until))
        listener_.outcome(listener_.context, number, FMON_BUS_AGAIN, why.c_str());
}

void fmon_bus::take_answers(int timeout_ms)
{
    while (true) {
        Message answer;
        const natsStatus status = natsSubscription_NextMsg(&answer.message, connection_.answers(), timeout_ms);
        if (status == NATS_NO_RESPONDERS) /* the library does not say to which message */
            all_again(UINT64_MAX, "no stream takes the subject: nats stream add, or another `subject`");
        else if (status == NATS_OK)
            take_answer(answer.message);
        else
            return;
        /* Otherwise each answer would wake this thread by itself. */
        if (timeout_ms > 0 && pending_.size() > kMany)
            nanosleep(&kGather, nullptr);
        timeout_ms = 0;
    }
}

void fmon_bus::reopen()
{
    const uint64_t now = now_ms();
    if (now < reopen_at_)
        return;
    std::string error;
    const bool opened = connection_.open(settings_, error);
    reopen_at_ = now_ms() + kReopenMs + spread_() % kReopenSpreadMs;
    say(opened ? "" : error);
}

/* Whether there is a connection. */
bool fmon_bus::keep_connected()
{
    if (!connection_.connected()) {
        const std::string why = connection_.last_error();
        all_again(UINT64_MAX, "the connection has broken" + (why.empty() ? "" : ": " + why));
        reopen();
    }
    return connection_.connected();
}

void fmon_bus::poll(int timeout_ms)
{
    if (!keep_connected()) {
        const struct timespec pause = {0, std::min<long>(timeout_ms, kUnconnectedMs) * 1'000'000};
        nanosleep(&pause, nullptr);
        return;
    }
    take_answers(timeout_ms);
    const uint64_t patience = settings_.number("ack_timeout"), now = now_ms();
    if (patience != 0 && now > patience)
        all_again(now - patience, "no acknowledgement within " + std::to_string(patience / 1000) + " s");
}

const struct fmon_bus_plugin *fmon_bus_get()
{
    static constexpr struct fmon_bus_plugin kPlugin = bus::make_plugin<struct fmon_bus>("nats " NATS_VERSION_STRING);
    return &kPlugin;
}
