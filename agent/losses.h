/*
 * losses.h: what was missed, from the monitor's counters.
 */
#ifndef AGENT_LOSSES_H
#define AGENT_LOSSES_H

#include <cstdint>
#include <string>
#include <vector>

#include "orx_fmon.h"

namespace agent
{

/* What one counter grew by. */
struct Loss {
    const char *source; /* as the loss record names it */
    uint64_t count;
    std::string path; /* what it was about; empty: not known */
    std::string text; /* one line for a person: what was missed, and what to do about it */
    bool blinds;      /* what is known of watched trees may be wrong */
};

/* Compares each look at the counters with the one before. */
class Losses
{
public:
    std::vector<Loss> since_last(const struct fmon_status &now);

private:
    std::vector<uint64_t> seen_; /* of each counter; empty: none was looked at */
};

/* What was missed since the start, a line for a person each. */
std::vector<std::string> loss_lines(const struct fmon_status &now);

}  // namespace agent

#endif
