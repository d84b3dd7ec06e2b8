/*
 * The container tools as an agent's module calls them: found in libfmon.so by their names, with the real base library's
 * JSON objects and the container library's double.
 */
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "container_tool_utils.h"
#include "harness.h"

using namespace systest;
using testlib::TempTree;

namespace
{

class ContainerTools : public ::testing::Test
{
protected:
    /* One installation for all: what the module finds, it keeps. */
    static void SetUpTestSuite()
    {
        home = new TempTree;
        home->dir("bin");
        home->link("lib", FMON_TEST_CONTAINER_DOUBLES "/whole/lib");
        setenv("FMON_HOME", home->root().c_str(), 1);
        setenv("FMON_CONTAINER_DOUBLE", home->root().c_str(), 1);
        base = dlopen(FMON_TEST_LIB "/liborx_base.so", RTLD_NOW | RTLD_GLOBAL);
        module = dlopen(FMON_TEST_LIB "/libfmon.so", RTLD_NOW | RTLD_LOCAL);
        ASSERT_TRUE(base && module) << dlerror();
    }
    static void TearDownTestSuite() { delete home; }

    template <typename Fn>
    static Fn *find(void *library, const char *name)
    {
        void *found = dlsym(library, name);
        EXPECT_NE(nullptr, found) << name << " is not exported";
        return reinterpret_cast<Fn *>(found);
    }
#define TOOL(name) find<decltype(name)>(module, #name)

    static TempTree *home;
    static void *base, *module;
};
TempTree *ContainerTools::home;
void *ContainerTools::base, *ContainerTools::module;

TEST_F(ContainerTools, InformationBecomesJson)
{
    std::ofstream(home->path("answers")) << "info ab mounts /a \"b\":/c\ninfo ab init_pid 17\ninfo ab privileged 1\n";
    auto *write = TOOL(container_info_to_json);
    auto *new_object = find<void *()>(RTLD_DEFAULT, "cJSON_CreateObject");
    auto *print = find<char *(void *)>(RTLD_DEFAULT, "cJSON_PrintUnformatted");
    auto *remove = find<void(void *)>(RTLD_DEFAULT, "cJSON_Delete");
    ASSERT_TRUE(write && new_object && print && remove);
    void *object = new_object();
    EXPECT_EQ(0, write(1, object, "ab", 1));
    char *text = print(object);
    const Json json = Json::parse_if(text).value_or(Json());
    EXPECT_EQ(12, std::distance(json.begin(), json.end())) << text;
    EXPECT_EQ("/a \"b\":/c", json.value("mounts", "")) << text;
    EXPECT_EQ("", json.value("ports_binding", "?")) << text;
    EXPECT_EQ(1, json.value("privileged", 0)) << text;
    EXPECT_EQ(17, json.value("container_init_pid", 0)) << text;
    free(text);
    remove(object);
}

TEST_F(ContainerTools, AContainerIsUsableByItsStatus)
{
    std::ofstream(home->path("answers")) << "info up status 0\ninfo down status 1\n";
    auto *usable = TOOL(container_usable);
    ASSERT_TRUE(usable);
    EXPECT_EQ(1, usable(1, "up"));
    EXPECT_EQ(0, usable(1, "down"));
    EXPECT_EQ(0, usable(1, "unknown"));
    EXPECT_EQ(1, usable(1, "host"));
}

TEST_F(ContainerTools, AProcessHasAnId)
{
    auto *read_id = TOOL(read_container_id);
    ASSERT_TRUE(read_id);
    char id[65] = "";
    EXPECT_EQ(0, read_id(getpid(), id, sizeof id));
    EXPECT_TRUE(std::string(id) == "host" || strlen(id) == 64) << id;
    EXPECT_EQ(-1, read_id(-1, id, sizeof id));
}

}  // namespace
