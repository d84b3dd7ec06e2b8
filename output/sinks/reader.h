/*
 * reader.h: one that has connected to an output, with what it has not read yet.
 */
#ifndef OUTPUT_SINKS_READER_H
#define OUTPUT_SINKS_READER_H

#include <poll.h>

#include <cstdint>
#include <deque>
#include <string>

#include "common/fd.h"
#include "packets.h"

namespace output
{

class Reader
{
public:
    explicit Reader(common::Fd socket);

    /* How many of the packets it may be given now: those that `bound` bytes hold, and one where it has read all. */
    size_t room(const Packets &packets, size_t bound) const;
    void give(const Packets &packets, uint64_t now_ms);
    /* As much as it takes. False: it has gone. */
    bool send(uint64_t now_ms);
    /* What it says is of no interest; and it may be silent for good, and go on reading. */
    void hear();

    int fd() const { return socket_.get(); }
    struct pollfd polled() const;
    bool is_behind() const { return !pending_.empty(); }
    size_t unsent() const { return ends_.size(); } /* records, the one that was sent in part among them */
    /* Since when it has read nothing of what there is. */
    uint64_t since_ms() const { return since_ms_; }
    const std::string &name() const { return name_; } /* "process 12" */

private:
    common::Fd socket_;
    std::string name_;
    std::string pending_;
    std::deque<uint64_t> ends_; /* of the records in it, by bytes since the connection */
    uint64_t given_ = 0, sent_ = 0;
    uint64_t since_ms_ = 0;
    bool is_silent_ = false;
};

}  // namespace output

#endif
