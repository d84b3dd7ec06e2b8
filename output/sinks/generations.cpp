#include "generations.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <string_view>

#include "common/fd.h"

namespace output
{

namespace
{

bool is_there(const std::string &path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

// One that is not there need not be moved.
int move(const std::string &from, const std::string &to)
{
    return rename(from.c_str(), to.c_str()) == 0 || errno == ENOENT ? 0 : errno;
}

// N of "NAME.N" and "NAME.N.zst"; 0: another file's name.
uint64_t number_of(std::string_view entry, std::string_view name)
{
    if (!entry.starts_with(name) || entry.size() <= name.size() + 1 || entry[name.size()] != '.')
        return 0;
    entry.remove_prefix(name.size() + 1);
    if (entry.ends_with(".zst"))
        entry.remove_suffix(4);
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(entry.data(), entry.data() + entry.size(), number);
    return error == std::errc() && end == entry.data() + entry.size() ? number : 0;
}

}  // namespace

bool Generations::exists(uint64_t n) const { return is_there(plain(n)) || is_there(compressed(n)); }

void Generations::remove(uint64_t n) const
{
    unlink(plain(n).c_str());
    unlink(compressed(n).c_str());
}

// The first gap ends what has to move.
int Generations::rotate() const
{
    if (keep_ == 0)
        return unlink(path_.c_str()) == 0 ? 0 : errno;
    uint64_t last = 1;
    while (last < keep_ && exists(last))
        last++;
    remove(last);
    for (uint64_t n = last; n > 1; n--)
        if (const int error = shift(n - 1))
            return error;
    return rename(path_.c_str(), plain(1).c_str()) == 0 ? 0 : errno;
}

int Generations::shift(uint64_t from) const
{
    const int error = move(plain(from), plain(from + 1));
    return error ? error : move(compressed(from), compressed(from + 1));
}

// A compressed one gets its name when it is whole, so that the other is of no use any more.
void Generations::tidy() const
{
    unlink(unfinished().c_str());
    const size_t slash = path_.rfind('/');
    const std::string name = path_.substr(slash + 1);
    const common::Dir list(opendir(path_.substr(0, slash + 1).c_str()));
    while (const struct dirent *entry = list ? readdir(list.get()) : nullptr) {
        const uint64_t n = number_of(entry->d_name, name);
        if (n > keep_)
            remove(n);
        else if (n > 0 && is_there(compressed(n)))
            unlink(plain(n).c_str());
    }
}

std::string Generations::uncompressed() const
{
    std::string oldest;
    for (uint64_t n = 1; n <= keep_ && exists(n); n++)
        if (is_there(plain(n)) && !is_there(compressed(n)))
            oldest = plain(n);
    return oldest;
}

// Others may have been rotated in before it meanwhile.
int Generations::put_compressed(ino_t inode) const
{
    for (uint64_t n = 1; n <= keep_ && exists(n); n++) {
        struct stat st;
        if (lstat(plain(n).c_str(), &st) != 0 || st.st_ino != inode)
            continue;
        if (rename(unfinished().c_str(), compressed(n).c_str()) != 0)
            return errno;
        unlink(plain(n).c_str());
        return 0;
    }
    return ENOENT;
}

}  // namespace output
