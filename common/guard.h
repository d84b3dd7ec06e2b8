/*
 * guard.h: what keeps C++ inside functions that C calls.
 */
#ifndef COMMON_GUARD_H
#define COMMON_GUARD_H

#include <exception>
#include <utility>

namespace common
{

/* Runs `body` and returns its result, or `failed` when it throws, which means that memory ran out: no exception may
 * reach the caller. */
template <typename Result, typename Body>
Result without_exceptions(Result failed, Body &&body) noexcept
{
    try {
        return std::forward<Body>(body)();
    } catch (const std::exception &) {
        return failed;
    }
}

}  // namespace common

#endif
