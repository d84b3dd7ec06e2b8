#include "look.h"

#include "agent/paths.h"
#include "orx_fmon.h"

namespace output
{

// A name that went and came again may be another thing.
void look_for_directory(agent::Event &event, uint32_t happened)
{
    constexpr uint32_t kWent = FMON_DELETE | FMON_MOVED_FROM | FMON_DELETE_SELF | FMON_MOVE_SELF;
    if (event.dir != agent::Known::kUnknown || event.deleted || (happened & kWent))
        return;
    const agent::Identity there = agent::identify(std::string(event.path));
    if (there.error == 0)
        event.dir = there.is_dir() ? agent::Known::kYes : agent::Known::kNo;
}

}  // namespace output
