#include "container_world.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace testlib
{

std::string made_id(unsigned number)
{
    char text[65];
    snprintf(text, sizeof text, "%064x", number);
    return text;
}

std::string mount_line(int id, const std::string &place)
{
    return std::to_string(id) + " 1 0:52 / " + place +
           " rw,relatime master:23 - overlay overlay rw,lowerdir=/var/lib/docker/overlay2/l/A:/var/lib/docker/overlay2/"
           "l/B,upperdir=/var/lib/docker/overlay2/c/diff,workdir=/var/lib/docker/overlay2/c/work\n";
}

void ContainerWorld::write(const std::string &path, const std::string &text) const
{
    const fs::path whole = root_ + "/" + path;
    fs::create_directories(whole.parent_path());
    std::ofstream(whole, std::ios::trunc) << text;
}

uint32_t ContainerWorld::make_users_directory(const std::string &path) const
{
    const uint32_t user = geteuid() ? geteuid() : 1000;
    fs::create_directories(root_ + "/" + path);
    return chown((root_ + "/" + path).c_str(), user, static_cast<gid_t>(-1)) == 0 ? user : 0;
}

void ContainerWorld::remove(int pid) const { fs::remove_all(proc() + "/" + std::to_string(pid)); }

void ContainerWorld::add(const Process &process) const
{
    remove(process.pid);
    const std::string directory = "proc/" + std::to_string(process.pid) + "/";
    fs::create_directories(root_ + "/" + directory + "ns");
    if (process.space != 0)
        fs::create_symlink("mnt:[" + std::to_string(process.space) + "]", root_ + "/" + directory + "ns/mnt");
    const bool whole = process.cgroup.find('\n') != std::string::npos;
    write(directory + "cgroup", whole ? process.cgroup : "0::" + process.cgroup + "\n");
    const uint64_t start = process.start ? process.start : static_cast<uint64_t>(process.pid);
    write(directory + "stat", std::to_string(process.pid) + " (" + process.name +
                                  ") S 1 1 1 0 -1 4194560 1 2 3 4 5 6 7 8 20 0 1 0 " + std::to_string(start) +
                                  " 1 2 3\n");
    std::string mounts;
    for (const int id : process.mounts)
        mounts += mount_line(id);
    write(directory + "mountinfo", mounts);
}

}  // namespace testlib
