#include "bus_testing.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>
#include <unordered_set>

namespace bus_testing
{

namespace
{

const output::Origin kOrigin = {"host.example", "b00t", "web"};
constexpr uint64_t kBatch = 100;

struct sockaddr_in local(int port)
{
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

struct sockaddr *any(struct sockaddr_in &address) { return reinterpret_cast<struct sockaddr *>(&address); }

}  // namespace

uint64_t now_ms()
{
    const auto since = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(since).count());
}

bool is_long() { return getenv("FMON_BUS_LONG") != nullptr; }

bool wait_until(const std::function<bool()> &ready, uint64_t timeout_ms)
{
    const uint64_t end = now_ms() + timeout_ms;
    while (!ready()) {
        if (now_ms() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

int free_port()
{
    int port = 0;
    listen_locally(port);
    return port;
}

common::Fd listen_locally(int &port)
{
    common::Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    struct sockaddr_in address = local(0);
    socklen_t size = sizeof address;
    if (bind(fd.get(), any(address), size) == 0 && listen(fd.get(), 16) == 0 &&
        getsockname(fd.get(), any(address), &size) == 0)
        port = ntohs(address.sin_port);
    return fd;
}

common::Fd connect_locally(int port)
{
    common::Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    struct sockaddr_in address = local(port);
    return connect(fd.get(), any(address), sizeof address) == 0 ? std::move(fd) : common::Fd();
}

Server::Server(const std::vector<std::string> &argv, const std::string &log)
{
    std::vector<char *> arguments;
    arguments.reserve(argv.size() + 1);
    for (const std::string &argument : argv)
        arguments.push_back(const_cast<char *>(argument.c_str()));
    arguments.push_back(nullptr);
    pid_ = fork();
    if (pid_ != 0)
        return;
    const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    dup2(out, 1);
    dup2(out, 2);
    execv(arguments[0], arguments.data());
    _exit(127);
}

void Server::kill()
{
    if (pid_ <= 0)
        return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

void Server::stop_for_now() { ::kill(pid_, SIGSTOP); }
void Server::go_on() { ::kill(pid_, SIGCONT); }

std::string program_path(const std::string &name)
{
    for (const char *directory : {"/usr/sbin/", "/usr/bin/", "/usr/local/bin/"})
        if (access((directory + name).c_str(), X_OK) == 0)
            return directory + name;
    return "";
}

bool Feed::open(const std::string &type, const output::Settings &settings, std::string &error)
{
    setenv("FMON_HOME", FMON_TEST_STAGE, 1);
    const output::SinkRow *row = output::find_sink(type);
    if (!row) {
        error = "no sink " + type;
        return false;
    }
    sink_.reset();
    sink_ = row->make(settings, kOrigin, error);
    return sink_ && sink_->open(error);
}

void Feed::put(uint64_t count, size_t length)
{
    const uint64_t end = next_ + count;
    while (next_ < end) {
        std::vector<std::string> texts;
        std::vector<output::Record> records;
        for (uint64_t i = 0; i < kBatch && next_ + i < end; i++) {
            texts.push_back("{\"number\":" + std::to_string(next_ + i) + ",\"text\":\"");
            texts.back().resize(std::max(length, texts.back().size()), 'x');
            texts.back() += "\"}\n";
        }
        for (size_t i = 0; i < texts.size(); i++)
            records.push_back({next_ + i, 0, "note", texts[i], nullptr});
        next_ += sink_->accept(records);
    }
}

std::string Feed::id(uint64_t number) { return kOrigin.boot + ":" + kOrigin.instance + ":" + std::to_string(number); }

Balance balance_of(uint64_t given, const std::vector<std::string> &arrived)
{
    const std::string prefix = Feed::id(0).substr(0, Feed::id(0).size() - 1);
    Balance out;
    out.given = given;
    std::unordered_set<uint64_t> seen;
    uint64_t highest = 0;
    for (const std::string &id : arrived) {
        const uint64_t number = id.starts_with(prefix) ? strtoull(id.c_str() + prefix.size(), nullptr, 10) : 0;
        if (number == 0 || number > given) {
            out.strange++;
            continue;
        }
        out.arrived++;
        out.twice += !seen.insert(number).second;
        out.out_of_order += number < highest;
        highest = std::max(highest, number);
    }
    out.lost = given - seen.size();
    return out;
}

void print_row(const char *what, const Balance &balance, const char *cut)
{
    printf("%-28s given %8llu  arrived %8llu  lost %llu  twice %llu  late %llu  %s\n", what,
           static_cast<unsigned long long>(balance.given), static_cast<unsigned long long>(balance.arrived),
           static_cast<unsigned long long>(balance.lost), static_cast<unsigned long long>(balance.twice),
           static_cast<unsigned long long>(balance.out_of_order), cut);
}

bool BusTest::open(const std::string &type, const output::Settings &settings)
{
    std::string error;
    const bool opened = feed.open(type, settings, error);
    EXPECT_TRUE(opened) << error;
    return opened;
}

bool BusTest::is_stuck_with(const std::string &text)
{
    return wait_until([&] {
        const output::Condition condition = feed.sink().condition();
        last_condition = condition.text;
        return condition.stuck && condition.text.find(text) != std::string::npos;
    });
}

}  // namespace bus_testing
