#include "plan.h"

namespace kprobe
{

void Plan::add(const FetchArg &arg, uint32_t to, uint32_t bytes)
{
    args.push_back(arg);
    pieces.push_back({arg.name, to, bytes});
}

void Plan::add_run(const std::vector<FetchArg> &run, uint32_t to, uint32_t bytes)
{
    const uint32_t step = bytes / static_cast<uint32_t>(run.size());
    for (const FetchArg &arg : run) {
        add(arg, to, step);
        to += step;
    }
}

std::string Plan::command(const std::string &group, const std::string &name) const
{
    std::string text = "p:" + group + "/" + name + " " + point;
    for (const FetchArg &arg : args)
        text += " " + arg.name + "=" + arg.place + (arg.type.empty() ? "" : ":" + arg.type);
    return text;
}

}  // namespace kprobe
