/* The entry of fmon_bench; CMakeLists.txt lists its cases. */

#include <benchmark/benchmark.h>

BENCHMARK_MAIN();
