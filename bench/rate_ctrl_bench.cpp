/* The end of a read pass, by number of descriptors. */
#include "linux/rate_ctrl.h"

#include <benchmark/benchmark.h>

#include <vector>

#include "linux/fmon_linux.h"

namespace
{

/* Busy descriptors of the backend for the life of one case. */
class Descriptors
{
public:
    explicit Descriptors(size_t count) : fds_(count, 3), start_(count), delay_(count), io_(count, 2), saved_(fmlnx)
    {
        fmlnx.fd_num = static_cast<int32_t>(count);
        fmlnx.fds = fds_.data();
        fmlnx.period_start = start_.data();
        fmlnx.delay = delay_.data();
        fmlnx.io_count = io_.data();
    }
    ~Descriptors() { fmlnx = saved_; }
    Descriptors(const Descriptors &) = delete;
    Descriptors &operator=(const Descriptors &) = delete;

    std::vector<int32_t> fds_;
    std::vector<uint32_t> start_, delay_, io_;

private:
    struct fmlnx_t saved_;
};

/* One pass a millisecond, under the limit that the plug-in shell sets. */
void rate_ctrl_pass(benchmark::State &state)
{
    const Descriptors descriptors(static_cast<size_t>(state.range(0)));
    fmon_linux_rate_ctrl(10, 200, 0);
    uint32_t now = 0;
    for (auto _ : state) {
        rate_ctrl(&fmon, now++);
        benchmark::DoNotOptimize(fmlnx.delay[0]);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(rate_ctrl_pass)->Arg(3)->Arg(32);

void rate_ctrl_pass_off(benchmark::State &state)
{
    const Descriptors descriptors(static_cast<size_t>(state.range(0)));
    fmon_linux_rate_ctrl(0, 200, 0);
    uint32_t now = 0;
    for (auto _ : state) {
        rate_ctrl(&fmon, now++);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(rate_ctrl_pass_off)->Arg(3);

}  // namespace
