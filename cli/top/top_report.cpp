#include "top_report.h"

#include <unistd.h>

#include "agent/message.h"
#include "agent/time_format.h"

namespace cli
{

namespace
{

constexpr size_t kMostWarnings = 20;

}  // namespace

void TopReport::hide(const std::vector<std::string> &paths)
{
    for (const std::string &path : paths)
        selection_.hide(path);
}

void TopReport::event(const agent::Event &event)
{
    std::string path;
    agent::Event visible = event;
    if (!selection_.narrow(visible, path))
        return;
    const bool reported = !visible.container.empty() || !visible.process;
    const std::string_view id = reported ? visible.container : std::string_view(visible.process->container);
    board_.add({visible.path, visible.mask, visible.pid,
                visible.process ? std::string_view(visible.process->name) : std::string_view(), container_text(id)},
               agent::steady_ms());
    shown_++;
}

// Its name where the container library knows it.
std::string TopReport::container_text(std::string_view id)
{
    if (id.empty())
        return {};
    const std::string &name = container_names_.find(id, agent::steady_ms()).name;
    return name.empty() ? std::string(id) : name;
}

void TopReport::established(const agent::Established &all)
{
    std::string what;
    for (const std::vector<std::string> *paths : {&all.paths, &all.missing})
        for (const std::string &path : *paths)
            what += (what.empty() ? "" : " ") + path;
    board_.established(options_.system ? "the whole system" : what, all.source, all.directories);
    if (!is_shown_ && !show_())
        status_ = agent::kError;
    is_shown_ = true;
}

void TopReport::loss(const std::string &source, uint64_t count, const std::string &) { board_.lost(source, count); }

void TopReport::resynced(const std::vector<std::string> &, uint64_t directories)
{
    board_.say("watched as a whole again; " + agent::counted(directories, "directory") + " had been missed");
}

void TopReport::ended(const std::string &path, const char *reason)
{
    board_.say("not watched any more (" + std::string(reason) + "): " + path);
}

void TopReport::note(const std::string &text)
{
    if (is_shown_)
        board_.say(text);
}

void TopReport::warning(const std::string &text)
{
    if (!is_shown_)
        return agent::complain(text);
    board_.say(text);
    if (warnings_.size() == kMostWarnings)
        warnings_.erase(warnings_.begin());
    warnings_.push_back(text);
}

int TopReport::output_fd() const { return STDOUT_FILENO; }

void TopReport::say_warnings() const
{
    for (const std::string &text : warnings_)
        agent::complain(text);
}

}  // namespace cli
