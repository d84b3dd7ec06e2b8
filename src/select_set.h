/*
 * select_set.h: a set of descriptors to wait on, of any size.
 *
 * The C library's fd_set ends at FD_SETSIZE and writing past it corrupts memory; the kernel takes as many bits as the
 * call says. The first FD_SETSIZE descriptors need no memory; beyond them the set grows with the highest one added.
 */
#ifndef FMON_SELECT_SET_H
#define FMON_SELECT_SET_H

#include <sys/select.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

class SelectSet
{
public:
    SelectSet() = default;
    ~SelectSet() { free(grown_); }
    SelectSet(const SelectSet &) = delete;
    SelectSet &operator=(const SelectSet &) = delete;

    void clear()
    {
        memset(words(), 0, sizeof(unsigned long) * (word_of(highest_) + 1));
        highest_ = 0;
    }

    /* False: no memory for a descriptor that high; the set stays as it was. */
    bool add(int fd)
    {
        if (word_of(fd) >= size_ && !grow(word_of(fd) + 1))
            return false;
        words()[word_of(fd)] |= bit_of(fd);
        if (fd > highest_)
            highest_ = fd;
        return true;
    }

    bool has(int fd) const { return fd <= highest_ && (words()[word_of(fd)] & bit_of(fd)) != 0; }

    /* As select(2) for reading, with an empty set a plain wait. Afterwards the set holds what is ready. */
    int wait(uint32_t timeout_ms)
    {
        struct timeval timeout = {};
        timeout.tv_sec = timeout_ms / 1000;
        timeout.tv_usec = static_cast<suseconds_t>(timeout_ms % 1000) * 1000;
        return select(highest_ + 1, reinterpret_cast<fd_set *>(words()), nullptr, nullptr, &timeout);
    }

private:
    /* The kernel's layout: an array of longs, lowest bit first. */
    static constexpr size_t kBits = sizeof(unsigned long) * CHAR_BIT;
    static constexpr size_t kFixed = FD_SETSIZE / kBits;

    static size_t word_of(int fd) { return static_cast<size_t>(fd) / kBits; }
    static unsigned long bit_of(int fd) { return 1UL << static_cast<size_t>(fd) % kBits; }
    unsigned long *words() { return grown_ ? grown_ : fixed_; }
    const unsigned long *words() const { return grown_ ? grown_ : fixed_; }

    bool grow(size_t size)
    {
        void *block = calloc(size, sizeof(unsigned long));
        if (!block)
            return false;
        memcpy(block, words(), size_ * sizeof(unsigned long));
        free(grown_);
        grown_ = static_cast<unsigned long *>(block);
        size_ = size;
        return true;
    }

    unsigned long fixed_[kFixed] = {};
    unsigned long *grown_ = nullptr; /* replaces fixed_ once a descriptor lies beyond it */
    size_t size_ = kFixed;           /* words */
    int highest_ = 0;
};

#endif
