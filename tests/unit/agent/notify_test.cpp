/* What the manager of services hears, at the socket that it named. */
#include "agent/notify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>

#include "unit/agent/agent_testing.h"

using namespace agent;

namespace
{

/* A manager that listens at a path, or at an abstract name. */
class NotifyTest : public testing::Test
{
protected:
    ~NotifyTest() override { clear(); }

    void listen(const std::string &address)
    {
        struct sockaddr_un at = {};
        at.sun_family = AF_UNIX;
        memcpy(at.sun_path, address.data(), address.size());
        if (address[0] == '@')
            at.sun_path[0] = '\0';
        manager.reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        const auto size = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + address.size());
        ASSERT_EQ(0, bind(manager.get(), reinterpret_cast<struct sockaddr *>(&at), size)) << strerror(errno);
        setenv("NOTIFY_SOCKET", address.c_str(), 1);
    }

    static void clear()
    {
        for (const char *name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"})
            unsetenv(name);
    }

    /* The next message; empty: there is none. */
    std::string heard() const
    {
        char text[512];
        const ssize_t n = recv(manager.get(), text, sizeof text, 0);
        return n > 0 ? std::string(text, static_cast<size_t>(n)) : std::string();
    }

    agent_testing::Directory directory;
    common::Fd manager;
};

}  // namespace

TEST_F(NotifyTest, AManagerHearsEachStateAtAPath)
{
    listen(directory.path("notify"));
    Notify notify;
    notify.ready();
    EXPECT_EQ("READY=1", heard());
    notify.status("watching:\n2 instances");
    EXPECT_EQ("STATUS=watching: 2 instances", heard());
    notify.status("watching:\n2 instances");
    EXPECT_EQ("", heard());
    notify.reloading();
    EXPECT_TRUE(heard().starts_with("RELOADING=1\nMONOTONIC_USEC="));
    notify.extend(1500);
    EXPECT_EQ("EXTEND_TIMEOUT_USEC=1500000", heard());
    notify.watchdog();
    EXPECT_EQ("WATCHDOG=1", heard());
    notify.stopping();
    EXPECT_EQ("STOPPING=1", heard());
}

TEST_F(NotifyTest, TheNameMayBeAbstract)
{
    listen("@fmon-notify-test-" + std::to_string(getpid()));
    Notify().ready();
    EXPECT_EQ("READY=1", heard());
}

TEST_F(NotifyTest, ChildrenDoNotInheritTheName)
{
    listen(directory.path("notify"));
    setenv("WATCHDOG_USEC", "2000000", 1);
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
    const Notify notify;
    EXPECT_EQ(2000u, notify.watchdog_ms());
    for (const char *name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"})
        EXPECT_EQ(nullptr, getenv(name)) << name;
}

TEST_F(NotifyTest, AnotherProcessesWatchdogIsNotOurs)
{
    listen(directory.path("notify"));
    setenv("WATCHDOG_USEC", "2000000", 1);
    setenv("WATCHDOG_PID", "1", 1);
    EXPECT_EQ(0u, Notify().watchdog_ms());
}

TEST_F(NotifyTest, WithoutAManagerNothingHappens)
{
    clear();
    Notify none;
    none.ready();
    EXPECT_EQ(0u, none.watchdog_ms());
    for (const std::string &address : {std::string("relative"), std::string(200, '/')}) {
        setenv("NOTIFY_SOCKET", address.c_str(), 1);
        Notify wrong;
        wrong.ready();
        wrong.status("x");
    }
    setenv("NOTIFY_SOCKET", directory.path("nobody").c_str(), 1);
    Notify().ready();
}

TEST_F(NotifyTest, AManagerThatDoesNotReadHoldsNobodyUp)
{
    listen(directory.path("notify"));
    Notify notify;
    for (int i = 0; i < 10'000; i++)
        notify.watchdog();
    EXPECT_EQ("WATCHDOG=1", heard());
}

/* A socket holds few messages: what tells that the service is ready must not be the one that is lost. */
TEST_F(NotifyTest, WhatTheManagerCannotTakeAtOnceComesLater)
{
    listen(directory.path("notify"));
    Notify notify;
    std::vector<std::string> sent;
    for (int i = 0; i < 25; i++) {
        notify.status(std::to_string(i));
        sent.push_back("STATUS=" + std::to_string(i));
    }
    notify.ready();
    sent.emplace_back("READY=1");
    std::vector<std::string> all;
    for (std::string text; notify.retry(), !(text = heard()).empty();)
        all.push_back(text);
    EXPECT_EQ(sent, all);
}

TEST_F(NotifyTest, MoreTimeIsAskedForOnlyWhereMuchOfItHasPassed)
{
    listen(directory.path("notify"));
    Notify notify;
    for (int i = 0; i < 100; i++)
        notify.extend(600'000);
    EXPECT_EQ("EXTEND_TIMEOUT_USEC=600000000", heard());
    EXPECT_EQ("", heard());
    notify.extend(900'000);
    EXPECT_EQ("EXTEND_TIMEOUT_USEC=900000000", heard());
}
