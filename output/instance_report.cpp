#include "instance_report.h"

#include "agent/message.h"

namespace output
{

void InstanceReport::hide(const std::vector<std::string> &paths)
{
    for (const std::string &path : paths)
        selection_.hide(path);
}

void InstanceReport::set_plan(const agent::Plan &plan)
{
    selection_.set_plan(plan);
    for (const agent::Root &root : plan.roots)
        if (as_given_)
            given_.add(root);
}

std::string InstanceReport::shown_path(const std::string &path) const
{
    std::string storage;
    return std::string(given_.of(path, storage));
}

void InstanceReport::event(const agent::Event &event)
{
    std::string path;
    agent::Event visible = event;
    if (!selection_.narrow(visible, path))
        return;
    shown_++;
    fanout_.event(visible, {event.mask, as_given_ ? &given_ : nullptr});
}

void InstanceReport::established(const agent::Established &all)
{
    {
        const common::Lock hold(lock_);
        established_ = all;
    }
    fanout_.record("established",
                   [&](Formatter &form, uint64_t time, std::string &out) { form.established(time, all, out); });
    flush();
}

agent::Established InstanceReport::established_now() const
{
    const common::Lock hold(lock_);
    return established_;
}

void InstanceReport::loss(const std::string &source, uint64_t count, const std::string &path)
{
    fanout_.record(
        "loss", [&](Formatter &form, uint64_t time, std::string &out) { form.loss(time, source, count, path, out); });
}

void InstanceReport::resynced(const std::vector<std::string> &paths, uint64_t directories)
{
    fanout_.record("resynced", [&](Formatter &form, uint64_t time, std::string &out) {
        form.resynced(time, paths, directories, out);
    });
}

void InstanceReport::appeared(const std::string &path)
{
    fanout_.record("appeared", [&](Formatter &form, uint64_t time, std::string &out) {
        form.appeared(time, shown_path(path), out);
    });
}

void InstanceReport::ended(const std::string &path, const char *reason)
{
    fanout_.record("ended", [&](Formatter &form, uint64_t time, std::string &out) {
        form.ended(time, shown_path(path), reason, out);
    });
}

void InstanceReport::note(const std::string &text) { agent::complain(text); }

void InstanceReport::warning(const std::string &text) { agent::complain(text); }

}  // namespace output
