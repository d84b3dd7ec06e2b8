#include "run_service.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <fstream>

using testlib::TempTree;

namespace systest
{

namespace
{

struct sockaddr_un address_of(const std::string &path)
{
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    EXPECT_LT(path.size(), sizeof address.sun_path);
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

}  // namespace

bool await(const std::function<bool()> &condition, int ms)
{
    for (const int64_t end = now_ms() + ms; now_ms() < end; pause_ms(10))
        if (condition())
            return true;
    return condition();
}

std::string instance_text(const std::string &name, const std::string &watch, const std::string &output,
                          const std::string &more)
{
    return "[[instance]]\nname = \"" + name + "\"\n" + more + "[[instance.watch]]\n" + watch + "[[instance.output]]\n" +
           output;
}

std::string tree_text(const std::string &path) { return "paths = [\"" + path + "\"]\nrecursive = true\n"; }

std::string file_text(const std::string &path) { return "type = \"file\"\npath = \"" + path + "\"\n"; }

Service::~Service()
{
    if (manager_ >= 0)
        close(manager_);
}

void Service::configure(const std::string &instances, const std::string &service)
{
    const char *events = getenv("FMON_TEST_EVENTS");
    const std::string source = events ? events : "auto";
    std::ofstream(config()) << "[service]\nsocket = \"" << tree_.path("socket") << "\"\nstate_directory = \""
                            << tree_.path("state") << "\"\n"
                            << service << "[fmon]\nsource = \"" << source << "\"\n"
                            << instances;
}

void Service::launch(const std::string &setting)
{
    const std::string notify = tree_.path("notify");
    const struct sockaddr_un address = address_of(notify);
    if (manager_ >= 0)  // the run before has ended
        close(manager_);
    unlink(notify.c_str());
    heard_.clear();
    manager_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    ASSERT_EQ(0, bind(manager_, reinterpret_cast<const struct sockaddr *>(&address), sizeof address));
    process_ = std::make_unique<Process>(Launch{{std::string(FMON_TEST_BIN) + "/fmon", "run", "--config", config()},
                                                false,
                                                {"NOTIFY_SOCKET=" + notify, setting}});
}

void Service::start()
{
    launch();
    ASSERT_TRUE(hears("READY=1")) << process_->errors();
}

void Service::reload()
{
    heard_.clear();
    process_->send(SIGHUP);
    ASSERT_TRUE(hears("RELOADING=1"));
    ASSERT_TRUE(hears("READY=1")) << process_->errors();
}

bool Service::hears(const std::string &part, int times)
{
    return await([&] {
        char text[512];
        for (ssize_t n; (n = recv(manager_, text, sizeof text, 0)) > 0;)
            heard_ += std::string(text, static_cast<size_t>(n)) + "\n";
        int found = 0;
        for (size_t at = 0; (at = heard_.find(part, at)) != std::string::npos; at += part.size())
            found++;
        return found >= times;
    });
}

std::string Service::ask(const std::string &socket_name, const std::string &request) const
{
    const struct sockaddr_un address = address_of(tree_.path(socket_name));
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(0, connect(fd, reinterpret_cast<const struct sockaddr *>(&address), sizeof address));
    EXPECT_EQ(static_cast<ssize_t>(request.size()), write(fd, request.data(), request.size()));
    std::string answer;
    char block[4096];
    for (ssize_t n; (n = read(fd, block, sizeof block)) > 0;)
        answer.append(block, static_cast<size_t>(n));
    close(fd);
    return answer;
}

std::vector<std::string> paths_in(const std::string &file, const Names &kinds)
{
    std::vector<std::string> paths;
    std::ifstream lines(file);
    for (std::string line; std::getline(lines, line);) {
        const std::optional<Json> record = Json::parse_if(line);
        EXPECT_TRUE(record) << line;
        if (!record || record->value("type", "") != "event")
            continue;
        for (const Json &kind : (*record)["events"])
            if (kinds.count(kind.text())) {
                paths.push_back(record->value("path", ""));
                break;
            }
    }
    return paths;
}

}  // namespace systest
