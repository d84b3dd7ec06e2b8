/*
 * datagrams.h: a packet a datagram.
 */
#ifndef OUTPUT_SINKS_DATAGRAMS_H
#define OUTPUT_SINKS_DATAGRAMS_H

#include <string>
#include <string_view>

#include "common/fd.h"
#include "transport.h"

namespace output
{

class DatagramTransport : public Transport
{
public:
    Carried carry(const Packets &packets, const Patience &patience) override;

private:
    /* A connected socket. Null: `error` is one line. */
    virtual common::Fd connect(const Patience &patience, std::string &error) = 0;
    /* What is too long for a datagram; 0 or an errno, EMSGSIZE when there is no other way. */
    virtual int send_long(int, std::string_view) { return EMSGSIZE; }
    /* Whose socket it is. */
    virtual std::string far_side() const = 0;

    int send(std::string_view packet, const Patience &patience);
    Carried trouble(size_t done, int failed);

    common::Fd socket_;
};

}  // namespace output

#endif
