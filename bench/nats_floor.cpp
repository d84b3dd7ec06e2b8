#include "nats_floor.h"

#include <nats/nats.h>

#include <string>

namespace
{

constexpr int64_t kPending = 8192; /* as many as an output has on their way */
constexpr int64_t kWaitMs = 600'000;

natsStatus publish(jsCtx *js, const std::string &text, const std::string &id)
{
    natsMsg *message = nullptr;
    natsStatus status =
        natsMsg_Create(&message, "fmon.host.bench.note", nullptr, text.data(), static_cast<int>(text.size()));
    if (status == NATS_OK)
        status = natsMsgHeader_Set(message, "Nats-Msg-Id", id.c_str());
    if (status == NATS_OK)
        status = natsMsgHeader_Set(message, "Fmon-Host", "host");
    if (status == NATS_OK)
        status = js_PublishMsgAsync(js, &message, nullptr);
    natsMsg_Destroy(message);
    return status;
}

}  // namespace

const char *publish_floor(const char *server, const char *boot, size_t length, uint64_t count)
{
    natsConnection *connection = nullptr;
    jsCtx *js = nullptr;
    jsOptions options;
    jsOptions_Init(&options);
    options.PublishAsync.MaxPending = kPending;
    options.PublishAsync.StallWait = kWaitMs;
    const std::string text(length, 'x');
    natsStatus status = natsConnection_ConnectTo(&connection, server);
    if (status == NATS_OK)
        status = natsConnection_JetStream(&js, connection, &options);
    for (uint64_t number = 1; number <= count && status == NATS_OK; number++)
        status = publish(js, text, std::string(boot) + ":bench:" + std::to_string(number));
    jsPubOptions wait;
    jsPubOptions_Init(&wait);
    wait.MaxWait = kWaitMs;
    if (status == NATS_OK)
        status = js_PublishAsyncComplete(js, &wait);
    jsCtx_Destroy(js);
    natsConnection_Destroy(connection);
    return status == NATS_OK ? nullptr : natsStatus_GetText(status);
}
