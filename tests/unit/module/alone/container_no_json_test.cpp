/*
 * The module under an agent that lacks one of the JSON functions: cJSON_CreateNumber2 is null in this program.
 */
#include <gtest/gtest.h>

#include "container_tool_utils.h"
#include "orx_sensitivedir.h"
#include "shell_fixture.h"

namespace
{

struct orx_container_info record;
bool has_record;
int given, returned, handle_mark;

struct orx_container_info *play_get(const char *)
{
    given += has_record;
    return has_record ? &record : nullptr;
}
void play_free(struct orx_container_info *) { returned++; }

void *play_dlopen(const char *, int) { return &handle_mark; }
void *play_dlsym(void *, const char *symbol)
{
    return symbol == std::string("_orx_get_container_info") ? reinterpret_cast<void *>(play_get)
                                                            : reinterpret_cast<void *>(play_free);
}

TEST(ContainerNoJson, TheObjectStaysAsItWas)
{
    testlib::reset_host();
    testlib::replace_dlopen(play_dlopen);
    testlib::replace_dlsym(play_dlsym);
    cJSON *json = testlib::json_object();
    has_record = true;
    EXPECT_EQ(-1, container_info_to_json(1, json, "ab", 1));
    EXPECT_EQ((LevelLines{{4, "get container info by id:ab\n"}}), level_lines());
    EXPECT_EQ(1, given);
    EXPECT_EQ(1, returned);
    has_record = false;
    EXPECT_EQ(-1, container_info_to_json(1, json, "ab", 1));
    EXPECT_EQ(0, container_info_to_json(1, json, "host", 1));
    EXPECT_EQ(0, container_info_to_json(0, json, "ab", 1));
    EXPECT_EQ("{}", testlib::json_text(json));
    has_record = true;
    EXPECT_EQ(1, container_usable(1, "ab"));
    testlib::json_free(json);
    testlib::replace_dlopen(nullptr);
    testlib::replace_dlsym(nullptr);
}

}  // namespace
