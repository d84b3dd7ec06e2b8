/*
 * last_watch.h: until when a service watched, in a file that outlives the service, so that its next run can say from
 * when until when nobody did.
 */
#ifndef CLI_RUN_LAST_WATCH_H
#define CLI_RUN_LAST_WATCH_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "output/format.h"

namespace cli
{

/* One thread's. */
class LastWatch
{
public:
    /* Reads what an earlier run with that configuration left in the directory. Where there is no such directory nothing
     * is kept. `boot`: the machine's id of its boot. */
    void open(const std::string &directory, const std::string &config_file, const std::string &boot);

    /* From when until `now_ns` nobody watched for that instance; nothing where no earlier run did, or the clock has
     * been set back behind it. */
    std::optional<output::Unwatched> gap(const std::string &instance, uint64_t now_ns) const;

    /* Writes down that these instances watched until then, and whether that is the end. False: `error` is one line, and
     * the file is as before. */
    bool keep(uint64_t now_ns, const std::vector<std::string> &instances, bool ended, std::string &error) const;

    const std::string &path() const { return path_; } /* empty: nothing is kept */

private:
    std::string path_, boot_;
    output::Unwatched before_ = {0, 0, ""};
    std::vector<std::string> instances_; /* of the earlier run */
};

}  // namespace cli

#endif
