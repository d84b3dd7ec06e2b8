#include "nats_servers.h"

#include <fstream>

namespace bus_testing
{

namespace
{

constexpr int64_t kTenMinutes = int64_t{600} * 1'000'000'000;
constexpr int kAtOnce = 1000;
constexpr int64_t kAnswerMs = 500; /* a cluster that has no leader yet says nothing */

std::string address(int port) { return "127.0.0.1:" + std::to_string(port); }

}  // namespace

NatsServers::NatsServers(int count, const std::string &more)
{
    for (int i = 0; i < count; i++) {
        ports_.push_back(free_port());
        routes_.push_back(free_port());
    }
    servers_.resize(static_cast<size_t>(count));
    for (int i = 0; i < count; i++) {
        write_configuration(i, more);
        start(i);
    }
}

void NatsServers::write_configuration(int index, const std::string &more)
{
    const std::string number = std::to_string(index);
    std::ofstream file(tree_.path("conf" + number));
    file << "listen: \"" << address(port(index)) << "\"\nserver_name: s" << number << "\n"
         << "jetstream { store_dir: \"" << tree_.path("store" + number) << "\" }\n"
         << more;
    if (ports_.size() == 1)
        return;
    file << "cluster { name: fmon, listen: \"" << address(routes_[static_cast<size_t>(index)]) << "\", routes: [";
    for (const int port : routes_)
        file << (port == routes_[0] ? "" : ", ") << "\"nats://" << address(port) << "\"";
    file << "] }\n";
}

void NatsServers::start(int index)
{
    servers_[static_cast<size_t>(index)] =
        Server({program(), "-c", tree_.path("conf" + std::to_string(index))}, log(index));
}

std::vector<std::string> NatsServers::addresses() const
{
    std::vector<std::string> all;
    for (const int port : ports_)
        all.push_back("nats://" + address(port));
    return all;
}

Stream::Stream(const NatsServers &servers, const std::string &user, bool tls)
{
    std::vector<std::string> texts = servers.addresses();
    std::vector<const char *> urls;
    for (std::string &text : texts)
        urls.push_back(text.insert(7, user).c_str());
    natsOptions *options = nullptr;
    natsOptions_Create(&options);
    natsOptions_SetServers(options, urls.data(), static_cast<int>(urls.size()));
    if (tls) {
        natsOptions_SetSecure(options, true);
        natsOptions_SkipServerVerification(options, true);
    }
    wait_until([&] { return natsConnection_Connect(&connection_, options) == NATS_OK; });
    natsOptions_Destroy(options);
    if (connection_)
        natsConnection_JetStream(&js_, connection_, nullptr);
}

Stream::~Stream()
{
    jsCtx_Destroy(js_);
    natsConnection_Destroy(connection_);
}

bool Stream::make(int replicas, bool in_memory, int longest)
{
    jsStreamConfig config;
    jsStreamConfig_Init(&config);
    const char *subjects[] = {"fmon.>"};
    config.Name = "FMON";
    config.Subjects = subjects;
    config.SubjectsLen = 1;
    config.Storage = in_memory ? js_MemoryStorage : js_FileStorage;
    config.Replicas = replicas;
    config.Duplicates = kTenMinutes;
    config.MaxMsgSize = longest;
    jsOptions options;
    jsOptions_Init(&options);
    options.Wait = kAnswerMs;
    return js_ && wait_until([&] { return js_AddStream(nullptr, js_, &config, &options, nullptr) == NATS_OK; });
}

uint64_t Stream::messages()
{
    jsStreamInfo *info = nullptr;
    if (js_GetStreamInfo(&info, js_, "FMON", nullptr, nullptr) != NATS_OK)
        return 0;
    const uint64_t count = info->State.Msgs;
    jsStreamInfo_Destroy(info);
    return count;
}

std::vector<std::string> Stream::ids(uint64_t count)
{
    std::vector<std::string> all;
    natsSubscription *subscription = nullptr;
    jsSubOptions options;
    jsSubOptions_Init(&options);
    options.Config.AckPolicy = js_AckNone;
    const auto subscribe = [&] {
        return js_PullSubscribe(&subscription, js_, "fmon.>", nullptr, nullptr, &options, nullptr) == NATS_OK;
    };
    if (!wait_until(subscribe)) /* a cluster that chooses a leader takes none */
        return all;
    for (int misses = 0; all.size() < count && misses < 10;) {
        natsMsgList list = {};
        if (natsSubscription_Fetch(&list, subscription, kAtOnce, 1000, nullptr) != NATS_OK)
            misses++;
        for (int i = 0; i < list.Count; i++) {
            const char *id = "", *host = "";
            natsMsgHeader_Get(list.Msgs[i], "Nats-Msg-Id", &id);
            natsMsgHeader_Get(list.Msgs[i], "Fmon-Host", &host);
            if (all.empty()) {
                subject_ = natsMsg_GetSubject(list.Msgs[i]);
                host_ = host;
            }
            all.emplace_back(id);
        }
        natsMsgList_Destroy(&list);
    }
    natsSubscription_Destroy(subscription);
    return all;
}

}  // namespace bus_testing
