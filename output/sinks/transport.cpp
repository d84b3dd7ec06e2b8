#include "transport.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "agent/time_format.h"

namespace output
{

short Patience::wait(int fd, short events, uint64_t ms) const
{
    const uint64_t deadline = agent::steady_ms() + ms;
    while (true) {
        struct pollfd both[] = {{end_, POLLIN, 0}, {fd, events, 0}};
        const uint64_t now = agent::steady_ms();
        const uint64_t left = deadline > now ? deadline - now : 0;
        const int ready = poll(both, 2, static_cast<int>(std::min<uint64_t>(left, INT32_MAX)));
        if (ready > 0)
            return both[0].revents ? short{0} : both[1].revents;
        if (left == 0 || (ready < 0 && errno != EINTR))
            return 0;
    }
}

bool Patience::over() const
{
    struct pollfd one = {end_, POLLIN, 0};
    return poll(&one, 1, 0) > 0;
}

}  // namespace output
