/*
 * records.h: kernel records, well-formed and crafted, as bytes; and pipes to feed them through.
 */
#ifndef TESTLIB_RECORDS_H
#define TESTLIB_RECORDS_H

#include <cstdint>
#include <string>

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
