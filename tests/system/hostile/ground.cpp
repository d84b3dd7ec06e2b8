#include "ground.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace hostile
{

Shared *make_shared_memory()
{
    void *memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        abort();
    return new (memory) Shared{};
}

/* Knuth's generator: the same rounds for the same seed. */
uint32_t Ground::random(uint32_t below)
{
    random_ = random_ * 6364136223846793005U + 1442695040888963407U;
    return static_cast<uint32_t>(random_ >> 33) % below;
}

std::string Ground::fence_file(uint64_t number) const
{
    return at("tree/fence", "fence-" + std::to_string(index_) + "-" + std::to_string(number));
}

uint64_t Ground::raise_fence()
{
    need(touch(fence_file(++fences_)), "making a fence");
    return fences_;
}

bool Ground::fence_told(uint64_t number) const
{
    for (const auto &told : post().fence)
        if (told.load() < number)
            return false;
    return true;
}

void Ground::lower_fence(uint64_t number) { unlink(fence_file(number).c_str()); }

bool Ground::fence(int ms)
{
    const int stage_before = stage();
    const uint64_t number = raise_fence();
    const int64_t deadline = systest::now_ms() + ms;
    while (!fence_told(number) && systest::now_ms() < deadline && stage() == stage_before)
        systest::pause_ms(1);
    lower_fence(number);
    return fence_told(number);
}

void Ground::need(bool done, const std::string &what)
{
    if (done)
        return;
    const int error = errno;
    if (post().failures.fetch_add(1) == 0)
        snprintf(post().failure, sizeof post().failure, "%s: %s", what.c_str(), strerror(error));
}

bool touch(const std::string &path, mode_t mode)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK, mode);
    if (fd < 0)
        return false;
    const bool written = write(fd, "x", 1) == 1;
    close(fd);
    return written;
}

bool read_byte(const std::string &path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return false;
    char byte;
    const bool got = read(fd, &byte, 1) >= 0;
    close(fd);
    return got;
}

bool make(const std::string &dir) { return mkdir(dir.c_str(), 0755) == 0; }
bool rename_to(const std::string &from, const std::string &to) { return rename(from.c_str(), to.c_str()) == 0; }

bool swap(const std::string &one, const std::string &other)
{
    return renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) == 0;
}

namespace
{

void remove_at(int parent, const char *name);

void remove_entries(int dir)
{
    DIR *stream = fdopendir(dir);
    if (!stream)
        return;
    while (const dirent *entry = readdir(stream))
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
            remove_at(dirfd(stream), entry->d_name);
    closedir(stream);
}

void remove_at(int parent, const char *name)
{
    if (unlinkat(parent, name, 0) == 0 || errno == ENOENT)
        return;
    const int dir = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (dir >= 0)
        remove_entries(dir);
    unlinkat(parent, name, AT_REMOVEDIR);
}

}  // namespace

void remove_tree(const std::string &path) { remove_at(AT_FDCWD, path.c_str()); }

}  // namespace hostile
