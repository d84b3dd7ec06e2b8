/* Message buses as outputs: what they can be told, and how that becomes a sink. */

#include <unistd.h>

#include <array>
#include <cstdlib>

#include "bus_library.h"
#include "bus_sink.h"
#include "output/secret.h"
#include "rows.h"

namespace output
{

namespace
{

/* What all buses have. */
constexpr std::array kShared = {
    Setting{"spool", SettingType::kText,
            "The directory in which records wait until the bus has them, by default one for this output below the "
            "state directory",
            nullptr},
    Setting{"spool_size", SettingType::kBytes,
            "What the spool holds at most; then the oldest records go, and are counted", "256 MiB"},
    Setting{
        "spool_sync", SettingType::kText,
        "When records are carried to the disk: \"never\", each \"second\", or with each \"batch\"; a killed process "
        "loses nothing either way, a machine without power does",
        "second"},
    Setting{"key", SettingType::kText,
            "What belongs together and stays in order: the \"path\" of an event, or the \"host\"", "path"},
    Setting{"heartbeat", SettingType::kTime, "How often a record of the output's figures is sent; 0: never", "1 min"},
    Setting{"in_flight", SettingType::kNumber, "How many records are sent before the first is acknowledged", "8192"},
    Setting{"tls", SettingType::kFlag, "The connection is encrypted, and the server's certificate checked", "false"},
    Setting{
        "ca", SettingType::kText,
        "The file of the authorities that certificates are checked against, by default the system's; switches `tls` on",
        nullptr},
    Setting{"certificate", SettingType::kText, "The file of our own certificate; switches `tls` on", nullptr},
    Setting{"private_key", SettingType::kSecret, "The file of the certificate's key", nullptr},
    Setting{"user", SettingType::kText, "The user to log in as", nullptr},
    Setting{"password", SettingType::kSecret, "The file of the user's password", nullptr},
};

template <size_t N>
constexpr std::array<Setting, N + kShared.size()> with_shared(const std::array<Setting, N> &own)
{
    std::array<Setting, N + kShared.size()> all = {};
    for (size_t i = 0; i < all.size(); i++)
        all[i] = i < N ? own[i] : kShared[i - N];
    return all;
}

constexpr auto kNatsSettings = with_shared(std::array{
    Setting{"servers", SettingType::kTexts, "The servers: nats://HOST:PORT or tls://HOST:PORT",
            "nats://127.0.0.1:4222"},
    Setting{"subject", SettingType::kText, "The subject of a record, with {host}, {instance} and {kind} in it",
            "fmon.{host}.{instance}.{kind}"},
    Setting{"ack_timeout", SettingType::kTime, "After this time without an acknowledgement a record is sent again",
            "10 s"},
    Setting{"credentials", SettingType::kSecret, "The file of credentials that nsc made", nullptr},
    Setting{"token", SettingType::kSecret, "The file of the token to log in with", nullptr},
    Setting{"server_name", SettingType::kText,
            "The name that the server's certificate must have, by default the host's", nullptr},
});

constexpr auto kKafkaSettings = with_shared(std::array{
    Setting{"brokers", SettingType::kTexts, "The brokers to ask first: HOST:PORT", "127.0.0.1:9092"},
    Setting{"topic", SettingType::kText, "The topic of a record, with {host}, {instance} and {kind} in it", "fmon"},
    Setting{"sasl", SettingType::kText,
            "How to log in: PLAIN, SCRAM-SHA-256 or SCRAM-SHA-512; needs `user` and `password`", nullptr},
    Setting{"compression", SettingType::kText, "none, gzip, snappy, lz4 or zstd", "zstd"},
    Setting{"options", SettingType::kTexts,
            "More settings of the engine, NAME=VALUE, as its own documentation has them; no secrets", nullptr},
});

struct BusKind {
    const char *name;
    std::span<const Setting> settings;
    const char *subject, *servers; /* keys */
    bool dots;                     /* a dot in a value does not part it */
};
constexpr BusKind kNats = {"nats", kNatsSettings, "subject", "servers", false};
constexpr BusKind kKafka = {"kafka", kKafkaSettings, "topic", "brokers", true};

std::string joined(const std::vector<std::string> &texts)
{
    std::string all;
    for (const std::string &text : texts)
        all += text + "\n";
    return all;
}

/* False, with `error`: of a secret whose file is missing or open to others. */
bool text_of(const Setting &row, const Settings &settings, std::string &text, std::string &error)
{
    switch (row.type) {
        case SettingType::kText:
            text = settings.text(row.key);
            break;
        case SettingType::kTexts:
            text = joined(settings.texts(row.key));
            break;
        case SettingType::kNumber:
        case SettingType::kBytes:
        case SettingType::kTime:
            text = std::to_string(settings.number(row.key));
            break;
        case SettingType::kFlag:
            text = settings.flag(row.key) ? "true" : "false";
            break;
        case SettingType::kSecret:
            return secret_path(settings.text(row.key), text, error);
    }
    return true;
}

bool texts_of(const BusKind &kind, const Settings &settings, std::vector<std::pair<std::string, std::string>> &texts,
              std::string &error)
{
    for (const Setting &row : kind.settings) {
        std::string text;
        if (!settings.has(row.key))
            continue;
        if (!text_of(row, settings, text, error))
            return false;
        texts.emplace_back(row.key, text);
    }
    return true;
}

std::string default_spool(const BusKind &kind, const Origin &origin)
{
    const char *state = secure_getenv("STATE_DIRECTORY");
    return std::string(state && *state == '/' ? state : "/var/lib/fmon") + "/spool/" + origin.instance + "-" +
           kind.name;
}

bool parse_sync(const std::string &text, SpoolSync &out)
{
    static constexpr std::pair<const char *, SpoolSync> kSyncs[] = {{"", SpoolSync::kSecond},
                                                                    {"never", SpoolSync::kNever},
                                                                    {"second", SpoolSync::kSecond},
                                                                    {"batch", SpoolSync::kBatch}};
    for (const auto &[name, sync] : kSyncs) {
        if (text != name)
            continue;
        out = sync;
        return true;
    }
    return false;
}

/* A user and a password in an address would be seen by everybody who reads the configuration or the log. */
bool has_secret(const std::vector<std::string> &servers)
{
    for (const std::string &server : servers)
        if (server.find('@') != std::string::npos)
            return true;
    return false;
}

/* The engine's own settings are seen by everybody who reads the configuration, too. */
std::string secret_option(const std::vector<std::string> &options)
{
    for (const std::string &option : options) {
        std::string name = option.substr(0, option.find('='));
        for (const char *part : {"password", "secret", ".pem"})
            if (name.find(part) != std::string::npos)
                return name;
    }
    return "";
}

std::string sasl_complaint(const Settings &settings)
{
    if (!settings.has("sasl"))
        return "";
    if (!settings.has("user"))
        return "sasl: needs user and password";
    const bool tls = settings.flag("tls") || settings.has("ca") || settings.has("certificate");
    if (settings.text("sasl") == "PLAIN" && !tls)
        return "sasl: PLAIN sends the password as it is: switch `tls` on, or use SCRAM-SHA-512";
    return "";
}

/* What is wrong with the settings; empty: nothing. */
std::string complaint(const BusKind &kind, const Settings &settings)
{
    const std::string key = settings.text("key"), spool = settings.text("spool");
    if (!key.empty() && key != "path" && key != "host")
        return "key: it is \"path\" or \"host\"";
    if (!spool.empty() && spool[0] != '/')
        return "spool: the path must begin with \"/\"";
    if (settings.texts(kind.servers).empty())
        return std::string(kind.servers) + ": there is none";
    if (has_secret(settings.texts(kind.servers)))
        return std::string(kind.servers) + ": no user or password in an address: use `user` and `password`";
    if (settings.has("password") != settings.has("user"))
        return "user and password belong together";
    if (settings.has("certificate") != settings.has("private_key"))
        return "certificate and private_key belong together";
    if (const std::string name = secret_option(settings.texts("options")); !name.empty())
        return "options: " + name + " is a secret: name its file by `password` or `private_key`";
    return sasl_complaint(settings);
}

bool plan_of(const BusKind &kind, const Settings &settings, const Origin &origin, BusPlan &plan, std::string &error)
{
    error = complaint(kind, settings);
    if (error.empty() && !parse_sync(settings.text("spool_sync"), plan.limits.sync))
        error = "spool_sync: it is \"never\", \"second\" or \"batch\"";
    if (error.empty() && !plan.bus.subject.parse(settings.text(kind.subject), kind.dots, error))
        error = std::string(kind.subject) + ": " + error;
    if (!error.empty())
        return false;
    plan.bus.origin = origin;
    plan.bus.key_is_host = settings.text("key") == "host";
    if (const uint64_t in_flight = settings.number("in_flight"); in_flight != 0)
        plan.bus.in_flight = in_flight;
    plan.bus.settings = [&kind, settings](auto &texts, std::string &why) {
        return texts_of(kind, settings, texts, why);
    };
    plan.spool = settings.has("spool") ? settings.text("spool") : default_spool(kind, origin);
    if (settings.has("spool_size"))
        plan.limits.bytes = settings.number("spool_size");
    if (settings.has("heartbeat"))
        plan.heartbeat_ms = settings.number("heartbeat");
    return true;
}

std::unique_ptr<Sink> make(const BusKind &kind, const Settings &settings, const Origin &origin, std::string &error)
{
    BusPlan plan;
    if (!plan_of(kind, settings, origin, plan, error))
        return nullptr;
    plan.bus.plugin = load_bus(kind.name, error);
    return plan.bus.plugin ? std::make_unique<BusSink>(plan) : nullptr;
}

std::unique_ptr<Sink> make_nats(const Settings &settings, const Origin &origin, std::string &error)
{
    return make(kNats, settings, origin, error);
}

std::unique_ptr<Sink> make_kafka(const Settings &settings, const Origin &origin, std::string &error)
{
    return make(kKafka, settings, origin, error);
}

}  // namespace

const SinkRow kNatsRow = {"nats", "a NATS JetStream, through a spool on disk", kNatsSettings, make_nats};
const SinkRow kKafkaRow = {"kafka", "a Kafka topic, through a spool on disk", kKafkaSettings, make_kafka};

}  // namespace output
