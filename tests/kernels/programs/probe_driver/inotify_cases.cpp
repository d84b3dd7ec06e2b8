// Records of inotify deliveries, held against what an inotify descriptor says.
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstring>

#include "driver.h"
#include "linux/probe/inotify_probe.h"

namespace
{

struct InotifyEvent {
    uint64_t inode;
    int32_t wd;
    uint32_t mask;
    std::string name;
};
std::vector<InotifyEvent> reported;

void on_inotify(uint32_t, void *record, uint32_t size)
{
    InotifyEvent event;
    if (size != 144)
        result("inotify.size", false, std::to_string(size));
    memcpy(&event.inode, record, 8);
    memcpy(&event.wd, static_cast<char *>(record) + 8, 4);
    memcpy(&event.mask, static_cast<char *>(record) + 12, 4);
    event.name = text_of(static_cast<char *>(record) + 16, 128);
    reported.push_back(event);
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

constexpr uint32_t kKinds = 0xfff | IN_IGNORED; /* the bits that are compared */

std::string text(const InotifyEvent &event)
{
    char words[64];
    snprintf(words, sizeof(words), "%d %x %llu ", event.wd, event.mask & kKinds,
             static_cast<unsigned long long>(event.inode));
    return words + event.name;
}

// A directory and a file with all kinds of events wanted.
struct Watched {
    int reader, dir, file;
    uint64_t dir_inode, file_inode;

    Watched()
    {
        make_mount("/m_ino");
        mkdir("/m_ino/dir", 0755);
        touch("/m_ino/file");
        dir_inode = inode_of("/m_ino/dir");
        file_inode = inode_of("/m_ino/file");
        reader = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
        dir = inotify_add_watch(reader, "/m_ino/dir", IN_ALL_EVENTS);
        file = inotify_add_watch(reader, "/m_ino/file", IN_ALL_EVENTS);
    }
    ~Watched()
    {
        close(reader);
        umount2("/m_ino", MNT_DETACH);
    }
    Watched(const Watched &) = delete;
    Watched &operator=(const Watched &) = delete;

    uint64_t inode_of_watch(int wd) const { return wd == dir ? dir_inode : wd == file ? file_inode : 0; }

    // What waits in the descriptor, as the probe would report it.
    std::vector<InotifyEvent> read_all() const
    {
        std::vector<InotifyEvent> events;
        alignas(8) char buffer[65536];
        const ssize_t got = read(reader, buffer, sizeof(buffer));
        for (ssize_t i = 0; i < got;) {
            inotify_event record;
            memcpy(&record, buffer + i, sizeof(record));
            const std::string name = record.len ? buffer + i + sizeof(record) : "";
            i += static_cast<ssize_t>(sizeof(record) + record.len);
            events.push_back({inode_of_watch(record.wd), record.wd, record.mask, name.substr(0, 128)});
        }
        return events;
    }
};

// Every kind of event, with names of every length.
void change_everything()
{
    const std::string longest(127, 'L'), longer(200, 'M');
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
}

// The kernel merges equal events in its queue; the probe reports all of them.
bool is_repetition(size_t at, uint32_t wanted)
{
    const InotifyEvent &event = reported[at], &before = reported[at - 1];
    return event.wd == before.wd && event.mask == before.mask && event.name == before.name &&
           (event.mask & kKinds) != (wanted & kKinds);
}

void compare(const std::vector<InotifyEvent> &wanted)
{
    size_t at = 0, agree = 0, wrong = 0;
    for (const InotifyEvent &event : wanted) {
        while (at < reported.size() && agree > 0 && at > 0 && is_repetition(at, event.mask))
            at++;
        const bool good = at < reported.size() && text(reported[at]) == text(event);
        if (!good && wrong++ < 3 && at < reported.size())
            printf("#   probe %s, inotify %s\n", text(reported[at]).c_str(), text(event).c_str());
        agree += good;
        at++;
    }
    result(
        "inotify.same", wrong == 0 && agree > 20 && at == reported.size(),
        std::to_string(agree) + " agree, " + std::to_string(wrong) + " do not, of " + std::to_string(reported.size()));
}

}  // namespace

void case_inotify()
{
    const Watched watched;
    Source source("clt_inotify");
    const std::string filter =
        "common_pid!=" + std::to_string(getpid()) + "&&common_pid!=" + std::to_string(kernel()->pid) + "&&w!=0";
    result("inotify.register", add_inotify_probe(source.handle, filter) >= 0);
    kp.enable('1', "Ki", source.handle);
    reported.clear();
    touch("/m_ino/dir/own");  // by this process, which the filter leaves out
    char skipped[4096];
    while (read(watched.reader, skipped, sizeof(skipped)) > 0) {
    }
    in_child(change_everything);
    source.drain();
    compare(watched.read_all());
    // Half of the events are of watched objects themselves, and have no name that could be fetched.
    const uint64_t missed = source.losses().missed;
    result("inotify.missed", missed == 0, std::to_string(missed));
}
