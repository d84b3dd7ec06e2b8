#include "testlib/kernel_double/kernel_memory.h"

#include <cstdlib>
#include <cstring>
#include <sstream>

namespace testlib
{

namespace
{

constexpr size_t kMemory = 1 << 20, kMaxExpression = 63, kMaxArguments = 128;

bool place_is_good(const std::string &place)
{
    long depth = 0;
    for (const char c : place)
        if ((depth += (c == '(') - (c == ')')) < 0)
            return false;
    return depth == 0 && (place[0] == '%' || place[0] == '\\' || (place.find('(') != std::string::npos));
}

bool take_type(std::string type, size_t word, Fetch *out)
{
    if (type.empty())
        type = word == 8 ? "u64" : "u32";
    const size_t bracket = type.find('[');
    out->count = bracket == std::string::npos ? 0 : static_cast<uint32_t>(atoi(type.c_str() + bracket + 1));
    const std::string base = type.substr(0, bracket), bits = base.substr(1);
    if (!strchr("usx", base[0]) || (bits != "8" && bits != "16" && bits != "32" && bits != "64") || out->count > 64)
        return false;
    out->size = static_cast<uint32_t>(atoi(bits.c_str())) / 8;
    out->type = "u" + bits;
    return true;
}

/* The address that a place in brackets stands for. False: memory on the way cannot be read. */
bool address_of(const KernelMemory &memory, const Registers &registers, const std::string &place, uint64_t *out);

bool value_of(const KernelMemory &memory, const Registers &registers, const std::string &place, size_t size,
              unsigned char *out)
{
    uint64_t value = 0;
    if (place[0] == '\\')
        value = strtoull(place.c_str() + 1, nullptr, 0);
    else if (place[0] == '%') {
        if (!registers.get(place, &value))
            return false;
    } else {
        uint64_t address;
        return address_of(memory, registers, place, &address) && memory.read(address, out, size);
    }
    memcpy(out, &value, std::min(size, sizeof(value)));
    return true;
}

bool address_of(const KernelMemory &memory, const Registers &registers, const std::string &place, uint64_t *out)
{
    const size_t open = place.find('(');
    const std::string inner = place.substr(open + 1, place.size() - open - 2);
    uint64_t base = 0;
    unsigned char bytes[8] = {};
    if (!value_of(memory, registers, inner, memory.word(), bytes))
        return false;
    memcpy(&base, bytes, sizeof(base));
    *out = base + static_cast<uint64_t>(strtoll(place.c_str(), nullptr, 10));
    return true;
}

}  // namespace

KernelMemory::KernelMemory(bool is_64)
    : word_(is_64 ? 8 : 4), base_(is_64 ? 0xffff888000000000 : 0xc1000000), bytes_(64)
{
    bytes_.reserve(kMemory);
}

uint64_t KernelMemory::allocate(size_t size)
{
    const size_t at = (bytes_.size() + 15) / 16 * 16;
    bytes_.resize(at + size);
    return base_ + at;
}

void KernelMemory::write(uint64_t address, const void *bytes, size_t size)
{
    if (address < base_ || address - base_ + size > bytes_.size())
        abort();
    memcpy(bytes_.data() + (address - base_), bytes, size);
}

void KernelMemory::put(uint64_t address, uint64_t value, size_t size) { write(address, &value, size); }

uint64_t KernelMemory::put_text(const std::string &text)
{
    const uint64_t address = allocate(text.size() + 256); /* a fetch takes more than the text */
    write(address, text.c_str(), text.size() + 1);
    return address;
}

bool KernelMemory::read(uint64_t address, void *out, size_t size) const
{
    if (address < base_ || address - base_ + size > bytes_.size())
        return false;
    memcpy(out, bytes_.data() + (address - base_), size);
    return true;
}

Registers::Registers(KernelMemory *memory, const std::vector<uint64_t> &arguments)
{
    static constexpr const char *k64[] = {"%di", "%si", "%dx", "%cx", "%r8", "%r9"}, *k32[] = {"%ax", "%dx", "%cx"};
    const bool is_64 = memory->word() == 8;
    const size_t held = is_64 ? 6 : 3;
    const uint64_t stack = memory->allocate(64);
    values_["%sp"] = stack;
    for (size_t i = 0; i < arguments.size(); i++) {
        if (i < held)
            values_[is_64 ? k64[i] : k32[i]] = arguments[i];
        else
            memory->put_word(stack + memory->word() * (i - held + 1), arguments[i]);
    }
}

bool Registers::get(const std::string &name, uint64_t *out) const
{
    const auto found = values_.find(name);
    *out = found == values_.end() ? 0 : found->second;
    return found != values_.end();
}

bool parse_fetches(const std::string &text, size_t word, uint32_t offset, std::vector<Fetch> *out, std::string *why)
{
    std::istringstream words(text);
    for (std::string arg; words >> arg;) {
        const size_t equals = arg.find('=');
        Fetch fetch;
        fetch.name = arg.substr(0, equals);
        std::string place = equals == std::string::npos ? "" : arg.substr(equals + 1), type;
        *why = "Argument expression is too long";
        if (place.size() > kMaxExpression)
            return false;
        if (const size_t colon = place.rfind(':'); colon != std::string::npos) {
            type = place.substr(colon + 1);
            place.resize(colon);
        }
        *why = "Invalid fetch argument";
        if (place.empty() || !place_is_good(place) || out->size() == kMaxArguments || !take_type(type, word, &fetch))
            return false;
        fetch.place = place;
        fetch.offset = offset;
        offset += fetch.bytes();
        out->push_back(fetch);
    }
    return true;
}

bool evaluate(const KernelMemory &memory, const Registers &registers, const Fetch &fetch, unsigned char *raw)
{
    std::vector<unsigned char> bytes(std::max<size_t>(fetch.bytes(), 8));
    if (!value_of(memory, registers, fetch.place, fetch.bytes(), bytes.data()))
        return false;
    memcpy(raw + fetch.offset, bytes.data(), fetch.bytes());
    return true;
}

}  // namespace testlib
