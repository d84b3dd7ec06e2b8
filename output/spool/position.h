/*
 * position.h: up to where a spool's records have been acknowledged, kept in a file of two slots: one is written while
 * the other holds what was before, so that a crash in between loses the last step only.
 */
#ifndef OUTPUT_SPOOL_POSITION_H
#define OUTPUT_SPOOL_POSITION_H

#include <cstdint>
#include <string>

#include "common/fd.h"

namespace output
{

class SpoolPosition
{
public:
    /* 0 or errno. Slots that say nothing sensible count as 0. */
    int open(int directory);

    uint64_t value() const { return value_; }
    int store(uint64_t value); /* 0 or errno */

private:
    common::Fd fd_;
    uint64_t value_ = 0;
    uint64_t turn_ = 0; /* of the slot that was written last */
};

}  // namespace output

#endif
