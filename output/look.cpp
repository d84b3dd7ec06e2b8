#include "look.h"

#include "orx_fmon.h"

namespace output
{

// A name that went and came again may be another thing.
void look_at_path(agent::Event &event, uint32_t happened, const Look &wanted, agent::Identity &there)
{
    constexpr uint32_t kWent = FMON_DELETE | FMON_MOVED_FROM | FMON_DELETE_SELF | FMON_MOVE_SELF;
    const bool asks_dir = wanted.dir && event.dir == agent::Known::kUnknown;
    if ((!asks_dir && !wanted.file) || event.deleted || (happened & kWent))
        return;
    there = agent::identify(std::string(event.path));
    if (there.error != 0)
        return;
    if (asks_dir)
        event.dir = there.is_dir() ? agent::Known::kYes : agent::Known::kNo;
    if (wanted.file)
        event.file = &there;
}

}  // namespace output
