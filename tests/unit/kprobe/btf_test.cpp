/* The reader of the kernel's type information: small blobs, and ones that are no longer what they were. */
#include "btf.h"

#include <gtest/gtest.h>
#include <linux/btf.h>

#include <cstring>
#include <random>
#include <set>

#include "testlib/kernel_double/btf_blob.h"

using namespace kprobe;
using testlib::BtfBlob;
using testlib::kernel_types;
using testlib::KernelTypes;

namespace
{

/* Everything that the library asks. */
void ask_everything(const Btf &btf)
{
    for (const char *structure : {"dentry", "super_block", "inode", "fsnotify_mark_connector", "qstr", "loop", ""})
        for (const char *member : {"d_parent", "d_name.name", "d_name.hash.x", "s_dev", "obj", "", ".", "nothing"}) {
            btf.offset(structure, member);
            btf.is_void_pointer(structure, member);
        }
    size_t names = 0;
    btf.each_function([&](std::string_view name) { names += name.size(); });
    btf.has_function("vfs_link");
    btf.argument_of_type("__fsnotify_parent", "dentry");
}

}  // namespace

TEST(KprobeBtf, Offsets)
{
    const Btf btf(kernel_types(KernelTypes()));
    ASSERT_TRUE(btf.valid());
    EXPECT_EQ(24, btf.offset("dentry", "d_parent"));
    EXPECT_EQ(40, btf.offset("dentry", "d_name.name"));
    EXPECT_EQ(36, btf.offset("dentry", "d_name.len")) << "through an unnamed union and an unnamed structure";
    EXPECT_EQ(32, btf.offset("dentry", "d_name.hash_len"));
    EXPECT_EQ(600, btf.offset("inode", "i_fsnotify_marks"));
    for (const char *path : {"", ".", "d_name.nothing", "d_parent.d_parent", "d_name.name.x", "d_nam", "d_name "})
        EXPECT_EQ(std::nullopt, btf.offset("dentry", path)) << path;
    for (const char *structure : {"", "dent", "dentry2", "__u32", "d_name"})
        EXPECT_EQ(std::nullopt, btf.offset(structure, "d_parent")) << structure;
}

TEST(KprobeBtf, BitFields)
{
    BtfBlob blob;
    const uint32_t number = blob.integer("int");
    blob.type(BTF_KIND_STRUCT, "flags", 0x80000000 | 1, 8); /* offsets with a size of bits above them */
    blob.word(1);                                           /* "int", the first text */
    blob.word(number);
    blob.word(3u << 24 | 37);
    const Btf btf(blob.bytes());
    EXPECT_EQ(4, btf.offset("flags", "int"));
}

TEST(KprobeBtf, Pointers)
{
    KernelTypes kernel;
    EXPECT_FALSE(Btf(kernel_types(kernel)).is_void_pointer("fsnotify_mark_connector", "obj"));
    kernel.object_is_void = true;
    const Btf btf(kernel_types(kernel));
    EXPECT_TRUE(btf.is_void_pointer("fsnotify_mark_connector", "obj"));
    EXPECT_FALSE(btf.is_void_pointer("fsnotify_mark_connector", "type"));
    EXPECT_FALSE(btf.is_void_pointer("fsnotify_mark_connector", "nothing"));
    EXPECT_FALSE(btf.is_void_pointer("nothing", "obj"));
}

TEST(KprobeBtf, Functions)
{
    const Btf btf(kernel_types(KernelTypes()));
    EXPECT_TRUE(btf.has_function("vfs_link"));
    EXPECT_FALSE(btf.has_function("vfs_lin"));
    EXPECT_FALSE(btf.has_function("dentry")) << "a structure";
    EXPECT_FALSE(btf.has_function(""));
    std::set<std::string, std::less<>> names;
    btf.each_function([&](std::string_view name) { names.emplace(name); });
    EXPECT_EQ(12u, names.size());
    EXPECT_EQ(1u, names.count("__fsnotify_parent"));
}

TEST(KprobeBtf, Arguments)
{
    KernelTypes kernel;
    EXPECT_EQ(1, Btf(kernel_types(kernel)).argument_of_type("__fsnotify_parent", "dentry")) << "through const";
    kernel.new_parent = false;
    const Btf btf(kernel_types(kernel));
    EXPECT_EQ(2, btf.argument_of_type("__fsnotify_parent", "dentry"));
    EXPECT_EQ(1, btf.argument_of_type("__fsnotify_parent", "inode"));
    EXPECT_EQ(0, btf.argument_of_type("__fsnotify_parent", "mount"));
    EXPECT_EQ(0, btf.argument_of_type("vfs_link", "dentry"));
    EXPECT_EQ(0, btf.argument_of_type("nothing", "dentry"));
}

TEST(KprobeBtf, NamesForAType)
{
    BtfBlob blob;
    uint32_t type = blob.structure("inner", {{"x", 0, 12}});
    for (int i = 0; i < 7; i++)
        type = i % 2 ? blob.alias("name", type) : blob.constant(type);
    blob.structure("outer", {{"field", type, 16}});
    blob.structure("deeper", {{"field", blob.constant(blob.constant(type)), 16}});
    const Btf btf(blob.bytes());
    EXPECT_EQ(28, btf.offset("outer", "field.x"));
    EXPECT_EQ(std::nullopt, btf.offset("deeper", "field.x")) << "no kernel has so many";
}

TEST(KprobeBtf, TypesThatContainThemselves)
{
    BtfBlob blob;
    const uint32_t self = blob.alias("self", 1);
    blob.pointer(2);
    std::vector<BtfBlob::Member> members(2000, {"", 4, 8});
    blob.constant(self);
    ASSERT_EQ(4u, blob.structure("loop", members)); /* takes for ever, were every way tried */
    blob.structure("dentry", {{"d_parent", 5, 8}, {"d_name", self, 0}, {"obj", 2, 0}});
    const Btf btf(blob.bytes());
    ASSERT_TRUE(btf.valid());
    ask_everything(btf);
    EXPECT_EQ(std::nullopt, btf.offset("loop", "d_parent"));
    EXPECT_EQ(std::nullopt, btf.offset("dentry", "d_name.name"));
    EXPECT_FALSE(btf.is_void_pointer("dentry", "d_name"));
    EXPECT_EQ(8, btf.offset("dentry", "d_parent"));
    EXPECT_EQ(24, btf.offset("dentry", "d_parent.d_parent.d_parent"));
}

TEST(KprobeBtf, TypesThatAreNotThere)
{
    BtfBlob blob;
    blob.structure("dentry", {{"", 99, 0}, {"d_name", 0xffffffff, 8}, {"obj", 3, 16}});
    blob.pointer(0xffffffff);
    blob.pointer(0);
    blob.function("__fsnotify_parent", 1000);
    blob.function("vfs_link", blob.prototype({1000, 2, 0, 0xffffffff}));
    const Btf btf(blob.bytes());
    ASSERT_TRUE(btf.valid());
    ask_everything(btf);
    EXPECT_EQ(8, btf.offset("dentry", "d_name"));
    EXPECT_TRUE(btf.is_void_pointer("dentry", "obj"));
    EXPECT_EQ(0, btf.argument_of_type("vfs_link", "dentry"));
}

TEST(KprobeBtf, KindsThatAreNotKnown)
{
    BtfBlob blob;
    blob.integer("int");
    EXPECT_TRUE(Btf(blob.bytes()).valid());
    blob.type(25, "new", 0, 0);
    EXPECT_FALSE(Btf(blob.bytes()).valid());
}

TEST(KprobeBtf, NoTypeInformation)
{
    const std::string whole = kernel_types(KernelTypes());
    EXPECT_FALSE(Btf("").valid());
    EXPECT_FALSE(Btf(BtfBlob().bytes()).valid());
    EXPECT_FALSE(Btf(std::string(4096, '\0')).valid());
    EXPECT_FALSE(Btf(whole.substr(1)).valid());
    for (size_t size = 0; size < whole.size(); size++)
        ASSERT_FALSE(Btf(whole.substr(0, size)).valid()) << size;
    ask_everything(Btf(""));
}

TEST(KprobeBtf, HeadersThatPointElsewhere)
{
    const std::string whole = kernel_types(KernelTypes());
    for (size_t field = 4; field < sizeof(btf_header); field += 4)
        for (const uint32_t value : {0u, 1u, 0x7fffffffu, 0x80000000u, 0xfffffff0u, 0xffffffffu}) {
            std::string bytes = whole;
            memcpy(bytes.data() + field, &value, sizeof(value));
            const Btf btf(bytes);
            ask_everything(btf);
        }
}

TEST(KprobeBtf, AnyChange)
{
    KernelTypes kernel;
    kernel.object_is_void = true;
    const std::string whole = kernel_types(kernel);
    std::mt19937 random(11);
    int valid = 0;
    for (int round = 0; round < 20000; round++) {
        std::string bytes = whole;
        for (unsigned i = 1 + random() % 6; i > 0; i--) {
            const size_t at = random() % (bytes.size() - 4);
            const uint32_t value = random() % 2 ? random() % 64 : random();
            switch (random() % 3) {
                case 0:
                    bytes[at] = static_cast<char>(value);
                    break;
                case 1:
                    memcpy(bytes.data() + at / 4 * 4, &value, sizeof(value));
                    break;
                default:
                    memcpy(bytes.data() + at, whole.data() + random() % (whole.size() - 4), 4);
            }
        }
        if (random() % 4 == 0)
            bytes.resize(random() % bytes.size());
        bytes.shrink_to_fit();
        const Btf btf(bytes);
        valid += btf.valid();
        ask_everything(btf);
    }
    EXPECT_GT(valid, 2000) << "most changes hit names and numbers";
}
