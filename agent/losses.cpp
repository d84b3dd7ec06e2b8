#include "losses.h"

#include "message.h"

namespace agent
{

namespace
{

using Explain = std::string (*)(uint64_t count, const std::string &path);

std::string queue_text(const std::string &source, uint64_t count)
{
    return "events were lost: the kernel's " + source + " queue overflowed " + counted(count, "time") +
           "; watch less, or raise it with sysctl fs." + source + ".max_queued_events=65536 and start again";
}

std::string at(const std::string &path) { return path.empty() ? "" : ", the latest at " + path; }

std::string probe_text(uint64_t count, const char *reason)
{
    return counted(count, "event") + " of kernel probes " + (count == 1 ? "was" : "were") + " lost: " + reason;
}

// One row a counter: the name in loss records, and what a person is told.
struct Row {
    const char *source;
    uint64_t fmon_loss_counts::*counter;
    Explain explain;
};

constexpr Row kRows[] = {
    {"inotify", &fmon_loss_counts::inotify, [](uint64_t n, const std::string &) { return queue_text("inotify", n); }},
    {"fanotify", &fmon_loss_counts::fanotify,
     [](uint64_t n, const std::string &) { return queue_text("fanotify", n); }},
    {"fanotify", &fmon_loss_counts::unopened,
     [](uint64_t n, const std::string &) {
         return counted(n, "event") +
                " had no file that could be opened: descriptors may be short (ulimit -n), or the " +
                "file's owner holds a lease on it";
     }},
    {"table", &fmon_loss_counts::unknown_wd,
     [](uint64_t n, const std::string &) {
         return counted(n, "event") + " came for a directory that is no longer known";
     }},
    {"path", &fmon_loss_counts::path,
     [](uint64_t n, const std::string &path) {
         return counted(n, "event") + " had no path that can be told" + at(path) +
                ": it is longer than 1,022 bytes, or another file is there by now";
     }},
    {"table", &fmon_loss_counts::memory,
     [](uint64_t n, const std::string &) { return counted(n, "event") + " found no memory"; }},
    {"probes", &fmon_loss_counts::probes_ring,
     [](uint64_t n, const std::string &) { return probe_text(n, "the kernel's buffer was full"); }},
    {"probes", &fmon_loss_counts::probes_queue,
     [](uint64_t n, const std::string &) { return probe_text(n, "the probe library's queue was full"); }},
    {"probes", &fmon_loss_counts::probes_cleaned,
     [](uint64_t n, const std::string &) { return probe_text(n, "more came at once than the monitor takes"); }},
    {"probes", &fmon_loss_counts::probes_unreadable,
     [](uint64_t n, const std::string &) { return probe_text(n, "their names could not be read"); }},
    {"probes", &fmon_loss_counts::probes_missed,
     [](uint64_t n, const std::string &) { return probe_text(n, "the kernel could not run the probe"); }},
};

}  // namespace

std::vector<Loss> Losses::since_last(const struct fmon_status &now)
{
    std::vector<Loss> losses;
    for (const Row &row : kRows) {
        const uint64_t count = now.lost.*row.counter - seen_.*row.counter;
        if (count == 0)
            continue;
        const std::string path = row.counter == &fmon_loss_counts::path ? now.lost_path : "";
        losses.push_back({row.source, count, path, row.explain(count, path)});
    }
    seen_ = now.lost;
    return losses;
}

std::vector<std::string> loss_lines(const struct fmon_status &now)
{
    std::vector<std::string> lines;
    for (const Loss &loss : Losses().since_last(now))
        lines.push_back(loss.text);
    return lines;
}

}  // namespace agent
