#include "file_facts.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace output
{

namespace
{

constexpr FileType kFile = {"file", 1}, kDirectory = {"dir", 2}, kUnknown = {nullptr, 0};

struct Kind {
    mode_t format;
    FileType type;
};

constexpr Kind kKinds[] = {
    {S_IFREG, kFile},         {S_IFDIR, kDirectory},     {S_IFLNK, {"symlink", 7}}, {S_IFCHR, {"device", 3}},
    {S_IFBLK, {"device", 4}}, {S_IFSOCK, {"socket", 5}}, {S_IFIFO, {"pipe", 6}},
};

}  // namespace

FileType type_of(const agent::Event &event)
{
    if (event.file) {
        for (const Kind &kind : kKinds)
            if ((event.file->mode & S_IFMT) == kind.format)
                return kind.type;
        return kUnknown;
    }
    if (event.dir == agent::Known::kUnknown)
        return kUnknown;
    return event.dir == agent::Known::kYes ? kDirectory : kFile;
}

std::string device_text(const agent::Identity &file)
{
    return std::to_string(major(file.dev)) + ":" + std::to_string(minor(file.dev));
}

}  // namespace output
