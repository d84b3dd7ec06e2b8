/*
 * fs_records.h: records of a fanotify group that reports directories by handle, as bytes, well-formed and crafted.
 */
#ifndef TESTLIB_FS_RECORDS_H
#define TESTLIB_FS_RECORDS_H

#include <cstdint>
#include <string>
#include <vector>

namespace testlib
{

/* A directory or file of file system `fs`, by a handle of its own. */
struct Handle {
    int32_t fs;
    std::string bytes;
    int32_t type = 1;
};

Handle handle(int number, int32_t fs = 1); /* of 8 bytes, made of the number */

/* The kernel's types of information. */
enum : uint8_t { kInfoObject = 1, kInfoEntry = 2, kInfoDirectory = 3, kInfoOld = 10, kInfoNew = 12 };

std::string info(uint8_t type, const Handle &handle); /* without a name */
std::string info(uint8_t type, const Handle &handle, const std::string &name);
std::string info_raw(uint8_t type, uint16_t len, const std::string &rest); /* `len` says what it likes */

/* A record with these parts. */
std::string named_record(uint64_t mask, int32_t pid, const std::vector<std::string> &parts);

/* What the kernel reports of an entry; `object` is what it is about. */
std::string entry_record(uint64_t mask, int32_t pid, const Handle &directory, const std::string &name,
                         const Handle &object);
std::string rename_record(uint64_t mask, int32_t pid, const Handle &from, const std::string &old_name, const Handle &to,
                          const std::string &new_name, const Handle &object);
std::string overflow_record();

}  // namespace testlib

#endif
