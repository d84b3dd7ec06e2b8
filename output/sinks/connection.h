/*
 * connection.h: TCP connections as streams, plain and with TLS.
 */
#ifndef OUTPUT_SINKS_CONNECTION_H
#define OUTPUT_SINKS_CONNECTION_H

#include <memory>
#include <string>

#include "address.h"
#include "stream.h"

namespace output
{

/* A stream that the far side may end. */
class Connection : public ByteStream
{
public:
    ~Connection() override; /* takes what has come first, lest the far side lose what it has not read yet */

    explicit Connection(common::Fd socket) : fd_(std::move(socket)) {}

    ssize_t write(std::string_view bytes, short &awaited) override;
    int fd() const override { return fd_.get(); }
    size_t unread() const override; /* not acknowledged by the far side's kernel */

    /* Takes what the far side says, which is of no interest. False: it has ended the connection; `why` is empty or
     * one line. */
    virtual bool hear(std::string &why);

private:
    common::Fd fd_;
};

struct TlsOptions {
    std::string ca;               /* file of certificates to be trusted; empty: the system's */
    std::string certificate, key; /* files of our own; empty: none. The key is a secret's file */
    std::string name;             /* that the far side's certificate must be for */
};

/* Whether this build and machine have TLS. False: `error` is one line. */
bool has_tls(std::string &error);

/* Shakes hands within ten seconds; the certificate is one that is trusted, and for that name. Null: `error` is one
 * line. */
std::unique_ptr<Connection> connect_tls(common::Fd socket, const TlsOptions &options, const Patience &patience,
                                        std::string &error);

}  // namespace output

#endif
