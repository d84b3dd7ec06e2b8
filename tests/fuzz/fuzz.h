/*
 * fuzz.h: what fuzz targets share.
 */
#ifndef FUZZ_H
#define FUZZ_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

/* Must return 0; what may not be is said with FUZZ_CHECK. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

/* Not assert: it must hold in optimised builds, too. */
#define FUZZ_CHECK(condition)                                                       \
    do {                                                                            \
        if (!(condition)) {                                                         \
            fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition); \
            abort();                                                                \
        }                                                                           \
    } while (false)

#endif
