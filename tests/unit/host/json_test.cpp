/* Tests of the JSON items that agents make by cJSON_CreateString2 and cJSON_CreateNumber2. */

#include <cjson/cJSON.h>

#include <cmath>

#include "host_support.h"

extern "C" {
cJSON *cJSON_CreateString2(const char *text);
cJSON *cJSON_CreateNumber2(double number);
}

namespace
{

/* The text of an object whose member "k" is the item. */
std::string with_member(cJSON *item)
{
    cJSON *object = cJSON_CreateObject();
    cJSON_AddItemToObject(object, "k", item);
    char *text = cJSON_PrintUnformatted(object);
    std::string result = text;
    cJSON_free(text);
    cJSON_Delete(object);
    return result;
}

TEST(Json, MakesMembers)
{
    EXPECT_EQ(with_member(cJSON_CreateString2("v")), R"({"k":"v"})");
    EXPECT_EQ(with_member(cJSON_CreateString2("a\"\n")), R"({"k":"a\"\n"})");
    EXPECT_EQ(with_member(cJSON_CreateNumber2(7)), R"({"k":7})");
    EXPECT_EQ(with_member(cJSON_CreateNumber2(-1.5)), R"({"k":-1.5})");
    EXPECT_EQ(with_member(cJSON_CreateNumber2(NAN)), R"({"k":null})");
}

TEST(Json, TakesAMissingTextAsEmpty) { EXPECT_EQ(with_member(cJSON_CreateString2(nullptr)), R"({"k":""})"); }

}  // namespace
