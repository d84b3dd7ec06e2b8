/*
 * fs_fixture.h: the engine of file-system-wide events in a made-up world: directories that are numbers, a disk that is
 * a table, records that wait where the test puts them.
 */
#ifndef UNIT_FS_FIXTURE_H
#define UNIT_FS_FIXTURE_H

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "linux/fs/fs_ask.h"
#include "linux/fs/fs_engine.h"
#include "linux/fs/fs_record.h"
#include "orx_fmon.h"
#include "testlib/fs_records.h"

namespace fs_unit
{

using Lines = std::vector<std::string>;
using testlib::handle;

constexpr uint64_t kDir = FS_MASK_ONDIR;

/* Where a directory lies on the disk now. Parent 0: it is the root of its file system. */
struct Place {
    int parent;
    std::string name;
};

struct World {
    std::map<int, Place> disk;
    std::map<std::pair<int, std::string>, int> files; /* entries that are there: which file; -1: a whiteout */
    std::map<std::string, int> paths;                 /* what open_path() finds */
    std::vector<std::string> behind;                  /* what read_more() gives, one after the other */
    unsigned mounts = 1;
    unsigned blind_mounts = 0; /* the first ones: they show nothing */
    bool read_fails = false;
    bool lists = true;
    bool ignores = true, heeds = true; /* what the kernel is asked is done */

    Lines told;
    std::vector<int> ignored; /* directories, in the order in which the kernel was asked */
    std::vector<uint64_t> displaced;
    std::array<uint64_t, FS_LOSSES> lost{};
    int opened = 0; /* descriptors, less those that were closed */
    int given = 0;  /* chunks, less those that were taken back */
};

inline World &world_of(void *arg) { return *static_cast<World *>(arg); }

inline int number_of(const struct fs_key *key)
{
    int64_t number = 0;
    memcpy(&number, key->bytes, key->len < sizeof(number) ? key->len : sizeof(number));
    return static_cast<int>(number);
}

/* Borrows the handle's bytes. */
inline struct fs_key key_of(const testlib::Handle &handle)
{
    return {{handle.fs, 0}, handle.type, static_cast<uint32_t>(handle.bytes.size()), handle.bytes.data()};
}

/* ---- struct fs_asks ---- */

constexpr int kMountFd = 700, kDirectoryFd = 10000;

inline enum fs_asked ask_place(void *arg, int mount_fd, const struct fs_key *key, struct fs_place *out)
{
    World &world = world_of(arg);
    const auto at = world.disk.find(number_of(key));
    if (at == world.disk.end())
        return FS_ASKED_GONE;
    if (at->second.parent == 0 || mount_fd < kMountFd + static_cast<int>(world.blind_mounts))
        return FS_ASKED_TOP;
    testlib::Handle parent = handle(at->second.parent, key->fsid[0]);
    const struct fs_key parent_key = key_of(parent);
    fs_key_store(&out->parent, &parent_key);
    strcpy(out->name, at->second.name.c_str());
    out->name_len = static_cast<uint32_t>(at->second.name.size());
    out->deleted = false;
    return FS_ASKED_PLACE;
}

inline int ask_open(void *arg, int, const struct fs_key *directory)
{
    World &world = world_of(arg);
    if (!world.disk.count(number_of(directory)))
        return -1;
    world.opened++;
    return kDirectoryFd + number_of(directory);
}

inline bool ask_list(void *arg, int fd, void (*each)(void *to, const char *name, uint32_t len), void *to)
{
    for (const auto &[entry, number] : world_of(arg).files)
        if (entry.first == fd - kDirectoryFd)
            each(to, entry.second.c_str(), static_cast<uint32_t>(entry.second.size()));
    return world_of(arg).lists;
}

inline enum fs_entry_kind ask_entry(void *arg, int fd, const char *name, const struct fs_key *key)
{
    World &world = world_of(arg);
    const auto at = world.files.find({fd - kDirectoryFd, name});
    if (at == world.files.end())
        return FS_ENTRY_NONE;
    if (at->second < 0)
        return FS_ENTRY_WHITEOUT;
    return key && number_of(key) == at->second ? FS_ENTRY_THIS : FS_ENTRY_OTHER;
}

inline int ask_path(void *arg, const char *path, const struct fs_key *key)
{
    World &world = world_of(arg);
    const auto at = world.paths.find(path);
    if (at == world.paths.end() || at->second != number_of(key))
        return -1;
    world.opened++;
    return kMountFd;
}

inline void ask_close(void *arg, int) { world_of(arg).opened--; }

constexpr struct fs_asks kAsks = {ask_place, ask_open, ask_list, ask_entry, ask_path, ask_close};

/* ---- struct fs_world ---- */

inline int open_mount(void *arg, const int32_t *, unsigned n)
{
    return n < world_of(arg).mounts ? kMountFd + static_cast<int>(n) : -1;
}

inline bool read_more(void *arg, struct fs_chunk *out)
{
    World &world = world_of(arg);
    *out = {nullptr, 0, true};
    if (world.read_fails || world.behind.empty())
        return !world.read_fails;
    const std::string next = world.behind.front();
    world.behind.erase(world.behind.begin());
    char *bytes = new char[next.size()];
    memcpy(bytes, next.data(), next.size());
    *out = {bytes, next.size(), true};
    world.given++;
    return true;
}

inline void done(void *arg, const struct fs_chunk *chunk)
{
    world_of(arg).given--;
    delete[] chunk->bytes;
}

inline std::string word(uint32_t kind)
{
    const char *words[] = {"access", "modify", "attrib", "close_write", "close_nowrite", "open",
                           "from",   "to",     "create", "delete",      "delete_self",   "move_self"};
    return words[__builtin_ctz(kind)];
}

inline void deliver(void *arg, const struct fs_event *event)
{
    uint32_t left = event->kinds;
    EXPECT_EQ(strlen(event->path), event->path_len);
    while (const uint32_t kind = fs_event_next(event, &left))
        world_of(arg).told.push_back(word(kind) + " " + event->path);
}

inline void lost(void *arg, enum fs_loss kind, uint64_t count) { world_of(arg).lost[kind] += count; }
inline void displaced(void *arg, uint64_t id) { world_of(arg).displaced.push_back(id); }

inline bool ignore(void *arg, const struct fs_key *directory)
{
    World &world = world_of(arg);
    if (world.ignores)
        world.ignored.push_back(number_of(directory));
    return world.ignores;
}

inline bool heed(void *arg, const struct fs_key *directory)
{
    World &world = world_of(arg);
    return world.heeds && std::erase(world.ignored, number_of(directory)) > 0;
}

class FsFixture : public testing::Test
{
protected:
    FsFixture() { restart(1000); }

    ~FsFixture() override
    {
        fs_engine_free(engine);
        EXPECT_EQ(0, world.opened) << "descriptors";
        EXPECT_EQ(0, world.given) << "chunks";
    }

    void restart(uint32_t limit, bool ordered = true, uint32_t most_ignored = 0)
    {
        const struct fs_world callbacks = {&world,    open_mount, read_more, done,         deliver, lost,
                                           displaced, ignore,     heed,      most_ignored, &kAsks,  ordered};
        fs_engine_free(engine);
        engine = fs_engine_new(limit, kOwnPid, &callbacks);
    }

    int anchor(int directory, const std::string &path, uint64_t id = 1, bool recursive = true, int32_t fs = 1)
    {
        const testlib::Handle own = handle(directory, fs);
        const struct fs_anchor anchor = {key_of(own), path.c_str(), id, kMountFd + static_cast<int>(world.blind_mounts),
                                         recursive};
        world.paths[path] = directory;
        return fs_engine_add(engine, &anchor);
    }

    int join(int root, int32_t root_fs, int in, const std::string &name, uint64_t id)
    {
        const testlib::Handle own = handle(root, root_fs), above = handle(in, 1);
        const struct fs_joint joint = {key_of(own), key_of(above), name.c_str(), id};
        return fs_engine_join(engine, &joint);
    }

    bool take(const std::string &records, bool drained = true)
    {
        return fs_engine_take(engine, records.data(), records.size(), drained);
    }

    Lines told() { return std::exchange(world.told, {}); }

    struct fs_counts counts() const
    {
        struct fs_counts out;
        fs_engine_counts(engine, &out);
        return out;
    }

    static constexpr int32_t kOwnPid = 4242;
    World world;
    struct fs_engine *engine = nullptr;
};

/* What the kernel reports, by process 7 where none is named. */
inline std::string made(int in, const std::string &name, int what, uint64_t flags = 0, int pid = 7)
{
    return testlib::entry_record(FMON_CREATE | flags, pid, handle(in), name, handle(what));
}
inline std::string removed(int in, const std::string &name, int what, uint64_t flags = 0, int pid = 7)
{
    return testlib::entry_record(FMON_DELETE | flags, pid, handle(in), name, handle(what));
}
inline std::string moved(int from, const std::string &old_name, int to, const std::string &name, int what,
                         uint64_t flags = kDir, int pid = 7)
{
    return testlib::rename_record(FS_MASK_RENAME | flags, pid, handle(from), old_name, handle(to), name, handle(what));
}

}  // namespace fs_unit

#endif
