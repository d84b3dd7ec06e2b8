/*
 * records.h: kernel records, well-formed and crafted, as bytes; and pipes to feed them through.
 */
#ifndef TESTLIB_RECORDS_H
#define TESTLIB_RECORDS_H

#include <cstdint>
#include <string>
#include <vector>

namespace testlib
{

/* An inotify record; the name is padded with NULs to a multiple of 16 as the kernel does (none for an empty name). */
std::string inotify_record(int32_t wd, uint32_t mask, const std::string &name = "", uint32_t cookie = 0);
/* One whose len field says what it likes and whose name bytes are taken as given. */
std::string inotify_record_raw(int32_t wd, uint32_t mask, uint32_t len, const std::string &name_bytes);

/* A fanotify record of version 3. */
std::string fanotify_record(uint64_t mask, int32_t fd, int32_t pid);
std::string fanotify_record_raw(uint32_t event_len, uint8_t vers, uint16_t metadata_len, uint64_t mask, int32_t fd,
                                int32_t pid, const std::string &extra = "");

/* What the file probes fetch, 420 bytes: the mount's id, the names from the mount's root ("/") down to the parent, at
 * most eleven, and the entry's own. Names longer than their field (32 and 64 bytes) fill it, as the kernel's do. */
std::string file_probe_record(uint32_t mount_id, const std::vector<std::string> &directories, const std::string &leaf);

/* What the inotify probe fetches; the name's field has 128 bytes, or 16 on old kernels. */
std::string inotify_probe_record(uint64_t inode, int32_t wd, uint32_t mask, const std::string &name = "",
                                 size_t name_size = 128);

class Pipe
{
public:
    Pipe();
    ~Pipe();
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;
    int read_fd() const { return fds_[0]; }
    int write_fd() const { return fds_[1]; }
    void put(const std::string &bytes); /* one write */
    void close_write();
    int take_read(); /* the caller owns the read end from now on */

private:
    int fds_[2];
};

}  // namespace testlib

#endif
