#include "found.h"

#include <utility>
#include <vector>

#include "orx_fmon.h"
#include "paths.h"

namespace agent
{

namespace
{

Event found_at(const std::string &path, bool is_directory, const Event &creation)
{
    Event event = creation;
    event.dir = is_directory ? Known::kYes : Known::kNo;
    event.move = 0;
    event.mask = FMON_CREATE;
    event.pid = 0;
    event.process = nullptr;
    event.path = path;
    event.found = true;
    return event;
}

}  // namespace

void RecentPaths::add(std::string_view path)
{
    if (now_.size() >= kMost)
        age();
    now_.emplace(path);
}

bool RecentPaths::has(std::string_view path) const { return now_.contains(path) || before_.contains(path); }

bool RecentPaths::take_out(Paths &paths, std::string_view path)
{
    const auto found = paths.find(path);
    if (found == paths.end())
        return false;
    paths.erase(found);
    return true;
}

bool RecentPaths::take(std::string_view path)
{
    const bool taken = take_out(now_, path);
    return take_out(before_, path) || taken;
}

void RecentPaths::forget_below(std::string_view directory)
{
    const std::string first = std::string(directory) + '/', behind = std::string(directory) + char('/' + 1);
    for (Paths *paths : {&now_, &before_})
        if (!paths->empty())
            paths->erase(paths->lower_bound(first), paths->lower_bound(behind));
}

void RecentPaths::age() { before_ = std::exchange(now_, {}); }

void RecentPaths::clear()
{
    now_ = {};
    before_ = {};
}

void Found::marked(std::string_view path)
{
    const common::Lock hold(lock_);
    marked_.add(path);
}

bool Found::take_marked(std::string_view path)
{
    const common::Lock hold(lock_);
    return marked_.take(path);
}

void Found::begin(const Batch &batch)
{
    batch_ = &batch;
    indexed_ = false;
}

// A name that went, too, may have come again: what was reported of it does not say which creation that was.
uint32_t Found::news(const Event &event)
{
    constexpr uint32_t kWent = FMON_DELETE | FMON_MOVED_FROM;
    if (event.mask & FMON_MOVED_FROM)
        told_.forget_below(event.path); /* what is made by these paths from now on is another thing */
    if (!(event.mask & (FMON_CREATE | FMON_MOVED_TO | kWent)) || !told_.take(event.path))
        return event.mask;
    return event.mask & kWent ? event.mask : event.mask & ~uint32_t{FMON_CREATE};
}

void Found::shown(const Event &event, const Tell &tell)
{
    if (event.mask & FMON_CREATE && take_marked(event.path))
        look_into(std::string(event.path), event, tell);
}

// A directory that is not marked yet has a record of its own on its way, and is looked into then.
void Found::look_into(const std::string &top, const Event &creation, const Tell &tell)
{
    std::vector<std::string> open = {top};
    while (!open.empty()) {
        const std::string directory = std::move(open.back());
        open.pop_back();
        complete_();
        for_each_entry(directory, [&](const char *name, bool is_directory) {
            const std::string path = directory + "/" + name;
            if (has_record(path) || told_.has(path))
                return;
            told_.add(path);
            tell(found_at(path, is_directory, creation));
            if (is_directory && take_marked(path))
                open.push_back(path);
        });
    }
}

bool Found::has_record(std::string_view path)
{
    if (!std::exchange(indexed_, true)) {
        in_batch_.clear();
        for (size_t i = 0; batch_ && i < batch_->size(); i++) {
            const Event event = batch_->event(i);
            if (event.mask & (FMON_CREATE | FMON_MOVED_TO))
                in_batch_.insert(event.path);
        }
    }
    return in_batch_.contains(path);
}

void Found::look()
{
    if (++looks_ % kLooks != 0)
        return;
    told_.age();
    const common::Lock hold(lock_);
    marked_.age();
}

void Found::clear()
{
    told_.clear();
    const common::Lock hold(lock_);
    marked_.clear();
}

}  // namespace agent
