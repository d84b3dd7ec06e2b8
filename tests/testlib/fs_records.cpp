#include "testlib/fs_records.h"

namespace testlib
{

namespace
{

template <typename T>
std::string bytes_of(T value)
{
    return std::string(reinterpret_cast<const char *>(&value), sizeof(value));
}

std::string handle_bytes(const Handle &handle)
{
    return bytes_of(handle.fs) + bytes_of(int32_t{0}) + bytes_of(static_cast<uint32_t>(handle.bytes.size())) +
           bytes_of(handle.type) + handle.bytes;
}

std::string part(uint8_t type, std::string rest)
{
    rest.resize((rest.size() + 3) / 4 * 4); /* as the kernel pads */
    return info_raw(type, static_cast<uint16_t>(rest.size() + 4), rest);
}

}  // namespace

Handle handle(int number, int32_t fs) { return {fs, bytes_of(int64_t{number})}; }

std::string info(uint8_t type, const Handle &handle) { return part(type, handle_bytes(handle)); }

std::string info(uint8_t type, const Handle &handle, const std::string &name)
{
    return part(type, handle_bytes(handle) + name + '\0');
}

std::string info_raw(uint8_t type, uint16_t len, const std::string &rest)
{
    return bytes_of(type) + '\0' + bytes_of(len) + rest;
}

std::string named_record(uint64_t mask, int32_t pid, const std::vector<std::string> &parts)
{
    std::string all;
    for (const std::string &one : parts)
        all += one;
    return bytes_of(static_cast<uint32_t>(24 + all.size())) + bytes_of(uint16_t{3}) + bytes_of(uint16_t{24}) +
           bytes_of(mask) + bytes_of(int32_t{-1}) + bytes_of(pid) + all;
}

std::string entry_record(uint64_t mask, int32_t pid, const Handle &directory, const std::string &name,
                         const Handle &object)
{
    return named_record(mask, pid, {info(kInfoEntry, directory, name), info(kInfoObject, object)});
}

std::string rename_record(uint64_t mask, int32_t pid, const Handle &from, const std::string &old_name, const Handle &to,
                          const std::string &new_name, const Handle &object)
{
    return named_record(mask, pid,
                        {info(kInfoOld, from, old_name), info(kInfoNew, to, new_name), info(kInfoObject, object)});
}

std::string overflow_record() { return named_record(0x4000, 0, {}); }

}  // namespace testlib
