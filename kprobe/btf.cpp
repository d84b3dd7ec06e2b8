#include "btf.h"

#include <linux/btf.h>

#include <cstring>

namespace kprobe
{

namespace
{

constexpr int kMaxNesting = 8;  // of unnamed members, and of names for a type
constexpr uint32_t kMaxMembers =
    100000;  // looked at for one name: a structure can be made to contain itself many times

// Bytes behind the common part of a type. Negative: a kind that is not known, so nothing behind it can be read.
int tail_size(uint32_t kind, uint32_t count)
{
    const int n = static_cast<int>(count);
    switch (kind) {
        case BTF_KIND_INT:
        case BTF_KIND_VAR:
        case BTF_KIND_DECL_TAG:
            return 4;
        case BTF_KIND_ARRAY:
            return 12;
        case BTF_KIND_STRUCT:
        case BTF_KIND_UNION:
        case BTF_KIND_DATASEC:
        case BTF_KIND_ENUM64:
            return 12 * n;
        case BTF_KIND_ENUM:
        case BTF_KIND_FUNC_PROTO:
            return 8 * n;
        case BTF_KIND_PTR:
        case BTF_KIND_FWD:
        case BTF_KIND_TYPEDEF:
        case BTF_KIND_VOLATILE:
        case BTF_KIND_CONST:
        case BTF_KIND_RESTRICT:
        case BTF_KIND_FUNC:
        case BTF_KIND_FLOAT:
        case BTF_KIND_TYPE_TAG:
            return 0;
        default:
            return -1;
    }
}

}  // namespace

Btf::Btf(std::string bytes) : bytes_(std::move(bytes))
{
    if (!index())
        types_.clear();
}

uint32_t Btf::word(size_t at) const
{
    uint32_t value = 0;
    if (at + sizeof(value) <= bytes_.size())
        memcpy(&value, bytes_.data() + at, sizeof(value));
    return value;
}

std::string_view Btf::text(uint32_t offset) const
{
    if (offset >= strings_end_ - strings_)
        return {};
    const char *begin = bytes_.data() + strings_ + offset;
    return {begin, strnlen(begin, strings_end_ - strings_ - offset)};
}

bool Btf::index()
{
    btf_header header;
    if (bytes_.size() < sizeof(header))
        return false;
    memcpy(&header, bytes_.data(), sizeof(header));
    const uint64_t size = bytes_.size(), types = uint64_t{header.hdr_len} + header.type_off,
                   strings = uint64_t{header.hdr_len} + header.str_off;
    if (header.magic != BTF_MAGIC || types + header.type_len > size || strings + header.str_len > size)
        return false;
    strings_ = strings;
    strings_end_ = strings + header.str_len;
    types_.push_back(0);
    size_t at = types;
    const size_t end = types + header.type_len;
    while (at + 12 <= end) {
        const uint32_t info = word(at + 4);
        const int tail = tail_size((info >> 24) & 31, info & 0xffff);
        if (tail < 0 || at + 12 + static_cast<size_t>(tail) > end)
            return false;
        types_.push_back(static_cast<uint32_t>(at));
        at += 12 + static_cast<size_t>(tail);
    }
    return at == end && types_.size() > 1;
}

uint32_t Btf::find(uint32_t wanted, std::string_view name_wanted) const
{
    for (uint32_t id = 1; id < types_.size(); id++)
        if (kind(id) == wanted && name(id) == name_wanted)
            return id;
    return 0;
}

uint32_t Btf::resolve(uint32_t id) const
{
    for (int i = 0; i < kMaxNesting && id != 0 && id < types_.size(); i++) {
        switch (kind(id)) {
            case BTF_KIND_TYPEDEF:
            case BTF_KIND_VOLATILE:
            case BTF_KIND_CONST:
            case BTF_KIND_RESTRICT:
            case BTF_KIND_TYPE_TAG:
                id = target(id);
                break;
            default:
                return id;
        }
    }
    return 0;
}

std::optional<Btf::Found> Btf::member(uint32_t id, std::string_view wanted) const
{
    uint32_t left = kMaxMembers;
    return member(id, wanted, 0, left);
}

std::optional<Btf::Found> Btf::member(uint32_t id, std::string_view wanted, int depth, uint32_t &left) const
{
    if (depth > kMaxNesting || id == 0 || (kind(id) != kStruct && kind(id) != kUnion))
        return std::nullopt;
    const bool bitfields = word(types_[id] + 4) >> 31;
    for (uint32_t i = 0; i < count(id); i++) {
        if (left == 0)
            return std::nullopt;
        left--;
        const size_t at = types_[id] + 12 + 12 * size_t{i};
        const uint32_t raw = word(at + 8), bits = bitfields ? raw & 0xffffff : raw;
        const std::string_view own = text(word(at));
        if (own == wanted)
            return Found{word(at + 4), bits};
        if (!own.empty())
            continue;
        if (const auto inner = member(resolve(word(at + 4)), wanted, depth + 1, left))
            return Found{inner->type, bits + inner->bits};
    }
    return std::nullopt;
}

std::optional<int> Btf::offset(std::string_view structure, std::string_view path) const
{
    uint32_t id = find(kStruct, structure), bits = 0;
    while (true) {
        const size_t dot = path.find('.');
        const auto found = member(id, path.substr(0, dot));
        if (!found)
            return std::nullopt;
        bits += found->bits;
        if (dot == std::string_view::npos)
            return static_cast<int>(bits / 8);
        path.remove_prefix(dot + 1);
        id = resolve(found->type);
    }
}

bool Btf::is_void_pointer(std::string_view structure, std::string_view name_wanted) const
{
    const auto found = member(find(kStruct, structure), name_wanted);
    const uint32_t id = found ? resolve(found->type) : 0;
    return id != 0 && kind(id) == kPointer && target(id) == 0;
}

bool Btf::is_pointer_to(std::string_view structure, std::string_view name_wanted, std::string_view pointed) const
{
    const auto found = member(find(kStruct, structure), name_wanted);
    const uint32_t id = found ? resolve(found->type) : 0;
    const uint32_t target_id = id != 0 && kind(id) == kPointer ? resolve(target(id)) : 0;
    return target_id != 0 && kind(target_id) == kStruct && name(target_id) == pointed;
}

int Btf::argument_of_type(std::string_view function, std::string_view structure) const
{
    const uint32_t found = find(kFunction, function);
    const uint32_t prototype = found ? target(found) : 0;
    if (prototype == 0 || prototype >= types_.size() || kind(prototype) != kPrototype)
        return 0;
    for (uint32_t i = 0; i < count(prototype); i++) {
        const uint32_t type = resolve(word(types_[prototype] + 12 + 8 * size_t{i} + 4));
        if (type == 0 || kind(type) != kPointer)
            continue;
        const uint32_t pointed = resolve(target(type));
        if (pointed != 0 && kind(pointed) == kStruct && name(pointed) == structure)
            return static_cast<int>(i) + 1;
    }
    return 0;
}

}  // namespace kprobe
