/* libcjson's own header declares cJSON_AddItemToObject with a result, orx_base.h without one as plug-ins call it: only
 * one of the two can be included here. */
#include <cjson/cJSON.h>

extern "C" {
cJSON *cJSON_CreateString2(const char *text);
cJSON *cJSON_CreateNumber2(double number);
}

/* A missing text is an empty one: libcjson would return null for it, and the member would be left out. */
cJSON *cJSON_CreateString2(const char *text) { return cJSON_CreateString(text ? text : ""); }

cJSON *cJSON_CreateNumber2(double number) { return cJSON_CreateNumber(number); }
