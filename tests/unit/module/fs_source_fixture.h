/*
 * fs_source_fixture.h: a monitor whose group of whole file systems is a pipe, for the tests of the source.
 */
#ifndef TESTS_FS_SOURCE_FIXTURE_H
#define TESTS_FS_SOURCE_FIXTURE_H

#include "linux/fs/fs_source.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "event.h"
#include "fmon_status.h"
#include "linux/fmon_linux.h"
#include "linux/fs/fs_served.h"
#include "linux/inotify.h"
#include "list.h"
#include "testlib/backend.h"
#include "testlib/fake_host.h"
#include "testlib/fault.h"
#include "testlib/tree.h"
#include "tree_flags.h"

using Events = std::vector<std::string>;

inline constexpr uint64_t kRename = 0x10000000;
inline constexpr uint64_t kBase = FAN_CREATE | FAN_DELETE | FAN_ONDIR | kRename;

/* The keys, while it lives. */
struct Keys {
    explicit Keys(uint32_t events = 1, uint32_t memory_kib = 65536, uint32_t ignored = 0)
    {
        fmon.fs_keys = {events, 1000, memory_kib, 0, 2, ignored};
    }
    ~Keys() { fmon.fs_keys = {}; }
};

/* Whether this process may open handles. */
inline bool can_open_handles()
{
    struct fs_look look;
    int error;
    if (fs_look_at("/", false, &look, &error))
        return false;
    const bool can = fs_look_opens(&look) == 0;
    close(look.fd);
    return can;
}

class FsSource : public ::testing::Test
{
protected:
    explicit FsSource(uint32_t ignored = 0) : keys_(1, 65536, ignored) { EXPECT_EQ(0, m.result); }
    ~FsSource() override { g_container_flag = 0; }

    uint64_t system(const std::string &path) { return m.fanotify.fs_mask_of(path, true); }
    uint64_t own(const std::string &path) { return m.fanotify.fs_mask_of(path, false); }
    static struct watch *watch_of(const std::string &path)
    {
        struct dentry *d = dcache_find(&fmon.dcache, path.c_str());
        return d && !list_empty_of(d) ? FMON_RECORD(owner_of(d)->watches.next, struct watch, link) : nullptr;
    }
    static bool list_empty_of(struct dentry *d) { return owner_of(d)->watches.next == &owner_of(d)->watches; }
    static bool served(const std::string &path)
    {
        const struct watch *w = watch_of(path);
        return w && (w->flags & FMON_LINUX_FS);
    }
    static struct fmon_fs_status status()
    {
        struct fmon_status now = {};
        fs_source_status(&now);
        return now.fs;
    }

    /* Records of the kernel's: what happened to `name` in a directory; a rename. */
    static std::string record(uint64_t mask, const std::string &directory, const std::string &name, int pid = 77)
    {
        constexpr char kEntry = 2; /* FAN_EVENT_INFO_TYPE_DFID_NAME */
        return whole(mask, pid, part(kEntry, directory, name));
    }
    static std::string rename(const std::string &from, const std::string &old_name, const std::string &to,
                              const std::string &new_name, int pid = 77)
    {
        constexpr char kOld = 10, kNew = 12;
        return whole(kRename, pid, part(kOld, from, old_name) + part(kNew, to, new_name));
    }
    static std::string part(char type, const std::string &directory, const std::string &name)
    {
        struct fs_look look;
        int error;
        EXPECT_EQ(0u, fs_look_at(directory.c_str(), false, &look, &error));
        close(look.fd);
        std::string info(4, '\0');
        info.append(reinterpret_cast<const char *>(look.key.key.fsid), 8);
        const uint32_t handle[2] = {look.key.key.len, static_cast<uint32_t>(look.key.key.type)};
        info.append(reinterpret_cast<const char *>(handle), 8);
        info.append(look.key.bytes, look.key.key.len);
        info += name;
        info.append(4 - info.size() % 4, '\0');
        info[0] = type;
        const auto length = static_cast<uint16_t>(info.size());
        memcpy(&info[2], &length, sizeof length);
        return info;
    }
    static std::string whole(uint64_t mask, int pid, const std::string &info)
    {
        struct fanotify_event_metadata head = {};
        head.event_len = static_cast<uint32_t>(sizeof head + info.size());
        head.vers = FANOTIFY_METADATA_VERSION;
        head.metadata_len = sizeof head;
        head.mask = mask;
        head.fd = FAN_NOFD;
        head.pid = pid;
        return std::string(reinterpret_cast<const char *>(&head), sizeof head) + info;
    }
    void feed(const std::string &bytes)
    {
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(m.fanotify.fs_feed, bytes.data(), bytes.size()));
    }
    /* One turn of the monitor thread, when events are there. */
    bool turn()
    {
        struct pollfd wait = {fmon.fs_fd, POLLIN, 0};
        if (poll(&wait, 1, 10000) != 1)
            return false;
        fmlnx.selectable[fmlnx.fs_position] = -1;
        fmon_linux_read_event2(&fmon, 0, event_process);
        return true;
    }

    Keys keys_;
    testlib::TempTree tree;
    testlib::LinuxMonitor m;
};

#define NEED_HANDLES() NEED(can_open_handles(), "opening handles needs CAP_DAC_READ_SEARCH")

#endif
