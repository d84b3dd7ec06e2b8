#include "testlib/kernel_double/kernel_objects.h"

#include <sstream>

namespace testlib
{

uint64_t KernelObjects::super_block(uint32_t device)
{
    const uint64_t super = memory_->allocate(128);
    memory_->put(super + (is_64() ? 16 : 8), device, 4);
    return super;
}

uint64_t KernelObjects::inode(uint64_t number, uint16_t mode)
{
    const uint64_t inode = memory_->allocate(1024);
    memory_->put(inode, mode, 2);
    memory_->put_word(inode + (is_64() ? 64 : 40), number);
    return inode;
}

uint64_t KernelObjects::dentry(uint64_t super, uint64_t parent, const std::string &name, uint64_t inode)
{
    const uint64_t entry = memory_->allocate(256), name_inside = entry + (is_64() ? 56 : 36);
    memory_->put_word(entry + (is_64() ? 24 : 16), parent ? parent : entry);
    memory_->put_word(entry + (is_64() ? 48 : 32), inode);
    memory_->put_word(entry + (is_64() ? 104 : 84), super);
    const bool is_short = name.size() < (is_64() ? 32u : 36u);
    if (is_short)
        memory_->write(name_inside, name.c_str(), name.size() + 1);
    memory_->put_word(entry + (is_64() ? 40 : 28), is_short ? name_inside : memory_->put_text(name));
    return entry;
}

uint64_t KernelObjects::path(uint64_t super, const std::string &path, uint64_t leaf)
{
    std::istringstream names(path.substr(1));
    uint64_t entry = dentry(super, 0, "/");
    for (std::string name; std::getline(names, name, '/');)
        entry = dentry(super, entry, name, names.eof() ? leaf : 0);
    return entry;
}

uint64_t KernelObjects::struct_path(uint64_t entry)
{
    const uint64_t path = memory_->allocate(2 * memory_->word());
    memory_->put_word(path + memory_->word(), entry);
    return path;
}

uint64_t KernelObjects::mark(uint64_t inode, uint32_t wd, uint64_t group)
{
    const uint64_t mark = memory_->allocate(128), connector = memory_->allocate(64);
    memory_->put(mark + (is_64() ? 72 : 44), wd, 4);
    memory_->put_word(mark + 8, group);
    memory_->put_word(mark + (is_64() ? 56 : 32), connector);
    memory_->put_word(connector + 16, inode + (is_64() ? 600 : 392)); /* where the inode points back to it */
    return mark;
}

uint64_t KernelObjects::qstr(const std::string &name)
{
    const uint64_t qstr = memory_->allocate(16);
    memory_->put_word(qstr + 8, memory_->put_text(name));
    return qstr;
}

}  // namespace testlib
