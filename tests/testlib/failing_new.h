/*
 * failing_new.h: C++ allocations that fail when the test says so. For one source of a program, which defines
 * allocation_fails().
 */
#ifndef TESTLIB_FAILING_NEW_H
#define TESTLIB_FAILING_NEW_H

#include <cstdlib>
#include <new>

namespace testlib
{

/* Asked before each allocation of the program. */
bool allocation_fails();

inline void *allocate(size_t size)
{
    void *memory = allocation_fails() ? nullptr : malloc(size ? size : 1);
    if (!memory)
        throw std::bad_alloc();
    return memory;
}

}  // namespace testlib

void *operator new(size_t size) { return testlib::allocate(size); }
void *operator new[](size_t size) { return testlib::allocate(size); }
void operator delete(void *memory) noexcept { free(memory); }
void operator delete[](void *memory) noexcept { free(memory); }
void operator delete(void *memory, size_t) noexcept { free(memory); }
void operator delete[](void *memory, size_t) noexcept { free(memory); }

#endif
