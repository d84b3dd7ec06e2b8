/* Which events are shown, by path, process, user and container. */
#include "output/event_filter.h"

#include "orx_fmon.h"
#include "unit/agent/agent_testing.h"

using namespace output;
using agent_testing::event_of;
using Texts = std::vector<std::string>;

namespace
{

class EventFilterTest : public testing::Test
{
protected:
    EventFilterTest()
    {
        nginx.name = "nginx";
        nginx.exe = "/usr/sbin/nginx";
        nginx.uid = 33;
        boxed = nginx;
        boxed.container = "0123456789abcdef";
    }

    /* Whether an event of /srv/a by that process is shown. */
    bool shows(const FilterOptions &options, const agent::ProcessInfo *process)
    {
        EventFilter filter;
        std::string key, error;
        const auto name_of = [](std::string_view) { return agent::ContainerName{"web", "registry/web:1.2"}; };
        EXPECT_TRUE(filter.prepare(options, name_of, key, error)) << error;
        return filter.shows(event_of("/srv/a", FMON_CREATE, 1, process));
    }

    agent::ProcessInfo nginx, boxed;
};

FilterOptions processes(const Texts &texts) { return {{}, {}, texts, {}, {}}; }
FilterOptions users(const Texts &texts) { return {{}, {}, {}, texts, {}}; }
FilterOptions containers(const Texts &texts) { return {{}, {}, {}, {}, texts}; }

}  // namespace

TEST_F(EventFilterTest, WithoutWishesAllIsShown)
{
    EXPECT_TRUE(shows({}, nullptr));
    EXPECT_TRUE(shows({}, &boxed));
}

TEST_F(EventFilterTest, PathsAreRegularExpressions)
{
    EXPECT_TRUE(shows({{"/a$"}, {}, {}, {}, {}}, nullptr));
    EXPECT_FALSE(shows({{"/b$"}, {}, {}, {}, {}}, nullptr));
    EXPECT_FALSE(shows({{}, {"^/srv"}, {}, {}, {}}, nullptr));
}

TEST_F(EventFilterTest, ProcessesAreNamesOrPrograms)
{
    EXPECT_TRUE(shows(processes({"nginx"}), &nginx));
    EXPECT_TRUE(shows(processes({"/usr/*/nginx"}), &nginx));
    EXPECT_FALSE(shows(processes({"apache"}), &nginx));
    EXPECT_FALSE(shows(processes({"!ngin?"}), &nginx));
    EXPECT_TRUE(shows(processes({"!apache"}), &nginx));
    EXPECT_FALSE(shows(processes({"nginx", "!/usr/sbin/*"}), &nginx));
}

TEST_F(EventFilterTest, AnUnknownProcessIsNoneOfThoseWanted)
{
    EXPECT_FALSE(shows(processes({"nginx"}), nullptr));
    EXPECT_TRUE(shows(processes({"!nginx"}), nullptr));
    EXPECT_FALSE(shows(users({"root"}), nullptr));
}

TEST_F(EventFilterTest, UsersAreNamesOrNumbers)
{
    EXPECT_TRUE(shows(users({"33"}), &nginx));
    EXPECT_FALSE(shows(users({"root"}), &nginx));
    EXPECT_TRUE(shows(users({"!root"}), &nginx));
    EXPECT_FALSE(shows(users({"!33"}), &nginx));
}

TEST_F(EventFilterTest, ContainersAreIdsNamesImagesOrTheHost)
{
    EXPECT_TRUE(shows(containers({"0123456789ab"}), &boxed));
    EXPECT_FALSE(shows(containers({"0123"}), &boxed));
    EXPECT_TRUE(shows(containers({"we?"}), &boxed));
    EXPECT_TRUE(shows(containers({"registry/*"}), &boxed));
    EXPECT_FALSE(shows(containers({"web"}), &nginx));
    EXPECT_TRUE(shows(containers({"host"}), &nginx));
    EXPECT_FALSE(shows(containers({"host"}), &boxed));
    EXPECT_FALSE(shows(containers({"!web"}), &boxed));
}

TEST_F(EventFilterTest, WhatIsWrongIsNamed)
{
    std::string key, error;
    EXPECT_FALSE(EventFilter().prepare({{"("}, {}, {}, {}, {}}, nullptr, key, error));
    EXPECT_EQ("include", key);
    EXPECT_FALSE(EventFilter().prepare({{}, {"["}, {}, {}, {}}, nullptr, key, error));
    EXPECT_EQ("exclude", key);
    EXPECT_FALSE(EventFilter().prepare(users({"!nobody-of-that-name"}), nullptr, key, error));
    EXPECT_EQ("users", key);
    EXPECT_EQ("there is no user 'nobody-of-that-name' on this machine", error);
}
