#include "configuration.h"

#include <vector>

namespace bus
{

namespace
{

struct Fixed {
    const char *name, *value;
};
constexpr Fixed kFixed[] = {
    {"client.id", "fmon"},
    {"enable.idempotence", "true"},
    {"message.timeout.ms", "0"}, /* whoever gives up is the spool, when it is full */
    {"linger.ms", "5"},
    {"reconnect.backoff.max.ms", "4000"},
    {"ssl.endpoint.identification.algorithm", "https"},
};

struct Handed {
    const char *name, *key;
};
constexpr Handed kHanded[] = {
    {"ssl.ca.location", "ca"},           {"ssl.certificate.location", "certificate"},
    {"ssl.key.location", "private_key"}, {"sasl.mechanism", "sasl"},
    {"sasl.username", "user"},           {"compression.codec", "compression"},
};

/* Collects the first failure of a row of settings. */
class Setter
{
public:
    Setter(rd_kafka_conf_t *conf, std::string &error) : conf_(conf), error_(error) {}
    void set(const char *name, const std::string &value)
    {
        char why[256];
        if (error_.empty() && rd_kafka_conf_set(conf_, name, value.c_str(), why, sizeof why) != RD_KAFKA_CONF_OK)
            error_ = why;
    }
    /* The engine would say the value. */
    void set_secret(const char *name, const std::string &value)
    {
        if (error_.empty() && rd_kafka_conf_set(conf_, name, value.c_str(), nullptr, 0) != RD_KAFKA_CONF_OK)
            error_ = std::string(name) + " is not taken";
    }
    void fail(const std::string &why)
    {
        if (error_.empty())
            error_ = why;
    }

private:
    rd_kafka_conf_t *const conf_;
    std::string &error_;
};

std::string comma_separated(const std::vector<std::string> &texts)
{
    std::string all;
    for (const std::string &text : texts)
        all += (all.empty() ? "" : ",") + text;
    return all;
}

const char *protocol(const Settings &settings)
{
    const bool tls = settings.flag("tls") || settings.has("ca") || settings.has("certificate");
    if (settings.has("sasl"))
        return tls ? "sasl_ssl" : "sasl_plaintext";
    return tls ? "ssl" : "plaintext";
}

void set_password(const Settings &settings, Setter &setter)
{
    std::string secret;
    if (!settings.has("password"))
        return;
    if (!settings.secret("password", secret))
        setter.fail("password: the file cannot be read");
    setter.set_secret("sasl.password", secret);
}

void set_options(const Settings &settings, Setter &setter)
{
    for (const std::string &option : settings.texts("options")) {
        const size_t at = option.find('=');
        if (at == std::string::npos)
            setter.fail("options: " + option + " has no \"=\"");
        else
            setter.set(option.substr(0, at).c_str(), option.substr(at + 1));
    }
}

}  // namespace

KafkaConfiguration make_configuration(const Settings &settings, std::string &error)
{
    KafkaConfiguration conf(rd_kafka_conf_new(), rd_kafka_conf_destroy);
    Setter setter(conf.get(), error);
    setter.set("bootstrap.servers", comma_separated(settings.texts("brokers")));
    setter.set("security.protocol", protocol(settings));
    for (const Fixed &row : kFixed)
        setter.set(row.name, row.value);
    for (const Handed &row : kHanded)
        if (settings.has(row.key))
            setter.set(row.name, settings.text(row.key));
    set_password(settings, setter);
    set_options(settings, setter);
    if (!error.empty())
        conf.reset();
    return conf;
}

}  // namespace bus
