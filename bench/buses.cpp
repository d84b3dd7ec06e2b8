/*
 * buses.cpp: what a spool and an output into a message bus carry on this machine.
 *
 *   fmon_buses DIRECTORY LIBRARIES [RECORDS]
 *
 * DIRECTORY: on the disk that is measured; LIBRARIES: the directory with libfmon-nats.so. Prints megabytes a second
 * into a spool and out of it, and, where there is a nats-server, records a second into a JetStream of one server on
 * this machine, each acknowledged, with this side's processor time; beside that the floor: the same messages by nothing
 * but the engine's own asynchronous call.
 */
#include <arpa/inet.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "nats_floor.h"
#include "output/sinks.h"
#include "output/spool/spool.h"

namespace
{

constexpr size_t kLength = 300; /* bytes of a record: that of an event as JSON, with its process */
constexpr size_t kBatch = 256;
constexpr int kRounds = 3;
constexpr char kPort[] = "14222";
constexpr char kServer[] = "/usr/sbin/nats-server";

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point begin) { return std::chrono::duration<double>(Clock::now() - begin).count(); }

uint64_t now_ms()
{
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch()).count());
}

double processor_seconds(int who)
{
    struct rusage usage;
    getrusage(who, &usage);
    const auto seconds = [](const struct timeval &t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

[[noreturn]] void die(const std::string &why)
{
    fprintf(stderr, "fmon_buses: %s\n", why.c_str());
    exit(1);
}

void fill_spool(output::Spool &spool, uint64_t count)
{
    const std::string text(kLength, 'x');
    std::string error;
    for (uint64_t number = 1; number <= count;) {
        output::SpoolRecord records[kBatch];
        for (size_t i = 0; i < kBatch; i++)
            records[i] = {number + i, false, "create", "/srv/data/file", text};
        if (spool.append(records, error) != kBatch || !spool.settle(now_ms(), error))
            die(error);
        number += kBatch;
    }
}

void empty_spool(output::Spool &spool)
{
    std::deque<output::SpoolEntry> entries;
    while (spool.read(size_t{256} << 10, entries)) {
        spool.acknowledge(entries.back().ordinal);
        entries.clear();
    }
}

void measure_spool(const std::string &directory, uint64_t count, output::SpoolSync sync, const char *what)
{
    output::SpoolLimits limits;
    limits.bytes = uint64_t{8} << 30;
    limits.sync = sync;
    output::Spool spool(directory + "/spool", "boot:bench", limits);
    std::string error;
    if (!spool.open(error))
        die(error);
    const double megabytes = static_cast<double>(count * kLength) / 1e6;
    Clock::time_point begin = Clock::now();
    fill_spool(spool, count);
    const double in = megabytes / seconds_since(begin);
    begin = Clock::now();
    empty_spool(spool);
    printf("spool, %-28s %7.0f MB/s in  %7.0f MB/s out  (%.0f MB of records)\n", what, in,
           megabytes / seconds_since(begin), megabytes);
}

pid_t start_server(const std::string &directory)
{
    const std::string store = directory + "/store", port = kPort;
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (!freopen((directory + "/log").c_str(), "w", stderr))
            _exit(1);
        execl(kServer, kServer, "-a", "127.0.0.1", "-p", port.c_str(), "-js", "-sd", store.c_str(), nullptr);
        _exit(127);
    }
    return pid;
}

/* A stream by the server's own protocol: no library of its clients is needed for it. */
bool make_stream()
{
    const std::string stream = R"({"name":"FMON","subjects":["fmon.>"],"storage":"file","num_replicas":1})";
    const std::string request =
        "CONNECT {\"verbose\":false}\r\nSUB answer 1\r\nPUB $JS.API.STREAM.CREATE.FMON answer " +
        std::to_string(stream.size()) + "\r\n" + stream + "\r\n";
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(atoi(kPort)));
    bool made = connect(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address) == 0 &&
                write(fd, request.data(), request.size()) == static_cast<ssize_t>(request.size());
    std::string answer;
    char bytes[4096];
    for (ssize_t got = 1; made && answer.find("\"did_create\"") == answer.npos;
         answer.append(bytes, static_cast<size_t>(got)))
        made = (got = read(fd, bytes, sizeof bytes)) > 0;
    close(fd);
    return made;
}

void give(output::Sink &sink, uint64_t count)
{
    const std::string text = std::string(kLength, 'x') + "\n";
    for (uint64_t number = 1; number <= count;) {
        output::Record records[kBatch];
        for (size_t i = 0; i < kBatch; i++)
            records[i] = {number + i, 0, "note", text, nullptr};
        number += sink.accept(records);
    }
}

/* Records a second; printed, with the processor time of this process. */
template <typename Do>
double measure(const char *what, uint64_t count, Do work)
{
    const double before = processor_seconds(RUSAGE_SELF);
    const Clock::time_point begin = Clock::now();
    work();
    const double rate = static_cast<double>(count) / seconds_since(begin);
    printf("%-30s %8.0f records/s  %.2f us of a processor a record\n", what, rate,
           (processor_seconds(RUSAGE_SELF) - before) / static_cast<double>(count) * 1e6);
    return rate;
}

double measure_stream(const std::string &directory, uint64_t count, const std::string &boot)
{
    output::Settings settings;
    settings.set("servers", std::vector<std::string>{std::string("nats://127.0.0.1:") + kPort});
    settings.set("subject", std::string("fmon.{host}.{instance}.{kind}"));
    settings.set("spool", directory + "/stream");
    settings.set("spool_size", uint64_t{8} << 30);
    settings.set("heartbeat", uint64_t{0});
    settings.set("ack_timeout", uint64_t{10'000});
    std::string error;
    const auto sink = output::find_sink("nats")->make(settings, {"host", boot, "bench"}, error);
    if (!sink || !sink->open(error))
        die(error);
    give(*sink, kBatch); /* until there is a connection */
    sink->drain(10'000);
    const double rate = measure("JetStream, each acknowledged", count, [&] {
        give(*sink, count);
        if (!sink->drain(600'000))
            die(sink->condition().text);
    });
    printf("sent again: %llu\n", static_cast<unsigned long long>(sink->figures().retries));
    return rate;
}

#ifdef FMON_HAS_NATS
double measure_floor(uint64_t count, const std::string &boot)
{
    return measure("the engine's own call", count, [&] {
        const char *const why =
            publish_floor((std::string("nats://127.0.0.1:") + kPort).c_str(), boot.c_str(), kLength, count);
        if (why)
            die(why);
    });
}

/* In turns, since a machine has other things to do: the best of each against the other. No id comes twice, which would
 * be quicker. */
void compare(const std::string &directory, uint64_t count)
{
    double ours = 0, floor = 0;
    for (int round = 0; round < kRounds; round++) {
        ours = std::max(ours, measure_stream(directory, count, "ours" + std::to_string(round)));
        floor = std::max(floor, measure_floor(count, "floor" + std::to_string(round)));
    }
    printf("the best of the output are %.2f of the best of the engine's own call\n", ours / floor);
}
#else
void compare(const std::string &directory, uint64_t count) { measure_stream(directory, count, "ours"); }
#endif

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 3)
        die("usage: fmon_buses DIRECTORY LIBRARIES [RECORDS]");
    const std::string directory = std::string(argv[1]) + "/fmon_buses." + std::to_string(getpid());
    setenv("FMON_HOME", std::filesystem::path(argv[2]).parent_path().c_str(), 1);
    const uint64_t count = argc > 3 ? strtoull(argv[3], nullptr, 10) : 1'000'000;
    std::filesystem::create_directories(directory);
    measure_spool(directory, count, output::SpoolSync::kNever, "left to the system");
    measure_spool(directory, count, output::SpoolSync::kSecond, "on the disk each second");
    if (access(kServer, X_OK) == 0) {
        const pid_t server = start_server(directory);
        for (int tries = 0; tries < 100 && !make_stream(); tries++)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        compare(directory, count);
        kill(server, SIGKILL);
        waitpid(server, nullptr, 0);
    }
    std::filesystem::remove_all(directory);
    return 0;
}
