/*
 * What is known of a container, as JSON, and whether it can be used.
 */
#include <cstring>

#include "agent_library.h"
#include "container_tool_utils.h"
#include "log.h"
#include "orx_base.h"
#include "orx_sensitivedir.h"

namespace
{

constexpr char kFile[] = "container_tool_utils";

/* The line on a missing entry is the same for both. */
constinit struct agent_library sensitive_dir = {
    .path = "@/../lib/liborx_sensitive_dir.6.so",
    .log_file = "orx_sensitivedir",
    .module = "fmon module",
    .symbol = "sensitivedir symbol: _orx_get_container_info",
    .names = {"_orx_get_container_info", "_orx_free_container_info"},
    .entries = {},
    .handle = {},
};

/* The text members, in the order in which they are written. */
constexpr struct {
    const char *key;
    const char *orx_container_info::*text;
} kTexts[] = {
    {"mounts", &orx_container_info::mounts},
    {"user", &orx_container_info::user},
    {"container_namespace", &orx_container_info::container_namespace},
    {"image_id", &orx_container_info::image_id},
    {"image_name", &orx_container_info::image_name},
    {"image_tag", &orx_container_info::image_tag},
    {"repository", &orx_container_info::repository},
    {"container_name", &orx_container_info::container_name},
    {"capability", &orx_container_info::capability},
    {"ports_binding", &orx_container_info::ports_binding},
};

/* The library's record of a container while it lives. A library that could give a record but not take it back is not
 * asked for one. */
class Record
{
public:
    explicit Record(const char *id)
    {
        using get_fn = decltype(&_orx_get_container_info);
        const auto get = reinterpret_cast<get_fn>(agent_library_entry(&sensitive_dir, 0));
        info_ = get ? get(id) : nullptr;
        if (!info_)
            FMON_LOG(1, kFile, "orx_get_container_info is NULL!\n");
    }
    ~Record()
    {
        using free_fn = decltype(&_orx_free_container_info);
        if (info_)
            reinterpret_cast<free_fn>(agent_library_entry(&sensitive_dir, 1))(info_);
    }
    Record(const Record &) = delete;
    Record &operator=(const Record &) = delete;
    const struct orx_container_info *get() const { return info_; }

private:
    struct orx_container_info *info_;
};

bool is_host(const char *id) { return strcmp(id, "host") == 0; }

/* An agent may lack the JSON functions; half of them are of no use. */
bool can_write() { return &cJSON_AddItemToObject && &cJSON_CreateString2 && &cJSON_CreateNumber2; }

void write_members(cJSON *json, const struct orx_container_info *info, bool with_init_pid)
{
    for (const auto &row : kTexts) {
        const char *text = info->*row.text;
        cJSON_AddItemToObject(json, row.key, cJSON_CreateString2(text ? text : ""));
    }
    cJSON_AddItemToObject(json, "privileged", cJSON_CreateNumber2(info->privileged));
    if (with_init_pid)
        cJSON_AddItemToObject(json, "container_init_pid", cJSON_CreateNumber2(info->init_pid));
}

}  // namespace

int container_info_to_json(int enable, void *json, const char *id, int with_init_pid)
{
    if (!enable)
        return 0;
    if (!id || is_host(id)) {
        FMON_LOG(4, kFile, "container id is host/NULL!\n");
        return 0;
    }
    FMON_LOG(4, kFile, "get container info by id:%s\n", id);
    constexpr struct orx_container_info kUnknown = {};
    const Record record(id);
    const bool writable = can_write();
    if (json && writable)
        write_members(static_cast<cJSON *>(json), record.get() ? record.get() : &kUnknown, with_init_pid != 0);
    return record.get() && writable ? 0 : -1;
}

int container_usable(int enable, const char *id)
{
    if (!enable)
        return 1;
    if (!id) {
        FMON_LOG(4, kFile, "container id is NULL!\n");
        return 0;
    }
    if (is_host(id))
        return 1;
    FMON_LOG(3, kFile, "get container info by id:%s\n", id);
    const Record record(id);
    return record.get() && record.get()->status == 0;
}
