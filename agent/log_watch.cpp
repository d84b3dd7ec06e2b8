#include "log_watch.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "orx_base.h"
#include "orx_host.h"

namespace agent
{

namespace
{

bool starts_with(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

bool ends_with_error(std::string_view text, int error_number)
{
    const std::string_view reason = strerror(error_number);
    return text.size() >= reason.size() && text.substr(text.size() - reason.size()) == reason;
}

// A directory that vanished, or turned into something else, between its being found and its being marked.
bool is_vanished(std::string_view text) { return ends_with_error(text, ENOENT) || ends_with_error(text, ENOTDIR); }

bool is_denied(std::string_view text) { return ends_with_error(text, EACCES) || ends_with_error(text, EPERM); }

bool is_out_of_descriptors(std::string_view text)
{
    return ends_with_error(text, EMFILE) || ends_with_error(text, ENFILE);
}

LogLine read_open_failure(std::string_view text)
{
    constexpr std::string_view kStart = "open dir ", kEnd = " failed: ";
    const size_t end = text.rfind(kEnd);
    if (is_vanished(text) || end == std::string_view::npos || end < kStart.size())
        return {};
    if (is_out_of_descriptors(text))
        return {Finding::kDescriptors, {}};
    return {Finding::kUnreadable, text.substr(kStart.size(), end - kStart.size())};
}

// "open PATH to mark it failed: REASON". One that may not be opened is read, or refused, once more.
LogLine read_place_failure(std::string_view text)
{
    constexpr std::string_view kMiddle = " to mark it failed: ";
    if (is_vanished(text) || ends_with_error(text, ELOOP) || text.rfind(kMiddle) == std::string_view::npos)
        return {}; /* ELOOP: a link is there instead */
    if (is_out_of_descriptors(text))
        return {Finding::kUnopened, {}};
    return {is_denied(text) ? Finding::kDenied : Finding::kOther, {}};
}

LogLine read_mark_failure(std::string_view text, Finding limit)
{
    if (ends_with_error(text, ENOSPC))
        return {limit, {}};
    if (is_vanished(text))
        return {};
    return {is_denied(text) ? Finding::kDenied : Finding::kOther, {}};
}

void sink(int level, const char *, int, const char *text, void *arg)
{
    static_cast<LogWatch *>(arg)->line(level, text);
}

// The count that a finding belongs to; null: it is not counted.
uint64_t *counter(Finding finding, Findings &findings)
{
    switch (finding) {
        case Finding::kWatchLimit:
            return &findings.watch_limit;
        case Finding::kMarkLimit:
            return &findings.mark_limit;
        case Finding::kCacheFull:
            return &findings.cache_full;
        case Finding::kUnreadable:
            return &findings.unreadable;
        case Finding::kDenied:
            return &findings.denied;
        case Finding::kUnopened:
            return &findings.unopened;
        case Finding::kDescriptors:
            return &findings.descriptors;
        case Finding::kTooLong:
            return &findings.too_long;
        case Finding::kOther:
            return &findings.other;
        default:
            return nullptr;
    }
}

// Lines that only pass a result on: the reason stands in an earlier one.
bool is_consequence(std::string_view text)
{
    return starts_with(text, "add watch failed: ") || starts_with(text, "fmon init failed") ||
           starts_with(text, "method init failed") || starts_with(text, "check watch failed");
}

}  // namespace

LogLine read_log_line(std::string_view text)
{
    if (starts_with(text, "inotify add failed: "))
        return read_mark_failure(text, Finding::kWatchLimit);
    if (starts_with(text, "fanotify add failed: "))
        return read_mark_failure(text, Finding::kMarkLimit);
    if (starts_with(text, "open dir "))
        return read_open_failure(text);
    if (starts_with(text, "open /"))
        return read_place_failure(text);
    if (starts_with(text, "iterate add dentry failed") || starts_with(text, "add sub dentry failed: ") ||
        starts_with(text, "add sub failed"))
        return {Finding::kCacheFull, {}};
    if (starts_with(text, "path is NULL"))
        return {Finding::kTooLong, {}};
    if (starts_with(text, "malloc iterate failed: ") || starts_with(text, "dir malloc failed") ||
        starts_with(text, "add seq failed, wd "))
        return {Finding::kOther, {}};
    if (starts_with(text, "select failed: ") || starts_with(text, "create file monitor thread failed"))
        return {Finding::kMonitorEnded, {}};
    return {};
}

uint64_t Findings::left_out() const
{
    return std::max(watch_limit, mark_limit) + cache_full + std::max(unreadable, denied) +
           std::max(unopened, descriptors) + too_long + other;
}

void LogWatch::start() { orx_host_log_sink(sink, this); }

void LogWatch::stop() { orx_host_log_sink(nullptr, nullptr); }

void LogWatch::count(const LogLine &line)
{
    uint64_t *const count = counter(line.finding, findings_);
    if (count && (*count)++ == 0 && line.finding == Finding::kUnreadable)
        findings_.first_unreadable = line.path;
    findings_.monitor_ended |= line.finding == Finding::kMonitorEnded;
}

void LogWatch::line(int level, std::string_view text)
{
    const LogLine found = read_log_line(text);
    if (found.finding == Finding::kNone && level > ORX_LOG_ERROR)
        return;
    {
        const std::lock_guard<std::mutex> hold(lock_);
        count(found);
        if (level <= ORX_LOG_ERROR && !is_consequence(text))
            findings_.last_error = text;
    }
    if (found.finding != Finding::kNone && !any_.exchange(true, std::memory_order_relaxed))
        changed_();
}

Findings LogWatch::take()
{
    const std::lock_guard<std::mutex> hold(lock_);
    any_.store(false, std::memory_order_relaxed);
    return std::exchange(findings_, Findings());
}

}  // namespace agent
