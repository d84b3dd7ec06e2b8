#include "connection.h"

#include <memory>
#include <vector>

namespace bus
{

namespace
{

constexpr int64_t kConnectMs = 5000;
constexpr int64_t kReconnectMs = 500, kJitterMs = 250;
constexpr int64_t kPingMs = 10'000; /* a connection whose other side is gone is found dead after two of them */
constexpr int kUnlimited = -1;

using Options = std::unique_ptr<natsOptions, decltype(&natsOptions_Destroy)>;

/* Collects the first failure of a row of calls. */
class Steps
{
public:
    explicit Steps(std::string &error) : error_(error) {}
    void add(const char *what, natsStatus status)
    {
        if (status == NATS_OK || !error_.empty())
            return;
        const char *detail = nats_GetLastError(nullptr);
        error_ = std::string(what) + ": " + (detail && *detail ? detail : natsStatus_GetText(status));
    }
    bool done() const { return error_.empty(); }

private:
    std::string &error_;
};

void set_servers(natsOptions *options, const Settings &settings, Steps &steps)
{
    const std::vector<std::string> servers = settings.texts("servers");
    std::vector<const char *> texts;
    for (const std::string &server : servers)
        texts.push_back(server.c_str());
    steps.add("servers", natsOptions_SetServers(options, texts.data(), static_cast<int>(texts.size())));
}

void set_tls(natsOptions *options, const Settings &settings, Steps &steps)
{
    const std::string authority = settings.text("ca"), certificate = settings.text("certificate"),
                      key = settings.text("private_key"), name = settings.text("server_name");
    if (!settings.flag("tls") && authority.empty() && certificate.empty())
        return;
    steps.add("tls", natsOptions_SetSecure(options, true));
    if (!authority.empty())
        steps.add("ca", natsOptions_LoadCATrustedCertificates(options, authority.c_str()));
    if (!certificate.empty())
        steps.add("certificate", natsOptions_LoadCertificatesChain(options, certificate.c_str(), key.c_str()));
    if (!name.empty())
        steps.add("server_name", natsOptions_SetExpectedHostname(options, name.c_str()));
}

void set_user(natsOptions *options, const Settings &settings, Steps &steps)
{
    std::string secret;
    if (settings.has("credentials"))
        steps.add("credentials",
                  natsOptions_SetUserCredentialsFromFiles(options, settings.text("credentials").c_str(), nullptr));
    if (settings.has("password")) {
        steps.add("password", settings.secret("password", secret) ? NATS_OK : NATS_NOT_PERMITTED);
        steps.add("password", natsOptions_SetUserInfo(options, settings.text("user").c_str(), secret.c_str()));
    }
    if (settings.has("token")) {
        steps.add("token", settings.secret("token", secret) ? NATS_OK : NATS_NOT_PERMITTED);
        steps.add("token", natsOptions_SetToken(options, secret.c_str()));
    }
}

/* A connection is tried for ever, in the background from the first time on. */
void set_patience(natsOptions *options, Steps &steps)
{
    const auto nothing = [](natsConnection *, void *) {};
    steps.add("connect", natsOptions_SetRetryOnFailedConnect(options, true, nothing, nullptr));
    steps.add("connect", natsOptions_SetMaxReconnect(options, kUnlimited));
    steps.add("connect", natsOptions_SetReconnectWait(options, kReconnectMs));
    steps.add("connect", natsOptions_SetReconnectJitter(options, kJitterMs, kJitterMs));
    steps.add("connect", natsOptions_SetTimeout(options, kConnectMs));
    steps.add("connect", natsOptions_SetPingInterval(options, kPingMs));
    steps.add("connect", natsOptions_SetMaxPingsOut(options, 2));
    steps.add("connect", natsOptions_SetName(options, "fmon"));
}

}  // namespace

bool NatsConnection::open(const Settings &settings, std::string &error)
{
    natsOptions *made = nullptr;
    Steps steps(error);
    steps.add("nats", natsOptions_Create(&made));
    const Options options(made, natsOptions_Destroy);
    if (!made)
        return false;
    set_servers(made, settings, steps);
    set_tls(made, settings, steps);
    set_user(made, settings, steps);
    set_patience(made, steps);
    steps.add("connect", natsOptions_SetDisconnectedCB(made, on_disconnect, this));
    steps.add("connect", natsOptions_SetErrorHandler(made, on_error, this));
    if (!steps.done())
        return false;
    const natsStatus status = natsConnection_Connect(&connection_, made);
    steps.add("connect", status == NATS_NOT_YET_CONNECTED ? NATS_OK : status);
    return steps.done() && subscribe(error);
}

bool NatsConnection::subscribe(std::string &error)
{
    natsInbox *inbox = nullptr;
    Steps steps(error);
    steps.add("inbox", natsInbox_Create(&inbox));
    if (!inbox)
        return false;
    prefix_ = std::string(inbox) + ".";
    natsInbox_Destroy(inbox);
    steps.add("answers", natsConnection_SubscribeSync(&answers_, connection_, (prefix_ + "*").c_str()));
    if (steps.done())
        steps.add("answers", natsSubscription_SetPendingLimits(answers_, kUnlimited, kUnlimited));
    return steps.done();
}

void NatsConnection::close()
{
    natsSubscription_Destroy(answers_);
    natsConnection_Destroy(connection_);
    answers_ = nullptr;
    connection_ = nullptr;
}

void NatsConnection::note(const char *text)
{
    const std::lock_guard<std::mutex> guard(shared_.mutex);
    if (text && *text)
        shared_.error = text;
}

void NatsConnection::on_disconnect(natsConnection *connection, void *self)
{
    NatsConnection &object = *static_cast<NatsConnection *>(self);
    object.interruptions_++;
    const char *text = nullptr;
    if (natsConnection_GetLastError(connection, &text) != NATS_OK)
        object.note(text);
}

void NatsConnection::on_error(natsConnection *connection, natsSubscription *, natsStatus status, void *self)
{
    const char *text = nullptr;
    natsConnection_GetLastError(connection, &text);
    static_cast<NatsConnection *>(self)->note(text && *text ? text : natsStatus_GetText(status));
}

std::string NatsConnection::last_error()
{
    const char *text = nullptr;
    if (connection_ && natsConnection_GetLastError(connection_, &text) != NATS_OK)
        note(text);
    const std::lock_guard<std::mutex> guard(shared_.mutex);
    return shared_.error;
}

}  // namespace bus
