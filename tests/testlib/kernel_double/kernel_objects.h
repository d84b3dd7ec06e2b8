/*
 * kernel_objects.h: files and marks in made-up kernel memory, laid out as 5.10 and 6.1 kernels do.
 */
#ifndef TESTLIB_KERNEL_OBJECTS_H
#define TESTLIB_KERNEL_OBJECTS_H

#include "testlib/kernel_double/kernel_memory.h"

namespace testlib
{

class KernelObjects
{
public:
    explicit KernelObjects(KernelMemory *memory) : memory_(memory) {}

    uint64_t super_block(uint32_t device);
    uint64_t inode(uint64_t number, uint16_t mode);
    /* parent 0: the root, which is its own parent. Long names stand elsewhere, and only the pointer leads there. */
    uint64_t dentry(uint64_t super, uint64_t parent, const std::string &name, uint64_t inode = 0);
    /* All of a path such as "/a/b/c"; the leaf. */
    uint64_t path(uint64_t super, const std::string &path, uint64_t leaf = 0);
    uint64_t struct_path(uint64_t entry);
    uint64_t mark(uint64_t inode, uint32_t wd, uint64_t group = 0);
    uint64_t qstr(const std::string &name);

private:
    bool is_64() const { return memory_->word() == 8; }
    KernelMemory *memory_;
};

}  // namespace testlib

#endif
