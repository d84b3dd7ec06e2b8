#include "print.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "agent/message.h"

namespace output
{

// A reader that has gone has what it wanted (head -1): that is no error.
int print_out(const std::string &text)
{
    signal(SIGPIPE, SIG_IGN);
    const bool done = fwrite(text.data(), 1, text.size(), stdout) == text.size() && fflush(stdout) == 0;
    if (done || errno == EPIPE)
        return agent::kDone;
    agent::complain(std::string("cannot write the output: ") + strerror(errno));
    return agent::kError;
}

bool wants_colours()
{
    const char *no_colour = getenv("NO_COLOR"), *terminal = getenv("TERM");
    return !(no_colour && *no_colour) && !(terminal && std::string_view(terminal) == "dumb");
}

}  // namespace output
