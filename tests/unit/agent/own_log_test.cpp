/* Tests of own_log.h: where the command's own log goes. */

#include "agent/own_log.h"

#include "orx_autolog.h"
#include "orx_base.h"
#include "orx_host.h"
#include "unit/agent/agent_testing.h"

using namespace agent;
using Paths = std::vector<std::string>;

namespace
{

/* A user's places, and none of the installation's. */
class CliOwnLog : public testing::Test
{
protected:
    CliOwnLog()
    {
        for (const auto &[name, value] :
             {std::pair("HOME", folder.dir("home")), {"XDG_RUNTIME_DIR", folder.dir("run")}})
            setenv(name, value.c_str(), 1);
        unsetenv("XDG_STATE_HOME");
        unsetenv("FMON_LOG");
        orx_host_path_override("@/../var/log/agent/fmon", "/dev/null/none");
    }
    ~CliOwnLog() override
    {
        autolog_deinit();
        orx_host_path_override("@/../var/log/agent/fmon", nullptr);
    }
    Paths folders() const { return log_folders(options, "/installed"); }

    agent_testing::Folder folder;
    Request options;
    const std::string home = folder.path("home/.local/state/fmon"), run = folder.path("run/fmon");
};

}  // namespace

TEST_F(CliOwnLog, goes_to_the_installation_or_to_the_users_own_places)
{
    options.paths = {folder.path("home")};
    EXPECT_EQ(folders(), (Paths{"/installed", home, run}));
    setenv("XDG_STATE_HOME", "/state", 1);
    EXPECT_EQ(folders(), (Paths{"/installed", "/state/fmon", run}));
    setenv("XDG_STATE_HOME", "relative", 1);
    unsetenv("XDG_RUNTIME_DIR");
    EXPECT_EQ(folders(), (Paths{"/installed", home}));
    unsetenv("HOME");
    EXPECT_EQ(folders(), Paths{"/installed"});
}

/* A line for each event, where each line is an event, has no end. */
TEST_F(CliOwnLog, with_lines_for_events_goes_where_nobody_watches)
{
    for (const int level : {3, 4}) {
        options.log_level = level;
        options.paths = {folder.path("home")};
        EXPECT_EQ(folders(), (Paths{"/installed", run}));
        options.paths = {folder.path("other"), folder.path("run/f*"), "/installed"};
        EXPECT_EQ(folders(), Paths{home});
        options.paths = {folder.path("home/.local/state/fmo")};
        EXPECT_EQ(folders(), (Paths{"/installed", home, run}));
        options.paths = {home};
        EXPECT_EQ(folders(), (Paths{"/installed", run}));
        options.paths = {"/"};
        EXPECT_EQ(folders(), Paths{});
    }
}

TEST_F(CliOwnLog, a_watched_link_to_it_is_found)
{
    options.log_level = 4;
    ASSERT_EQ(symlink("home", folder.path("link").c_str()), 0);
    options.paths = {folder.path("link")};
    EXPECT_EQ(folders(), (Paths{"/installed", run}));
}

TEST_F(CliOwnLog, tells_its_files)
{
    const OwnLog own = open_own_log(options);
    EXPECT_EQ(own.note, "");
    EXPECT_EQ(own.files.front(), home);
    EXPECT_EQ(std::count(own.files.begin(), own.files.end(), home + "/fmon.log"), 1);
    EXPECT_EQ(own.files.back(), home + "/fmon.log.4");
    EXPECT_TRUE(std::filesystem::exists(home + "/fmon.log"));
    char asked[512] = "";
    EXPECT_EQ(orx_dirutils_path_transform("@/../var/log/agent/fmon", asked, sizeof asked), 0);
    EXPECT_EQ(asked, home) << "the monitor finds the same";
}

TEST_F(CliOwnLog, says_that_there_is_none)
{
    options.log_level = 4;
    options.paths = {"/"};
    const OwnLog own = open_own_log(options);
    EXPECT_TRUE(own.files.empty());
    EXPECT_NE(own.note.find("no log is written"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(home));
}
