/*
 * checked.h: arithmetic on counts, indices and byte sizes that aborts the process instead of overflowing.
 *
 * An agent that goes on with a wrapped count reads and writes where it must not; a crash is found and restarted.
 */
#ifndef FMON_CHECKED_H
#define FMON_CHECKED_H

#include <cstdlib>

template <typename T>
inline T checked_add(T a, T b)
{
    T out;
    if (__builtin_add_overflow(a, b, &out))
        abort();
    return out;
}

template <typename T>
inline T checked_sub(T a, T b)
{
    T out;
    if (__builtin_sub_overflow(a, b, &out))
        abort();
    return out;
}

template <typename T>
inline T checked_mul(T a, T b)
{
    T out;
    if (__builtin_mul_overflow(a, b, &out))
        abort();
    return out;
}

#endif
