#include "losses.h"

#include <iterator>
#include <utility>

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

using Status = struct fmon_status;

template <uint64_t fmon_loss_counts::*kCounter>
uint64_t lost(const Status &now)
{
    return now.lost.*kCounter;
}

template <uint64_t fmon_fs_losses::*kCounter>
uint64_t lost(const Status &now)
{
    return now.fs.lost.*kCounter;
}

const char *nothing(const Status &) { return ""; }

bool always(const Status &) { return true; }
bool never(const Status &) { return false; }
// Of the probes one reports what happens in watched directories.
bool by_probe(const Status &now) { return now.inotify_probe.state == FMON_SOURCE_ON; }

// One row a counter: the name in loss records, where the counter is, what a person is told, and what the latest of it
// was about.
struct Row {
    const char *source;
    uint64_t (*count)(const Status &now);
    Explain explain;
    const char *(*path)(const Status &now) = nothing;
    bool (*blinds)(const Status &now) = always; /* what is known of watched trees may be wrong */
};

constexpr Row kRows[] = {
    {"inotify", lost<&fmon_loss_counts::inotify>,
     [](uint64_t n, const std::string &) { return queue_text("inotify", n); }},
    {"fanotify", lost<&fmon_loss_counts::fanotify>,
     [](uint64_t n, const std::string &) { return queue_text("fanotify", n); }},
    {"fanotify", lost<&fmon_loss_counts::unopened>,
     [](uint64_t n, const std::string &) {
         return counted(n, "event") +
                " had no file that could be opened: descriptors may be short (ulimit -n), or the " +
                "file's owner holds a lease on it";
     },
     nothing, never},
    {"table", lost<&fmon_loss_counts::unknown_wd>,
     [](uint64_t n, const std::string &) {
         return counted(n, "event") + " came for a directory that is no longer known";
     }},
    {"path", lost<&fmon_loss_counts::path>,
     [](uint64_t n, const std::string &path) {
         return counted(n, "event") + " had no path that can be told" + at(path) +
                ": it is longer than 1,022 bytes, or another file is there by now";
     },
     [](const Status &now) -> const char * { return now.lost_path; }, never},
    {"table", lost<&fmon_loss_counts::memory>,
     [](uint64_t n, const std::string &) { return counted(n, "event") + " found no memory"; }},
    {"probes", lost<&fmon_loss_counts::probes_ring>,
     [](uint64_t n, const std::string &) { return probe_text(n, "the kernel's buffer was full"); }, nothing, by_probe},
    {"probes", lost<&fmon_loss_counts::probes_queue>,
     [](uint64_t n, const std::string &) { return probe_text(n, "the probe library's queue was full"); }, nothing,
     by_probe},
    {"probes", lost<&fmon_loss_counts::probes_cleaned>,
     [](uint64_t n, const std::string &) { return probe_text(n, "more came at once than the monitor takes"); }, nothing,
     by_probe},
    {"probes", lost<&fmon_loss_counts::probes_unreadable>,
     [](uint64_t n, const std::string &) { return probe_text(n, "their names could not be read"); }, nothing, by_probe},
    {"probes", lost<&fmon_loss_counts::probes_missed>,
     [](uint64_t n, const std::string &) { return probe_text(n, "the kernel could not run the probe"); }, nothing,
     by_probe},
    {"filesystem", lost<&fmon_fs_losses::overflows>,
     [](uint64_t n, const std::string &) {
         return "events were lost: the kernel's queue of file systems overflowed " + counted(n, "time") +
                "; leave out --set fs_queue=1, or raise sysctl fs.fanotify.max_queued_events";
     }},
    {"filesystem", lost<&fmon_fs_losses::dropped>,
     [](uint64_t n, const std::string &) {
         return counted(n, "event") + " of file systems " + (n == 1 ? "was" : "were") +
                " thrown away, since too many waited: give them room with --set fs_memory=256 (MiB), or read the "
                "output " +
                "quicker";
     }},
    {"table", lost<&fmon_fs_losses::unresolved>,
     [](uint64_t n, const std::string &) {
         return counted(n, "event") + " came for a directory whose path could not be found out any more, or that was " +
                "ignored (fs_ignore) until it was moved";
     }},
    {"watches", [](const Status &now) { return now.fs.left_out; },
     [](uint64_t n, const std::string &) {
         return counted(n, "file system") + " below a watched directory cannot be watched: fmon dump -t backend says " +
                (n == 1 ? "which" : "which ones");
     },
     nothing, never},
};

}  // namespace

std::vector<Loss> Losses::since_last(const struct fmon_status &now)
{
    std::vector<Loss> losses;
    seen_.resize(std::size(kRows));
    for (size_t i = 0; i < std::size(kRows); i++) {
        const Row &row = kRows[i];
        const uint64_t total = row.count(now), count = total - std::exchange(seen_[i], total);
        if (count == 0)
            continue;
        const std::string path = row.path(now);
        losses.push_back({row.source, count, path, row.explain(count, path), row.blinds(now)});
    }
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
