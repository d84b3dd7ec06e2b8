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
};

}  // namespace agent
