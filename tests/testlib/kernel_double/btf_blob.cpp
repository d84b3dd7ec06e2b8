#include "testlib/kernel_double/btf_blob.h"

#include <linux/btf.h>

#include <cstring>

namespace testlib
{

uint32_t BtfBlob::text(const std::string &name)
{
    if (name.empty())
        return 0;
    const auto at = static_cast<uint32_t>(strings_.size());
    strings_ += name + '\0';
    return at;
}

void BtfBlob::word(uint32_t value) { body_.append(reinterpret_cast<const char *>(&value), sizeof(value)); }

uint32_t BtfBlob::type(uint32_t kind, const std::string &name, uint32_t count, uint32_t size_or_type)
{
    word(text(name));
    word(kind << 24 | count);
    word(size_or_type);
    return ++types_;
}

uint32_t BtfBlob::integer(const std::string &name)
{
    const uint32_t id = type(BTF_KIND_INT, name, 0, 4);
    word(32);
    return id;
}

uint32_t BtfBlob::pointer(uint32_t to) { return type(BTF_KIND_PTR, "", 0, to); }

uint32_t BtfBlob::array(uint32_t of, uint32_t count)
{
    const uint32_t id = type(BTF_KIND_ARRAY, "", 0, 0);
    word(of);
    word(of);
    word(count);
    return id;
}

uint32_t BtfBlob::compound(uint32_t kind, const std::string &name, const std::vector<Member> &members)
{
    const uint32_t id = type(kind, name, static_cast<uint32_t>(members.size()), 1024);
    for (const Member &member : members) {
        word(text(member.name));
        word(member.type);
        word(member.byte_offset * 8);
    }
    return id;
}

uint32_t BtfBlob::prototype(const std::vector<uint32_t> &arguments)
{
    const uint32_t id = type(BTF_KIND_FUNC_PROTO, "", static_cast<uint32_t>(arguments.size()), 0);
    for (const uint32_t argument : arguments) {
        word(0);
        word(argument);
    }
    return id;
}

std::string BtfBlob::bytes() const
{
    btf_header header = {};
    header.magic = BTF_MAGIC;
    header.version = BTF_VERSION;
    header.hdr_len = sizeof(header);
    header.type_len = static_cast<uint32_t>(body_.size());
    header.str_off = header.type_len;
    header.str_len = static_cast<uint32_t>(strings_.size());
    return std::string(reinterpret_cast<const char *>(&header), sizeof(header)) + body_ + strings_;
}

std::string kernel_types(const KernelTypes &kernel)
{
    BtfBlob blob;
    const uint32_t word = blob.integer("unsigned int"), text = blob.array(word, 8);
    const uint32_t anything = blob.pointer(0), number = blob.alias("__u32", word);
    const uint32_t inode = blob.structure(
        "inode", {{"i_mode", number, 0}, {"i_ino", word, 64}, {"i_fsnotify_marks", anything, kernel.inode_marks}});
    const uint32_t super = blob.structure("super_block", {{"s_dev", number, 16}});
    const uint32_t hash = blob.structure("", {{"hash", word, 0}, {"len", word, 4}});
    const uint32_t either = blob.unity("", {{"", hash, 0}, {"hash_len", word, 0}});
    const uint32_t qstr = blob.structure("qstr", {{"", either, 0}, {"name", anything, 8}});
    const uint32_t dentry_pointer = blob.pointer(blob.next() + 1);
    const uint32_t dentry = blob.structure("dentry", {{"d_parent", dentry_pointer, 24},
                                                      {"d_name", qstr, 32},
                                                      {"d_inode", blob.next() - 1, 48},
                                                      {kernel.inline_name, text, 56},
                                                      {"d_sb", super, 104}});
    const uint32_t mark =
        blob.structure("fsnotify_mark", {{"mask", number, 0}, {"group", anything, 8}, {"connector", anything, 56}});
    blob.structure("file", {{"private_data", anything, 200}});
    blob.structure("inotify_inode_mark", {{"fsn_mark", mark, 0}, {"wd", word, 72}});
    const uint32_t object = kernel.object_is_void ? anything : blob.pointer(blob.alias("fsnotify_connp_t", anything));
    blob.structure("fsnotify_mark_connector", {{"type", word, 0}, {"obj", object, kernel.connector_object}});
    const uint32_t entry = blob.pointer(blob.constant(dentry)), path = blob.pointer(inode);
    blob.function("__fsnotify_parent", kernel.new_parent ? blob.prototype({entry, number, anything})
                                                         : blob.prototype({path, entry, number}));
    const uint32_t plain = blob.prototype({anything});
    for (const std::string &name : kernel.functions)
        blob.function(name, plain);
    return blob.bytes();
}

}  // namespace testlib
