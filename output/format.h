/*
 * format.h: what is written for an event, in the form that was asked for.
 *
 * Formatters append to a text and know nothing of files. Records end in "\n", or in a NUL with -0.
 */
#ifndef OUTPUT_FORMAT_H
#define OUTPUT_FORMAT_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "agent/containers.h"
#include "agent/queue.h"
#include "agent/report.h"
#include "pacing.h"

namespace output
{

/* A time in which a service did not run, so that nothing was watched. */
struct Unwatched {
    uint64_t from_ns, until_ns; /* since 1970 */
    std::string reason;         /* "stopped", "killed", or "booted": the machine has started anew meanwhile */
};

struct FormatStyle {
    char end = '\n';
    bool colours = false;
    bool terminal = false;     /* a person's terminal reads it: nothing that drives one may pass, whatever the form */
    bool ancestors = false;    /* what made a process is shown with it */
    bool stat = false;         /* inode, device and group of the file are shown, by the forms of JSON */
    std::string host{};        /* the machine's name; empty: not said, but by forms whose schema wants it */
    std::string instance{};    /* that of all events; empty: that of their source */
    bool pairs = false;        /* CSV has a column for the old path of a rename */
    std::string time_format{}; /* of text, CSV and templates; empty: their own */
    std::vector<std::string> sources;                                          /* the instances' names, by index */
    std::function<agent::ContainerName(std::string_view id)> container_name{}; /* none: names are not asked for */
};

class Formatter
{
public:
    virtual ~Formatter() = default;

    /* Whether records say of what is not known to be a directory whether it is. */
    virtual bool wants_dir() const { return false; }
    /* Whether they say what is at its path. */
    virtual bool wants_file() const { return false; }
    virtual void begin(std::string &) {} /* a heading */
    virtual void event(const agent::Event &event, std::string &out) = 0;

    /* Records beside events. A form that has none for one of them appends nothing. */
    virtual void established(uint64_t, const agent::Established &, std::string & /*out*/) {}
    /* `path`: what was missed there; empty: not known. In JSON, text and CSV. */
    virtual void loss(uint64_t, std::string_view /*source*/, uint64_t /*count*/, std::string_view /*path*/,
                      std::string & /*out*/)
    {
    }
    /* In JSON, text and CSV, too. */
    virtual void resynced(uint64_t, const std::vector<std::string> & /*paths*/, uint64_t /*directories*/,
                          std::string & /*out*/)
    {
    }
    virtual void appeared(uint64_t, std::string_view /*path*/, std::string & /*out*/) {}
    virtual void ended(uint64_t, std::string_view /*path*/, std::string_view /*reason*/, std::string & /*out*/) {}
    /* In JSON, text and CSV. */
    virtual void burst(uint64_t, const Burst &, std::string & /*out*/) {}
    virtual void unwatched(uint64_t, const Unwatched &, std::string & /*out*/) {}
};

/* What text and CSV say of a loss: "inotify: 3". */
inline std::string loss_text(std::string_view source, uint64_t count)
{
    return std::string(source) + ": " + std::to_string(count);
}

/* Of a burst: "1,204 more like this in 10 s". */
std::string burst_text(const Burst &burst);

/* "stopped, from 2024-02-29T23:59:59.000000000Z until 2024-03-01T00:00:01.000000000Z". */
std::string unwatched_text(const Unwatched &gap);

/* And of a tree that is watched as a whole again: "directories: 3". */
inline std::string resynced_text(uint64_t directories) { return "directories: " + std::to_string(directories); }

/* The path where there is one, and nothing where there are several. */
inline std::string_view single_path(const std::vector<std::string> &paths)
{
    return paths.size() == 1 ? std::string_view(paths[0]) : std::string_view();
}

/* A template: %e events, %p path, %w its directory with a "/" behind, %F its last name, %P pid, %n process name, %a its
 * ancestors, %t time, %f "found" or nothing, %d "dir" or nothing, %o a rename's old path, %i inode, %D device, %g
 * group, %% and the escapes \n \t \0
 * \\ \a \b \f \v \r \e \ooo \xhh. Null, with the reason in `error`, when it holds anything else after
 * "%" or "\". */
std::unique_ptr<Formatter> make_template_formatter(const FormatStyle &style, std::string_view pattern,
                                                   std::string &error);

}  // namespace output

#endif
