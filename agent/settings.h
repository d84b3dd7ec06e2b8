/*
 * settings.h: the keys of fmon.ini that a run may set for itself.
 */
#ifndef AGENT_SETTINGS_H
#define AGENT_SETTINGS_H

#include <cstddef>
#include <cstdint>

namespace agent
{

struct Setting {
    const char *name;
    uint32_t low, high;
    const char *preset; /* what the command sets without being told; null: what fmon.ini says */
};

inline constexpr size_t kSettings = 13;
extern const Setting kSettingTable[kSettings];

}  // namespace agent

#endif
