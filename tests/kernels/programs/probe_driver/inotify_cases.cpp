// Records of inotify deliveries, held against what an inotify descriptor says.
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstring>

#include "driver.h"
#include "linux/inotify_probe.h"

namespace
{

struct InotifyEvent {
    uint64_t inode;
    int32_t wd;
    uint32_t mask;
    std::string name;
};
std::vector<InotifyEvent> told;

void on_inotify(uint32_t, void *record, uint32_t size)
{
    InotifyEvent event;
    if (size != 144)
        result("inotify.size", false, std::to_string(size));
    memcpy(&event.inode, record, 8);
    memcpy(&event.wd, static_cast<char *>(record) + 8, 4);
    memcpy(&event.mask, static_cast<char *>(record) + 12, 4);
    event.name = text_of(static_cast<char *>(record) + 16, 128);
    told.push_back(event);
}

int add_inotify_probe(void *handle, const std::string &filter)
{
    int mode;
    const inotify_probe chosen = inotify_probe_choose(kernel(), &mode);
    char fetch[INOTIFY_FETCH_SIZE];
    inotify_probe_fetch(&chosen, mode, fetch);
    return add_probe(handle, "Ki", chosen.point, fetch, filter, on_inotify);
}

uint64_t inode_of(const char *path)
{
    struct stat st;
    return stat(path, &st) == 0 ? st.st_ino : 0;
}

}  // namespace

void case_inotify()
{
    make_mount("/m_ino");
    mkdir("/m_ino/dir", 0755);
    touch("/m_ino/file");
    const uint64_t dir_inode = inode_of("/m_ino/dir"), file_inode = inode_of("/m_ino/file");
    const int reader = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    const int dir = inotify_add_watch(reader, "/m_ino/dir", IN_ALL_EVENTS);
    const int file = inotify_add_watch(reader, "/m_ino/file", IN_ALL_EVENTS);
    Source source("clt_inotify");
    const std::string filter =
        "common_pid!=" + std::to_string(getpid()) + "&&common_pid!=" + std::to_string(kernel()->pid) + "&&w!=0";
    result("inotify.register", add_inotify_probe(source.handle, filter) >= 0);
    kp.enable('1', "Ki", source.handle);
    told.clear();
    const std::string longest(127, 'L'), longer(200, 'M');
    touch("/m_ino/dir/own");  // by this process, which the filter leaves out
    char skipped[4096];
    while (read(reader, skipped, sizeof(skipped)) > 0) {
    }
    in_child([&] {
        touch("/m_ino/dir/new");
        touch("/m_ino/dir/" + longest);
        touch("/m_ino/dir/" + longer);
        mkdir("/m_ino/dir/sub", 0755);
        rename("/m_ino/dir/new", "/m_ino/dir/moved");
        chmod("/m_ino/dir", 0700);
        unlink("/m_ino/dir/moved");
        chmod("/m_ino/file", 0600);
        unlink("/m_ino/file");
        for (const std::string &name : {longest, longer, std::string("own")})
            unlink(("/m_ino/dir/" + name).c_str());
        rmdir("/m_ino/dir/sub");
        rmdir("/m_ino/dir");
    });
    source.drain();
    size_t at = 0, agree = 0, wrong = 0;
    alignas(8) char buffer[65536];
    const ssize_t got = read(reader, buffer, sizeof(buffer));
    for (ssize_t i = 0; i < got;) {
        inotify_event record;
        memcpy(&record, buffer + i, sizeof(record));
        std::string name = record.len ? buffer + i + sizeof(record) : "";
        i += static_cast<ssize_t>(sizeof(record) + record.len);
        constexpr uint32_t kKinds = 0xfff | IN_IGNORED;
        const uint64_t inode = record.wd == dir ? dir_inode : record.wd == file ? file_inode : 0;
        // The kernel merges equal events in its queue; the probe tells all of them.
        while (at < told.size() && agree > 0 && at > 0 && told[at].wd == told[at - 1].wd &&
               told[at].mask == told[at - 1].mask && told[at].name == told[at - 1].name &&
               (record.mask & kKinds) != (told[at].mask & kKinds))
            at++;
        const bool good = at < told.size() && told[at].wd == record.wd && told[at].inode == inode &&
                          (told[at].mask & kKinds) == (record.mask & kKinds) && told[at].name == name.substr(0, 128);
        if (!good && wrong++ < 3 && at < told.size())
            printf("#   told %d %x %llu %s, inotify %d %x %llu %s\n", told[at].wd, told[at].mask,
                   static_cast<unsigned long long>(told[at].inode), told[at].name.c_str(), record.wd, record.mask,
                   static_cast<unsigned long long>(inode), name.c_str());
        agree += good;
        at++;
    }
    result("inotify.same", wrong == 0 && agree > 20 && at == told.size(),
           std::to_string(agree) + " agree, " + std::to_string(wrong) + " do not, told " + std::to_string(told.size()));
    close(reader);
    umount2("/m_ino", MNT_DETACH);
}
