/*
 * waiting.h: paths that may come and go (--wait), and patterns with what they match.
 *
 * The command looks for them itself: it knows what it watches by device, inode and mount, so that a path whose
 * directories were replaced, or that something was mounted over, is given up and taken up anew; and it chooses which
 * links it follows.
 */
#ifndef AGENT_WAITING_H
#define AGENT_WAITING_H

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <string_view>

#include "placer.h"
#include "plan.h"

namespace agent
{

class Waiting
{
public:
    struct Reports {
        std::function<void(const std::string &watched)> watched; /* before the path's first event */
        std::function<void(const std::string &path)> appeared;
        std::function<void(const std::string &path, const char *reason)> ended;
        std::function<void(const std::string &line)> refused; /* called once a path */
    };

    /* `container`: the monitor runs inside one, where paths are taken as they are. */
    Waiting(Plan &plan, Placer &placer, bool container, Reports reports)
        : plan_(plan), placer_(placer), container_(container), reports_(std::move(reports))
    {
    }

    /* The first look: what is there is watched and not reported. */
    void start();

    /* An event of a kind that ends a watch, on any path. */
    void event(std::string_view path, uint32_t mask);

    /* Gives up what is no longer what it was, and takes up what is there. To be called each second. */
    void look();

    bool any() const; /* there is something to look for */

private:
    void add_matches();
    void drop_gone_matches();
    void look_at(size_t index);
    void take_up(size_t index, const std::string &path);
    void end(Root &root, const char *reason);
    void refuse(const std::string &path, const std::string &line);

    Plan &plan_;
    Placer &placer_;
    const bool container_;
    const Reports reports_;
    bool started_ = false;
    std::set<std::string> told_; /* paths whose refusal was reported */
};

}  // namespace agent

#endif
