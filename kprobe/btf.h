/*
 * btf.h: reads the kernel's own description of its types (/sys/kernel/btf/vmlinux), for a few offsets.
 *
 * Takes any bytes: a truncated or foreign file is not valid or answers "not found".
 */
#ifndef KPROBE_BTF_H
#define KPROBE_BTF_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kprobe
{

class Btf
{
public:
    explicit Btf(std::string bytes);

    bool valid() const { return !types_.empty(); }

    // Offset in bytes of a member, such as "d_name.name" in "dentry". Members of unnamed members count as own.
    std::optional<int> offset(std::string_view structure, std::string_view path) const;

    // Whether a member is a pointer to anything (void *).
    bool is_void_pointer(std::string_view structure, std::string_view name_wanted) const;

    // Whether a member is a pointer to that structure.
    bool is_pointer_to(std::string_view structure, std::string_view name_wanted, std::string_view pointed) const;

    bool has_function(std::string_view name) const { return find(kFunction, name) != 0; }

    // All functions, in no order.
    template <typename Body>
    void each_function(Body &&body) const
    {
        for (uint32_t id = 1; id < types_.size(); id++)
            if (kind(id) == kFunction)
                body(name(id));
    }

    // Which argument of a function (from 1) is the first that points to a structure of that name. 0: none.
    int argument_of_type(std::string_view function, std::string_view structure) const;

private:
    enum : uint32_t {
        kPointer = 2,
        kArray = 3,
        kStruct = 4,
        kUnion = 5,
        kTypedef = 8,
        kFunction = 12,
        kPrototype = 13
    };
    struct Found {
        uint32_t type, bits;
    };

    uint32_t word(size_t at) const;
    uint32_t kind(uint32_t id) const { return (word(types_[id] + 4) >> 24) & 31; }
    uint32_t count(uint32_t id) const { return word(types_[id] + 4) & 0xffff; }
    uint32_t target(uint32_t id) const { return word(types_[id] + 8); }
    std::string_view name(uint32_t id) const { return text(word(types_[id])); }
    std::string_view text(uint32_t offset) const;
    uint32_t find(uint32_t wanted, std::string_view name) const;
    uint32_t resolve(uint32_t id) const;  // through qualifiers and other names
    std::optional<Found> member(uint32_t id, std::string_view wanted) const;
    std::optional<Found> member(uint32_t id, std::string_view wanted, int depth, uint32_t &left) const;
    bool index();

    std::string bytes_;
    size_t strings_ = 0, strings_end_ = 0;
    std::vector<uint32_t> types_;  // where each type begins; 0 is void
};

}  // namespace kprobe

#endif
