#include "running_monitor.h"

#include <vector>

#include "losses.h"
#include "monitor.h"

namespace agent
{

RunningMonitor::RunningMonitor(Intake &intake, const EventQueue &queue)
    : intake_(intake), placement_([&queue] { queue.wake(); })
{
}

bool RunningMonitor::start(const Request &request, OwnLog &own, std::string &error)
{
    if (!start_monitor(request, placement_, module_, own, error))
        return false;
    const auto losses = [this] {
        struct fmon_status now;
        return module_.read_status(now) ? loss_lines(now) : std::vector<std::string>();
    };
    dump_server_ = std::make_unique<DumpServer>(
        module_.dump, [this](bool on) { intake_.hold(on); }, losses);
    dump_server_->start();
    return true;
}

uint64_t RunningMonitor::release()
{
    wake_monitor(module_);
    return dump_server_->waiting_records();
}

}  // namespace agent
