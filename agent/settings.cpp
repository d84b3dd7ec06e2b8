#include "settings.h"

namespace agent
{

const Setting kSettingTable[kSettings] = {
    {"max_events", 1, 0x7fffffff, nullptr},
    {"max_dentries", 1, 2097152, "2097152"},
    {"tbd_interval", 1000, 0x7fffffff, "1000"},
    {"rate_limit", 0, 0x7fffffff, "0"},
    {"rate_interval", 10, 1000, nullptr},
    {"rate_log", 0, 1, nullptr},
    {"hardened", 0, 1, "1"},
    {"fs_directories", 1, 0x7fffffff, nullptr},
    {"fs_memory", 1, 2048, nullptr},
    {"fs_memory_kib", 0, 2097152, nullptr},
    {"fs_queue", 0, 1, nullptr},
    {"fs_rest", 1, 100, nullptr},
    {"fs_ignore", 0, 1024, nullptr},
};

}  // namespace agent
