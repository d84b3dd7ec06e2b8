/* Tests of deleted_path.h: the kernel's suffix of paths that are gone. */

#include "agent/deleted_path.h"

#include "orx_fmon.h"
#include "unit/agent/agent_testing.h"

using namespace agent;
using agent_testing::event_of;

namespace
{

/* "PATH", with " +deleted" where the event says so. */
std::string told(const std::string &path, uint32_t mask, uint32_t pid = 7)
{
    Event event = event_of(path, mask, pid);
    std::string storage;
    take_deleted(event, storage);
    return std::string(event.path) + (event.deleted ? " +deleted" : "");
}

}  // namespace

TEST(CliDeletedPath, TheSuffixIsTheKernels)
{
    const agent_testing::Directory directory;
    const std::string path = directory.path("f");
    for (const uint32_t mask : {FMON_OPEN, FMON_ACCESS, FMON_MODIFY, FMON_CLOSE_WRITE, FMON_CLOSE_NOWRITE})
        EXPECT_EQ(told(path + " (deleted)", static_cast<uint32_t>(mask)), path + " +deleted");
    EXPECT_EQ(told(path + " (deleted) (deleted)", FMON_MODIFY), path + " (deleted) +deleted");
    directory.file("f");
    EXPECT_EQ(told(path + " (deleted)", FMON_MODIFY), path + " +deleted") << "another file of that name";
    EXPECT_EQ(told(path, FMON_MODIFY), path);
    EXPECT_EQ(told(path + "(deleted)", FMON_MODIFY), path + "(deleted)");
}

TEST(CliDeletedPath, ANameMayEndSo)
{
    const agent_testing::Directory directory;
    const std::string path = directory.file("f (deleted)");
    EXPECT_EQ(told(path, FMON_MODIFY | FMON_CLOSE_WRITE), path);
    std::filesystem::remove(path);
    EXPECT_EQ(told(path, FMON_MODIFY, 0), path) << "from its directory";
    for (const uint32_t mask : {FMON_CREATE, FMON_DELETE, FMON_MOVED_FROM, FMON_MOVED_TO, FMON_ATTRIB})
        EXPECT_EQ(told(path, static_cast<uint32_t>(mask)), path) << "named by probes";
    EXPECT_EQ(told(path, FMON_CREATE | FMON_MODIFY), path);
}
