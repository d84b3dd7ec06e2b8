#include "testlib/records.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

namespace testlib
{

namespace
{

template <typename T>
void append(std::string &out, T value)
{
    char bytes[sizeof value];
    memcpy(bytes, &value, sizeof value);
    out.append(bytes, sizeof value);
}

}  // namespace

std::string inotify_record_raw(int32_t wd, uint32_t mask, uint32_t len, const std::string &name_bytes)
{
    std::string out;
    append(out, wd);
    append(out, mask);
    append(out, uint32_t{0});
    append(out, len);
    return out + name_bytes;
}

std::string inotify_record(int32_t wd, uint32_t mask, const std::string &name, uint32_t cookie)
{
    std::string padded = name;
    if (!name.empty())
        padded.resize((name.size() / 16 + 1) * 16); /* at least one NUL */
    std::string out = inotify_record_raw(wd, mask, static_cast<uint32_t>(padded.size()), padded);
    memcpy(&out[8], &cookie, sizeof cookie);
    return out;
}

std::string fanotify_record_raw(uint32_t event_len, uint8_t vers, uint16_t metadata_len, uint64_t mask, int32_t fd,
                                int32_t pid, const std::string &extra)
{
    std::string out;
    append(out, event_len);
    append(out, vers);
    append(out, uint8_t{0});
    append(out, metadata_len);
    append(out, mask);
    append(out, fd);
    append(out, pid);
    return out + extra;
}

std::string fanotify_record(uint64_t mask, int32_t fd, int32_t pid)
{
    return fanotify_record_raw(24, 3, 24, mask, fd, pid);
}

std::string file_probe_record(uint32_t mount_id, const std::vector<std::string> &directories, const std::string &leaf)
{
    constexpr size_t kLevels = 11, kInline = 32, kLeaf = 64;
    std::string out;
    append(out, mount_id);
    for (size_t level = 0; level < kLevels; level++) {
        const size_t above = kLevels - level; /* 1: the parent */
        std::string name = above <= directories.size() ? directories[directories.size() - above] : "";
        name.resize(kInline);
        out += name;
    }
    std::string name = leaf;
    name.resize(kLeaf);
    return out + name;
}

std::string inotify_probe_record(uint64_t inode, int32_t wd, uint32_t mask, const std::string &name, size_t name_size)
{
    std::string out, field = name;
    append(out, inode);
    append(out, wd);
    append(out, mask);
    field.resize(name_size);
    return out + field;
}

Pipe::Pipe()
{
    if (pipe2(fds_, O_CLOEXEC) != 0)
        abort();
}

Pipe::~Pipe()
{
    for (int fd : fds_)
        if (fd >= 0)
            close(fd);
}

void Pipe::put(const std::string &bytes)
{
    ssize_t n = write(fds_[1], bytes.data(), bytes.size());
    EXPECT_EQ(n, static_cast<ssize_t>(bytes.size()));
}

void Pipe::close_write()
{
    close(fds_[1]);
    fds_[1] = -1;
}

int Pipe::take_read()
{
    int fd = fds_[0];
    fds_[0] = -1;
    return fd;
}

}  // namespace testlib
