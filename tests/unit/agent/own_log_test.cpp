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
             {std::pair("HOME", directory.dir("home")), {"XDG_RUNTIME_DIR", directory.dir("run")}})
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
    Paths directories() const { return log_directories(options, "/installed"); }

    agent_testing::Directory directory;
    Request options;
    const std::string home = directory.path("home/.local/state/fmon"), run = directory.path("run/fmon");
};

}  // namespace

TEST_F(CliOwnLog, GoesToTheInstallationOrToTheUsersOwnPlaces)
{
    options.paths = {directory.path("home")};
    EXPECT_EQ(directories(), (Paths{"/installed", home, run}));
    setenv("XDG_STATE_HOME", "/state", 1);
    EXPECT_EQ(directories(), (Paths{"/installed", "/state/fmon", run}));
    setenv("XDG_STATE_HOME", "relative", 1);
    unsetenv("XDG_RUNTIME_DIR");
    EXPECT_EQ(directories(), (Paths{"/installed", home}));
    unsetenv("HOME");
    EXPECT_EQ(Paths{"/installed"}, directories());
}

/* A line for each event, where each line is an event, has no end. */
TEST_F(CliOwnLog, WithLinesForEventsGoesWhereNobodyWatches)
{
    for (const int level : {3, 4}) {
        options.log_level = level;
        options.paths = {directory.path("home")};
        EXPECT_EQ(directories(), (Paths{"/installed", run}));
        options.paths = {directory.path("other"), directory.path("run/f*"), "/installed"};
        EXPECT_EQ(directories(), Paths{home});
        options.paths = {directory.path("home/.local/state/fmo")};
        EXPECT_EQ(directories(), (Paths{"/installed", home, run}));
        options.paths = {home};
        EXPECT_EQ(directories(), (Paths{"/installed", run}));
        options.paths = {"/"};
        EXPECT_EQ(Paths{}, directories());
    }
}

TEST_F(CliOwnLog, AWatchedLinkToItIsFound)
{
    options.log_level = 4;
    ASSERT_EQ(0, symlink("home", directory.path("link").c_str()));
    options.paths = {directory.path("link")};
    EXPECT_EQ(directories(), (Paths{"/installed", run}));
}

TEST_F(CliOwnLog, TellsItsFiles)
{
    const OwnLog own = open_own_log(options);
    EXPECT_EQ("", own.note);
    EXPECT_EQ(own.files.front(), home);
    EXPECT_EQ(1, std::count(own.files.begin(), own.files.end(), home + "/fmon.log"));
    EXPECT_EQ(own.files.back(), home + "/fmon.log.4");
    EXPECT_TRUE(std::filesystem::exists(home + "/fmon.log"));
    char asked[512] = "";
    EXPECT_EQ(0, orx_dirutils_path_transform("@/../var/log/agent/fmon", asked, sizeof asked));
    EXPECT_EQ(asked, home) << "the monitor finds the same";
}

TEST_F(CliOwnLog, SaysThatThereIsNone)
{
    options.log_level = 4;
    options.paths = {"/"};
    const OwnLog own = open_own_log(options);
    EXPECT_TRUE(own.files.empty());
    EXPECT_NE(own.note.find("no log is written"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(home));
}
