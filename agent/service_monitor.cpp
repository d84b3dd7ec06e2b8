#include "service_monitor.h"

#include <unistd.h>

#include "losses.h"
#include "monitor.h"
#include "placement.h"

namespace agent
{

bool ServiceMonitor::start(const Request &request, bool ancestors, std::string &error)
{
    Placement placement([] {});
    if (!start_monitor(request, placement, module_, own_log_, error))
        return false;
    module_.shared = &shared_;
    std::string none; /* fmon doctor says why processes are not known */
    if (geteuid() == 0)
        processes_.start(ancestors, none);
    const auto losses = [this] {
        struct fmon_status now;
        return module_.read_status(now) ? loss_lines(now) : std::vector<std::string>();
    };
    dump_server_ = std::make_unique<DumpServer>(
        module_.dump, [this](bool on) { hold(on); }, losses);
    dump_server_->start();
    return true;
}

void ServiceMonitor::stop()
{
    if (dump_server_)
        dump_server_->stop();
    processes_.stop();
}

void ServiceMonitor::add(Intake &intake)
{
    const common::Lock hold(lock_);
    intakes_.push_back(&intake);
    intake.hold(held_);
}

void ServiceMonitor::remove(Intake &intake)
{
    const common::Lock hold(lock_);
    std::erase(intakes_, &intake);
}

void ServiceMonitor::hold(bool on)
{
    const common::Lock hold(lock_);
    held_ = on;
    for (Intake *intake : intakes_)
        intake->hold(on);
}

}  // namespace agent
