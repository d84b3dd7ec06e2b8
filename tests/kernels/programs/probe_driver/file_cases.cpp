// Paths, names and mounts of file records.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>

#include "driver.h"

void case_files()
{
    FileCase at("/m_files");
    std::string directory;
    for (int depth = 0; depth <= 10; depth++) {
        const std::string base = at.place + "/" + directory;
        const uint32_t pid = in_child([&] {
            touch(base + "a");
            if (link((base + "a").c_str(), (base + "b").c_str()) ||
                rename((base + "b").c_str(), (base + "c").c_str()) || unlink((base + "c").c_str()))
                _exit(1);
        });
        at.source.drain();
        const std::string in = at.id + directory;
        expect("files.depth" + std::to_string(depth),
               {"create " + in + "a", "close " + in + "a", "link " + in + "a", "from " + in + "b", "to " + in + "c",
                "delete " + in + "c"},
               pid);
        directory += "dir" + std::to_string(depth) + "/";
        mkdir((at.place + "/" + directory).c_str(), 0755);
    }
    const uint32_t pid = in_child([&] { touch(at.place + "/" + directory + "deep"); });
    at.source.drain();
    for (FileEvent &event : seen)
        event.path = event.path.substr(0, event.path.find("dir"));
    expect("files.depth11", {"create " + at.id + "(no root)", "close " + at.id + "(no root)"}, pid);
}

void case_names()
{
    FileCase at("/m_names");
    for (const size_t length : {1, 30, 31, 32, 39, 40, 63, 64, 255}) {
        const std::string name(length, 'n');
        const uint32_t pid = in_child([&] { touch(at.place + "/" + name); });
        at.source.drain();
        const std::string shown = at.id + name.substr(0, 64);
        expect("names.leaf" + std::to_string(length), {"create " + shown, "close " + shown}, pid);
    }
    // Below one directory of that length, and with nine more between.
    for (const size_t length : {31, 32, 33, 39, 40, 100, 255}) {
        std::string directory = at.place + "/" + std::string(length, 'd');
        mkdir(directory.c_str(), 0755);
        std::string shown = at.id + (length > 31 ? "(cut)" : std::string(length, 'd')) + "/";
        for (const int more : {0, 7, 8, 9}) {
            while (std::count(directory.begin(), directory.end(), '/') < more + 2) {
                directory += "/s";
                shown += "s/";
                mkdir(directory.c_str(), 0755);
            }
            const uint64_t before = at.source.losses().unreadable;
            const uint32_t pid = in_child([&] { touch(directory + "/f"); });
            at.source.drain();
            // Where no expression reaches the name, nothing may come at all, rather than something wrong.
            const uint64_t hidden = at.source.losses().unreadable;
            if (seen.empty() && hidden > before && more >= 8)
                result("names.dir" + std::to_string(length) + ".below" + std::to_string(more), true, "counted");
            else
                expect("names.dir" + std::to_string(length) + ".below" + std::to_string(more),
                       {"create " + shown + "f", "close " + shown + "f"}, pid);
            seen.clear();
        }
    }
}

static void filter_mounts(const FileCase &at, const std::vector<int> &ids)
{
    kp.filter("Kc", mounts_filter(ids).c_str(), at.source.handle);
}

static void cases_of_filters(FileCase &at)
{
    make_mount("/m_other");
    uint32_t pid = in_child([&] { touch("/m_other/unseen"); });
    at.source.drain();
    expect("mounts.other", {}, pid);

    filter_mounts(at, {mount_id_of(at.place), mount_id_of("/m_other")});
    pid = in_child([&] { touch("/m_other/seen"); });
    at.source.drain();
    expect("mounts.filter", {"create " + std::to_string(mount_id_of("/m_other")) + ":seen"}, pid);
}

// The same files by another mount, and in another process's mounts.
static void cases_of_views(FileCase &at)
{
    mkdir("/m_bind", 0755);
    mount(at.place.c_str(), "/m_bind", nullptr, MS_BIND, nullptr);
    uint32_t pid = in_child([&] { touch("/m_bind/x"); });
    at.source.drain();
    expect("mounts.bind", {"create " + at.id + "x", "close " + at.id + "x"}, pid);

    pid = in_child([&] {
        if (unshare(CLONE_NEWNS) < 0)
            _exit(1);
        touch(at.place + "/y");
    });
    at.source.drain();
    expect("mounts.namespace", {"create " + at.id + "y", "close " + at.id + "y"}, pid);
}

// A process whose mounts take an id that has become free, until `done` is closed.
static pid_t start_mounts_of_its_own(const int (&done)[2])
{
    const pid_t other = fork();
    if (other == 0) {
        close(done[1]);
        char byte;
        const bool end = unshare(CLONE_NEWNS) < 0 || read(done[0], &byte, 1) < 0;
        _exit(end);
    }
    usleep(200000);
    return other;
}

// Mounted anew: the monitor goes on calling the mount point by the old id.
static void case_mounted_anew(FileCase &at)
{
    const int old = mount_id_of("/m_other");
    umount2("/m_other", MNT_DETACH);
    int done[2];
    if (pipe(done) < 0)
        stop("pipe");
    const pid_t other = start_mounts_of_its_own(done);
    make_mount("/m_other");
    if (mount_id_of("/m_other") == old)
        result("mounts.new_id", false, "the old id again");
    filter_mounts(at, {mount_id_of(at.place), old});
    const uint32_t pid = in_child([&] { touch("/m_other/again"); });
    at.source.drain();
    expect("mounts.anew", {"create " + std::to_string(old) + ":again"}, pid);
    close(done[1]);
    waitpid(other, nullptr, 0);
}

void case_mounts()
{
    FileCase at("/m_mounts");
    cases_of_filters(at);
    cases_of_views(at);
    case_mounted_anew(at);
    for (const char *place : {"/m_bind", "/m_other"})
        umount2(place, MNT_DETACH);
    const std::vector<int> many(60, mount_id_of(at.place));
    result("mounts.long_filter", kp.filter("Kc", mounts_filter(many).c_str(), at.source.handle) >= 0 &&
                                     kp.filter("Kc", "mnt==", at.source.handle) < 0);
}
