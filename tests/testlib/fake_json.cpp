/* The JSON objects of the agent's library. */
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "orx_base.h"
#include "testlib/fake_host.h"

struct cJSON {
    std::string text; /* as JSON; an object's is built from its members */
    std::vector<std::pair<std::string, cJSON *>> members;
    bool object = false;
};

namespace testlib
{

cJSON *json_object()
{
    cJSON *item = new cJSON;
    item->object = true;
    return item;
}

std::string json_text(const cJSON *item)
{
    if (!item->object)
        return item->text;
    std::string out;
    for (const auto &[key, value] : item->members)
        out += (out.empty() ? "\"" : ",\"") + key + "\":" + json_text(value);
    return "{" + out + "}";
}

void json_free(cJSON *item)
{
    for (auto &member : item->members)
        json_free(member.second);
    delete item;
}

}  // namespace testlib

/* ---- what the module imports ---- */

extern "C" {

void cJSON_AddItemToObject(cJSON *object, const char *key, cJSON *item)
{
    if (item)
        object->members.push_back({key, item});
}

cJSON *cJSON_CreateString2(const char *text)
{
    cJSON *item = new cJSON;
    item->text = "\"" + std::string(text) + "\"";
    return item;
}

cJSON *cJSON_CreateNumber2(double number)
{
    cJSON *item = new cJSON;
    char text[32];
    snprintf(text, sizeof text, "%.15g", number);
    item->text = text;
    return item;
}

} /* extern "C" */
