/*
 * request.h: HTTP requests by libcurl, which is loaded when an output needs it.
 */
#ifndef OUTPUT_SINKS_REQUEST_H
#define OUTPUT_SINKS_REQUEST_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "transport.h"

namespace output
{

struct RequestOptions {
    std::string url;
    std::string ca, certificate, key; /* files; empty: the system's, none, none */
    uint64_t timeout_ms = 30'000;     /* for an answer, from the first byte that is sent on */
};

struct Answer {
    long status = 0;          /* 0: there was none */
    uint64_t retry_ms = 0;    /* what the far side asks to be given; 0: it does not */
    std::string trouble = {}; /* why there was no answer */
};

/* Whether this build and machine have it. False: `error` is one line. */
bool has_http(std::string &error);

/* Keeps its connection from request to request. For one thread. */
class Requests
{
public:
    explicit Requests(RequestOptions options);
    ~Requests();
    Requests(const Requests &) = delete;
    Requests &operator=(const Requests &) = delete;

    /* `headers`: "Name: value". Follows no redirection. Waits until the answer is there, its time is over, or the sink
     * ends. */
    Answer post(std::string_view body, const std::vector<std::string> &headers, const Patience &patience);

private:
    struct State;

    bool is_ready();
    void set_up();
    Answer perform(const Patience &patience);

    const RequestOptions options_;
    std::unique_ptr<State> state_;
};

}  // namespace output

#endif
