#include "system_watch.h"

#include "fallback.h"
#include "message.h"
#include "mounts.h"
#include "probe_cause.h"

namespace agent
{

namespace
{

constexpr uint32_t kMountLimit = 12; /* depth and directories of a mount's watch, as the monitor itself gives them */

}  // namespace

SystemWatch::MountPoints SystemWatch::device_mounts()
{
    MountPoints points;
    for (const Mount &mount : read_mounts())
        if (mount.whole_device)
            points.emplace(mount.point, mount.id);
    return points;
}

bool SystemWatch::place(uint32_t kinds, fmon_client_cb callback, std::string &error)
{
    kinds_ = kinds;
    known_ = device_mounts();
    const int id = module_.create_instance(name_.c_str(), callback);
    if (id < 0) {
        error = "the monitor made no instance (code " + std::to_string(id) + ")";
        return false;
    }
    instance_ = static_cast<uint32_t>(id);
    placed_ = true;
    const bool accepted = module_.global_watch(instance_, kinds, 1) == 0;
    struct fmon_status now = {};
    module_.read_status(now);
    by_file_systems_ = accepted && now.file_probes.state != FMON_SOURCE_ON && now.fs.source.state == FMON_SOURCE_ON;
    if (by_file_systems_) {
        left_out_ = now.fs.left_out;
        met_ = now.fs.last_fallback;
    }
    if (by_file_systems_ || (accepted && gather_probe_facts(module_.is_container(), false).missing_entry.empty()))
        return true;
    error = why_not(now);
    return false;
}

std::string SystemWatch::left_out_words() const
{
    const std::string others = left_out_ > 1 ? " and " + counted(left_out_ - 1, "other mount") : "";
    return "what happens on " + std::string(met_.path) + others +
           " is not seen: " + explain_fallback(met_, true).line();
}

void SystemWatch::leave()
{
    if (placed_)
        module_.del_instance(instance_);
    placed_ = false;
}

std::string SystemWatch::why_not(const struct fmon_status &now) const
{
    const ProbeFacts facts = gather_probe_facts(module_.is_container(), false);
    std::string probes = explain_no_system(now.file_probes, facts, kinds_);
    struct fmon_fallback met = now.fs.last_fallback;
    if (now.fs.source.state == FMON_SOURCE_REFUSED)  // nothing was tried
        met = {FMON_FALLBACK_INIT, now.fs.source.error, ""};
    if (module_.is_container())
        met = {FMON_FALLBACK_CONTAINER, 0, ""};
    const std::string marks = explain_fallback(met, facts.root).line();
    if (source_ == Source::kMarks)
        return probes;
    if (source_ == Source::kFilesystem)
        return "--system with --source filesystem needs a file system that can be marked: " + marks;
    // The monitor takes probes for usable that give no events.
    const bool can_mark = now.fs.source.state == FMON_SOURCE_ON && !facts.missing_entry.empty();
    return probes +
           (can_mark ? "; --source filesystem needs no probes" : "; and no file system could be marked: " + marks);
}

// The monitor renews one filter, that of creations. A file system that is mounted where another was before is a new one
// for the kernel, which has forgotten the mark, while the monitor still has the watch.
void SystemWatch::watch_closes(const std::string &point) const
{
    module_.del_watch(instance_, point.c_str());
    if (module_.add_watch(instance_, point.c_str(), FMON_CLOSE_WRITE, FMON_MOUNT | FMON_PID, kMountLimit,
                          kMountLimit) != 0)
        complain("the new mount " + point + " cannot be watched: its close_write is not shown");
}

void SystemWatch::follow_mounts()
{
    MountPoints now = device_mounts();
    if (now == known_ || by_file_systems_)  // the source of file systems follows mounts by itself
        return;
    const bool updated = module_.global_update(instance_) == 0;
    const bool full = file_probes(module_).reason == FMON_WHY_MOUNTS;
    if ((!updated || full) && !told_full_) {
        told_full_ = true;
        complain(
            "mounts have changed, and the probes' filter could not be renewed: what is created on new mounts is "
            "not shown" +
            std::string(full ? " (there are too many mounts)" : ""));
    }
    for (const auto &mount : now)
        if ((kinds_ & FMON_CLOSE_WRITE) && known_.count(mount) == 0)
            watch_closes(mount.first);
    known_ = std::move(now);
}

}  // namespace agent
