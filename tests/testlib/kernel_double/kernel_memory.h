/*
 * kernel_memory.h: made-up kernel memory, and fetch arguments evaluated over it as a kernel's probe does it.
 */
#ifndef TESTLIB_KERNEL_MEMORY_H
#define TESTLIB_KERNEL_MEMORY_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace testlib
{

class KernelMemory
{
public:
    explicit KernelMemory(bool is_64);

    size_t word() const { return word_; }

    /* Zeroed; where a pointer of that kernel would lead. */
    uint64_t allocate(size_t size);
    void put(uint64_t address, uint64_t value, size_t size);
    void put_word(uint64_t address, uint64_t value) { put(address, value, word_); }
    uint64_t put_text(const std::string &text); /* with its NUL */
    void write(uint64_t address, const void *bytes, size_t size);
    bool read(uint64_t address, void *out, size_t size) const; /* false: no such memory */

private:
    size_t word_;
    uint64_t base_;
    std::vector<unsigned char> bytes_;
};

/* What a function finds at its entry. */
class Registers
{
public:
    Registers(KernelMemory *memory, const std::vector<uint64_t> &arguments);
    bool get(const std::string &name, uint64_t *out) const;

private:
    std::map<std::string, uint64_t> values_;
};

/* "NAME=PLACE:TYPE" with the offset in the raw record. */
struct Fetch {
    std::string name, place, type; /* as a format file writes the type: "u64" */
    uint32_t offset, size, count;  /* of one value; 0: no array */
    uint32_t bytes() const { return size * (count ? count : 1); }
};

/* The arguments of a definition, packed from `offset` on. False: a kernel would refuse them, and its words. */
bool parse_fetches(const std::string &text, size_t word, uint32_t offset, std::vector<Fetch> *out, std::string *why);

/* Fills the argument's bytes; where memory cannot be read they stay as they are. Whether it could be read. */
bool evaluate(const KernelMemory &memory, const Registers &registers, const Fetch &fetch, unsigned char *raw);

}  // namespace testlib

#endif
