/* What a look at a path says where no source does. */
#include "output/look.h"

#include <unistd.h>

#include "orx_fmon.h"
#include "unit/agent/agent_testing.h"

using agent::Known;
using agent_testing::Directory;

namespace
{

Known found(const std::string &path, uint32_t kinds, Known said = Known::kUnknown)
{
    agent::Event event = agent_testing::event_of(path, kinds);
    event.dir = said;
    agent::Identity there;
    output::look_at_path(event, kinds, {true, false}, there);
    EXPECT_EQ(nullptr, event.file) << "nobody asked";
    return event.dir;
}

}  // namespace

TEST(Look, SaysWhatIsThere)
{
    const Directory directory;
    EXPECT_EQ(Known::kYes, found(directory.dir("d"), FMON_CREATE));
    EXPECT_EQ(Known::kNo, found(directory.file("f"), FMON_CREATE));
    std::filesystem::create_symlink(directory.path("d"), directory.path("link"));
    EXPECT_EQ(Known::kNo, found(directory.path("link"), FMON_MOVED_TO)) << "links are not followed";
    EXPECT_EQ(Known::kUnknown, found(directory.path("none"), FMON_CREATE));
}

TEST(Look, SaysNothingOfWhatWent)
{
    const Directory directory;
    for (const uint32_t kind : {FMON_DELETE, FMON_MOVED_FROM, FMON_DELETE_SELF, FMON_MOVE_SELF})
        EXPECT_EQ(Known::kUnknown, found(directory.dir("d"), FMON_CREATE | kind)) << "another may be there";
}

TEST(Look, SaysWhatTheFileIs)
{
    const Directory directory;
    agent::Identity there;
    const auto look = [&](const std::string &path, uint32_t kinds) {
        agent::Event event = agent_testing::event_of(path, kinds);
        output::look_at_path(event, kinds, {false, true}, there);
        EXPECT_EQ(Known::kUnknown, event.dir) << "nobody asked";
        return event.file;
    };
    const agent::Identity *const file = look(directory.file("f"), FMON_CREATE);
    ASSERT_NE(nullptr, file);
    EXPECT_TRUE(file->is_file());
    EXPECT_NE(0u, file->ino);
    EXPECT_EQ(getegid(), file->gid);
    EXPECT_EQ(nullptr, look(directory.path("f"), FMON_CREATE | FMON_DELETE)) << "another may be there";
    EXPECT_EQ(nullptr, look(directory.path("none"), FMON_CREATE));
}

TEST(Look, DoesNotDoubtTheSource)
{
    const Directory directory;
    EXPECT_EQ(Known::kNo, found(directory.dir("d"), FMON_CREATE, Known::kNo));
    EXPECT_EQ(Known::kYes, found(directory.path("none"), FMON_CREATE, Known::kYes));
}
