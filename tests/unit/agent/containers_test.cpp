/* Tests of containers.h: names and images of containers, asked for once in a while. */

#include "agent/containers.h"

#include <cstring>

#include "unit/agent/agent_testing.h"

using namespace agent;

namespace
{

int g_asked, g_given_back;
const char *g_name = "web", *g_repository = "registry:5000/team", *g_image = "nginx", *g_tag = "1.25";

struct orx_container_info *fake_info(const char *id)
{
    static struct orx_container_info info;
    g_asked++;
    if (strcmp(id, "none") == 0)
        return nullptr;
    info = {};
    info.container_name = g_name;
    info.repository = g_repository;
    info.image_name = g_image;
    info.image_tag = g_tag;
    info.image_id = "sha256:00";
    return &info;
}
void fake_free(struct orx_container_info *) { g_given_back++; }

ContainerLibrary fake_library()
{
    g_asked = g_given_back = 0;
    return {fake_info, fake_free, nullptr};
}

}  // namespace

TEST(CliContainers, AreAskedForOnceInAWhile)
{
    ContainerNames names(fake_library());
    EXPECT_EQ("web", names.find("a", 0).name);
    EXPECT_EQ("registry:5000/team/nginx:1.25", names.find("a", ContainerNames::kKeepMs - 1).image);
    EXPECT_EQ(1, g_asked);
    names.find("a", ContainerNames::kKeepMs);
    EXPECT_EQ(2, g_asked);
    EXPECT_EQ(2, g_given_back);
}

TEST(CliContainers, HaveWhatIsKnown)
{
    ContainerNames names(fake_library());
    EXPECT_EQ("", names.find("none", 0).name + names.find("none", 0).image);
    EXPECT_EQ(1, g_asked) << "that nothing is known is remembered, too";
    g_name = nullptr;
    g_repository = g_tag = "";
    EXPECT_EQ("", names.find("b", 0).name);
    EXPECT_EQ("nginx", names.find("b", 0).image);
    g_image = nullptr;
    EXPECT_EQ("sha256:00", names.find("c", 0).image);
}

TEST(CliContainers, TheHostIsNone)
{
    ContainerNames names(fake_library());
    EXPECT_EQ("", names.find("host", 0).name);
    EXPECT_EQ(0, g_asked);
}

TEST(CliContainers, AreBounded)
{
    ContainerNames names(fake_library());
    for (size_t i = 0; i < 3 * ContainerNames::kMost; i++)
        names.find(std::to_string(i), 0);
    EXPECT_EQ(names.find("0", 0).name, names.find("1", 0).name);
}

TEST(CliContainers, AMissingLibraryIsTold)
{
    ContainerLibrary library;
    std::string error;
    EXPECT_FALSE(load_container_library("/nowhere", library, error));
    EXPECT_NE(error.find("/nowhere/liborx_sensitive_dir.6.so"), std::string::npos) << error;
    EXPECT_FALSE(library);
}
