#include "linux/rate_ctrl.h"

#include "checked.h"
#include "linux/fmon_linux.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "linux/rate_ctrl.c";

enum { PERIOD_MS = 1000, INTERVAL_MIN_MS = 10, INTERVAL_MAX_MS = PERIOD_MS };

uint32_t clamped_interval(uint32_t interval)
{
    if (interval < INTERVAL_MIN_MS)
        return INTERVAL_MIN_MS;
    return interval > INTERVAL_MAX_MS ? static_cast<uint32_t>(INTERVAL_MAX_MS) : interval;
}

/* Reads that a descriptor has earned by the end of the slot. Signed, so that a limit out of all proportion aborts here
 * instead of wrapping to a small allowance. */
int earned(uint32_t slot)
{
    const int slots = PERIOD_MS / static_cast<int>(fmlnx.rate_interval);
    const int per_slot = checked_add(static_cast<int>(fmlnx.rate_limit) / slots, 1);
    return checked_mul(per_slot, checked_add(static_cast<int>(slot), 1));
}

/* Milliseconds to stay out of the selection, `elapsed` ms into the period; 0: go on. The period's limit is looked at
 * first: with a limit below the number of slots, the reads of the first slots use it up. */
uint32_t throttle_delay(uint32_t elapsed, uint32_t count)
{
    if (count >= fmlnx.rate_limit)
        return PERIOD_MS - elapsed;
    if (static_cast<int>(count) < earned(elapsed / fmlnx.rate_interval))
        return 0;
    return fmlnx.rate_interval - elapsed % fmlnx.rate_interval;
}

void begin_period(int i, uint32_t elapsed, uint32_t now_ms)
{
    if (fmlnx.rate_log && fmlnx.io_count[i])
        FMON_LOG(4, kFile, "fd[%d]: %d io %u ms\n", i, static_cast<int>(fmlnx.io_count[i]), elapsed);
    fmlnx.delay[i] = 0;
    fmlnx.io_count[i] = 0;
    fmlnx.period_start[i] = now_ms;
}

/* The unsigned difference stays right when the 32-bit clock wraps, every 49.7 days. */
void account(int i, uint32_t now_ms)
{
    const uint32_t elapsed = now_ms - fmlnx.period_start[i];
    if (elapsed >= PERIOD_MS)
        begin_period(i, elapsed, now_ms);
    else if (fmlnx.rate_limit)
        fmlnx.delay[i] = throttle_delay(elapsed, fmlnx.io_count[i]);
}

}  // namespace

/* The running periods go on: only what was counted in them is forgiven. */
int fmon_linux_rate_ctrl(uint32_t limit, uint32_t interval, uint32_t log)
{
    fmlnx.rate_limit = limit;
    fmlnx.rate_interval = clamped_interval(interval);
    fmlnx.rate_log = log;
    for (int i = 0; i < fmlnx.fd_num; i++) {
        fmlnx.delay[i] = 0;
        fmlnx.io_count[i] = 0;
    }
    return 0;
}

void rate_ctrl(struct fmon *, uint32_t now_ms)
{
    if (!fmlnx.rate_limit && !fmlnx.rate_log)
        return;
    for (int i = 0; i < fmlnx.fd_num; i++) {
        if (fmlnx.fds[i] != -1)
            account(i, now_ms);
    }
}
