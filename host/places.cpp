#include "places.h"

#include <dlfcn.h>

#include <climits>
#include <cstdlib>
#include <string_view>

namespace host
{

namespace
{

/* A program and a library that lie so, below whatever root, are an installation of the system's package manager. */
constexpr std::string_view kPrograms = "/usr/bin";
constexpr std::string_view kLibraries = "/usr/lib/fmon";

struct Place {
    std::string_view asked, place;
};

/* packaging/deb puts the files there. */
constexpr Place kPlaces[] = {
    {"@/../config", "/etc/fmon"},
    {"@/../lib", kLibraries},
    {"@/../var/log/agent/fmon", "/var/log/fmon"},
};

std::string find_library_directory()
{
    Dl_info found;
    char real[PATH_MAX];
    if (!dladdr(reinterpret_cast<const void *>(&find_library_directory), &found) || !realpath(found.dli_fname, real))
        return {};
    const std::string path = real;
    return path.substr(0, path.rfind('/'));
}

}  // namespace

const std::string &library_directory()
{
    static const std::string *const directory = new std::string(find_library_directory());
    return *directory;
}

std::optional<std::string> system_place(const std::string &path, const std::string &program, const std::string &library)
{
    if (!program.ends_with(kPrograms))
        return std::nullopt;
    const std::string root = program.substr(0, program.size() - kPrograms.size());
    if (library != root + std::string(kLibraries))
        return std::nullopt;
    for (const Place &place : kPlaces)
        if (path == place.asked || path.starts_with(std::string(place.asked) + "/"))
            return root + std::string(place.place) + path.substr(place.asked.size());
    return std::nullopt;
}

}  // namespace host
