#include "connection.h"

#include <cstring>
#include <memory>
#include <vector>

namespace bus
{

namespace
{

constexpr int64_t kConnectMs = 3000; /* of each server */
constexpr int64_t kWriteMs = 5000;   /* after which a connection that takes nothing is given up */
constexpr int64_t kPingMs = 10'000;  /* a connection whose other side is gone is found dead after two of them */
constexpr int kUnlimited = -1;

using Options = std::unique_ptr<natsOptions, decltype(&natsOptions_Destroy)>;

/* The library says where in its own sources: "(conn.c:733): ...". */
const char *without_place(const char *text)
{
    const char *const end = *text == '(' ? strstr(text, "): ") : nullptr;
    return end ? end + 3 : text;
}

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
        error_ = std::string(what) + ": " + (detail && *detail ? without_place(detail) : natsStatus_GetText(status));
    }
    bool done() const { return error_.empty(); }

private:
    std::string &error_;
};

void set_servers(natsOptions *options, const Settings &settings, Steps &steps)
{
    const std::vector<std::string> servers = settings.texts("servers");
    std::vector<const char *> texts;
    texts.reserve(servers.size());
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

void set_patience(natsOptions *options, Steps &steps)
{
    steps.add("connect", natsOptions_SetAllowReconnect(options, false));
    steps.add("connect", natsOptions_SetTimeout(options, kConnectMs));
    steps.add("connect", natsOptions_SetWriteDeadline(options, kWriteMs));
    steps.add("connect", natsOptions_SetPingInterval(options, kPingMs));
    steps.add("connect", natsOptions_SetMaxPingsOut(options, 2));
    steps.add("connect", natsOptions_SetName(options, "fmon"));
}

Options make_options(const Settings &settings, Steps &steps)
{
    natsOptions *made = nullptr;
    steps.add("nats", natsOptions_Create(&made));
    Options options(made, natsOptions_Destroy);
    if (!made)
        return options;
    set_servers(made, settings, steps);
    set_tls(made, settings, steps);
    set_user(made, settings, steps);
    set_patience(made, steps);
    return options;
}

}  // namespace

bool NatsConnection::check(const Settings &settings, std::string &error)
{
    Steps steps(error);
    make_options(settings, steps);
    return steps.done();
}

bool NatsConnection::open(const Settings &settings, std::string &error)
{
    close();
    Steps steps(error);
    const Options options = make_options(settings, steps);
    if (!steps.done())
        return false;
    steps.add("not connected", natsConnection_Connect(&connection_, options.get()));
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

std::string NatsConnection::last_error()
{
    const char *text = nullptr;
    const natsStatus status = connection_ ? natsConnection_GetLastError(connection_, &text) : NATS_OK;
    return text && *text ? text : status == NATS_OK ? "" : natsStatus_GetText(status);
}

}  // namespace bus
