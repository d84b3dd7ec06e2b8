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

FilterOptions with(Texts FilterOptions::*member, const Texts &texts)
{
    FilterOptions options;
    options.*member = texts;
    return options;
}
FilterOptions processes(const Texts &texts) { return with(&FilterOptions::processes, texts); }
FilterOptions process_ids(const Texts &texts) { return with(&FilterOptions::process_ids, texts); }
FilterOptions users(const Texts &texts) { return with(&FilterOptions::users, texts); }
FilterOptions containers(const Texts &texts) { return with(&FilterOptions::containers, texts); }

}  // namespace

TEST_F(EventFilterTest, WithoutWishesAllIsShown)
{
    EXPECT_TRUE(shows({}, nullptr));
    EXPECT_TRUE(shows({}, &boxed));
}

TEST_F(EventFilterTest, PathsAreRegularExpressions)
{
    EXPECT_TRUE(shows(with(&FilterOptions::include, {"/a$"}), nullptr));
    EXPECT_FALSE(shows(with(&FilterOptions::include, {"/b$"}), nullptr));
    EXPECT_FALSE(shows(with(&FilterOptions::exclude, {"^/srv"}), nullptr));
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

TEST_F(EventFilterTest, PathsInAnyCase)
{
    EXPECT_TRUE(shows(with(&FilterOptions::include_any_case, {"/A$"}), nullptr));
    EXPECT_FALSE(shows(with(&FilterOptions::exclude_any_case, {"^/SRV"}), nullptr));
}

// The event is of process 1.
TEST_F(EventFilterTest, ProcessesByTheirNumbers)
{
    EXPECT_TRUE(shows(process_ids({"1"}), nullptr));
    EXPECT_TRUE(shows(process_ids({"2", "1"}), &nginx));
    EXPECT_FALSE(shows(process_ids({"11"}), &nginx));
    EXPECT_FALSE(shows(process_ids({"!1"}), &nginx));
    EXPECT_TRUE(shows(process_ids({"!2"}), &nginx));
}

TEST_F(EventFilterTest, ARenameByEitherPath)
{
    EventFilter filter;
    std::string key, error;
    ASSERT_TRUE(filter.prepare(with(&FilterOptions::include, {"^/srv/"}), nullptr, key, error)) << error;
    agent::Event event = event_of("/tmp/a", FMON_MOVED_TO);
    EXPECT_FALSE(filter.shows(event));
    event.from = "/srv/a";
    EXPECT_TRUE(filter.shows(event));
}

TEST_F(EventFilterTest, WhatNeedsAKnownProcess)
{
    const auto wants = [](const FilterOptions &options) {
        EventFilter filter;
        std::string key, error;
        EXPECT_TRUE(filter.prepare(options, nullptr, key, error)) << error;
        return filter.wants_known_process();
    };
    EXPECT_TRUE(wants(processes({"a"})) && wants(process_ids({"1"})) && wants(users({"0"})));
    EXPECT_FALSE(wants({}) || wants(processes({"!a"})) || wants(process_ids({"!1"})) || wants(users({"!0"})));
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
    EXPECT_FALSE(EventFilter().prepare(with(&FilterOptions::include, {"("}), nullptr, key, error));
    EXPECT_EQ("include", key);
    EXPECT_FALSE(EventFilter().prepare(with(&FilterOptions::exclude, {"["}), nullptr, key, error));
    EXPECT_EQ("exclude", key);
    EXPECT_FALSE(EventFilter().prepare(with(&FilterOptions::include_any_case, {"("}), nullptr, key, error));
    EXPECT_EQ("iinclude", key);
    EXPECT_FALSE(EventFilter().prepare(with(&FilterOptions::exclude_any_case, {"("}), nullptr, key, error));
    EXPECT_EQ("iexclude", key);
    for (const char *const wrong : {"", "!", "12a", "-1", "4294967296"}) {
        EXPECT_FALSE(EventFilter().prepare(process_ids({wrong}), nullptr, key, error)) << wrong;
        EXPECT_EQ("process_id", key);
    }
    EXPECT_FALSE(EventFilter().prepare(users({"4294967296"}), nullptr, key, error));
    EXPECT_FALSE(EventFilter().prepare(users({"!nobody-of-that-name"}), nullptr, key, error));
    EXPECT_EQ("user", key);
    EXPECT_EQ("there is no user 'nobody-of-that-name' on this machine", error);
}
