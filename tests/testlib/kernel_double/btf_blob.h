/*
 * btf_blob.h: makes the kernel's description of its types (BTF), for a few types.
 */
#ifndef TESTLIB_BTF_BLOB_H
#define TESTLIB_BTF_BLOB_H

#include <cstdint>
#include <string>
#include <vector>

namespace testlib
{

class BtfBlob
{
public:
    struct Member {
        std::string name; /* empty: unnamed */
        uint32_t type, byte_offset;
    };

    /* Each returns the type's id, from 1 on. */
    uint32_t integer(const std::string &name);
    uint32_t pointer(uint32_t to); /* 0: void */
    uint32_t array(uint32_t of, uint32_t count);
    uint32_t structure(const std::string &name, const std::vector<Member> &members)
    {
        return compound(4, name, members);
    }
    uint32_t unity(const std::string &name, const std::vector<Member> &members) { return compound(5, name, members); }
    uint32_t alias(const std::string &name, uint32_t of) { return type(8, name, 0, of); }
    uint32_t constant(uint32_t of) { return type(10, "", 0, of); }
    uint32_t prototype(const std::vector<uint32_t> &arguments);
    uint32_t function(const std::string &name, uint32_t of) { return type(12, name, 0, of); }
    /* Any kind, and bytes behind its common part. */
    uint32_t type(uint32_t kind, const std::string &name, uint32_t count, uint32_t size_or_type);
    void word(uint32_t value);

    uint32_t next() const { return types_ + 1; }
    std::string bytes() const;

private:
    uint32_t compound(uint32_t kind, const std::string &name, const std::vector<Member> &members);
    uint32_t text(const std::string &name);

    std::string body_, strings_ = std::string(1, '\0');
    uint32_t types_ = 0;
};

/* What differs between kernels. */
struct KernelTypes {
    uint32_t connector_object = 16;
    bool object_is_void = false; /* a void pointer: to the inode itself */
    uint32_t inode_marks = 600;
    const char *inline_name = "d_iname";
    bool new_parent = true; /* __fsnotify_parent's first argument is the entry */
    std::vector<std::string> functions = {"security_inode_create",
                                          "security_inode_unlink",
                                          "security_inode_rename",
                                          "security_inode_link",
                                          "d_move",
                                          "vfs_create",
                                          "vfs_unlink",
                                          "vfs_rename",
                                          "vfs_link",
                                          "inotify_handle_inode_event",
                                          "schedule"};
};
std::string kernel_types(const KernelTypes &kernel); /* of a 64-bit kernel like 6.1 */

}  // namespace testlib

#endif
