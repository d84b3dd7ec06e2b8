/* Records of the file probes, well-formed and not: the path that is made of them, or the line that says why there is
 * none. Every record lies at the very end of a page behind which nothing may be touched. */
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <random>

#include "core_fixture.h"
#include "linux/mount.h"
#include "linux/probe/clt_file.h"

using namespace testlib;

namespace
{

constexpr size_t kRecord = 420, kAncestors = 11;

/* A record with a page that cannot be touched on either side, at an odd address. */
class GuardedRecord
{
public:
    GuardedRecord()
    {
        page_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        map_ = static_cast<char *>(mmap(nullptr, 3 * page_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(map_ + page_, page_, PROT_READ | PROT_WRITE);
    }
    ~GuardedRecord() { munmap(map_, 3 * page_); }
    GuardedRecord(const GuardedRecord &) = delete;
    GuardedRecord &operator=(const GuardedRecord &) = delete;
    /* `size` bytes that end with the page. */
    char *end(size_t size) { return map_ + 2 * page_ - size; }

private:
    size_t page_;
    char *map_;
};

class KpFileRecord : public CoreTest
{
protected:
    KpFileRecord()
    {
        list_init(&mounts_);
        set_mounts({{23, "/"}, {25, "/data"}, {26, "/srv/x/"}});
        id_ = instance();
        fmon.instances[id_].global_mask = 0x13ca;
        fmon.global_instance_mask = 1u << id_;
        fmon.global_event_mask = 0x13ca;
    }
    ~KpFileRecord() override
    {
        mount_release(&mounts_);
        clear_redirects();
    }
    void set_mounts(const std::vector<std::pair<int, std::string>> &mounts)
    {
        std::string text;
        for (const auto &[id, path] : mounts)
            text += std::to_string(id) + " 1 8:1 / " + path + " rw - ext4 " + tree_.root() + " rw\n";
        redirect_path("/proc/self/mountinfo", tree_.file("mountinfo", text));
        get_mountinfo(&mounts_);
    }
    /* Mount 30, with a directory longer than the table itself takes from the kernel. */
    std::string mount_of_size(size_t size)
    {
        set_mounts({{30, "/m"}});
        struct mount_entry *entry = FMON_RECORD(mounts_.next, struct mount_entry, link);
        free(entry->mount);
        entry->mount = static_cast<char *>(malloc(size + 1));
        memset(entry->mount, 'm', size);
        entry->mount[0] = '/';
        entry->mount[size] = '\0';
        return entry->mount;
    }
    /* Directories from the mount's root (without its "/") to the parent; the rest of the fields stay empty. */
    static std::string record(uint32_t mount, const std::vector<std::string> &dirs, const std::string &leaf)
    {
        std::string out(kRecord, '\0');
        memcpy(&out[0], &mount, 4);
        const size_t root = kAncestors - 1 - dirs.size();
        if (dirs.size() < kAncestors)
            put_name(out, root, "/");
        for (size_t i = 0; i < dirs.size(); i++)
            put_name(out, kAncestors - dirs.size() + i, dirs[i]);
        out.replace(356, std::min<size_t>(leaf.size(), 64), leaf, 0, 64);
        return out;
    }
    static void put_name(std::string &record, size_t k, const std::string &name)
    {
        record.replace(4 + 32 * k, std::min<size_t>(name.size(), 32), name, 0, 32);
    }
    /* What the record becomes: "path" or "". */
    std::string path_of(const std::string &bytes, kp_record_cb callback = read_kp_crt_event, uint32_t pid = 77)
    {
        log_clear();
        char *at = memory_.end(bytes.size());
        memcpy(at, bytes.data(), bytes.size());
        callback(pid, at, static_cast<uint32_t>(bytes.size()));
        struct event *ev = fmon_read_event(id_);
        if (!ev)
            return "";
        const std::string path = ev->path;
        mask_ = ev->mask;
        pid_ = ev->pid;
        fmon_free_event(ev);
        EXPECT_EQ(nullptr, fmon_peek_event(id_));
        return path;
    }
    std::string path_of(uint32_t mount, const std::vector<std::string> &dirs, const std::string &leaf)
    {
        return path_of(record(mount, dirs, leaf));
    }

    TempTree tree_;
    list_head mounts_;
    GuardedRecord memory_;
    int id_;
    uint32_t mask_ = 0, pid_ = 0;
};

TEST_F(KpFileRecord, PathOfTheMountsDirectoryAndTheNames)
{
    EXPECT_EQ("/var/log/app.log", path_of(23, {"var", "log"}, "app.log"));
    EXPECT_EQ("/data/var/log/app.log", path_of(25, {"var", "log"}, "app.log"));
    EXPECT_EQ("/data/app.log", path_of(25, {}, "app.log"));
    EXPECT_EQ("/app.log", path_of(23, {}, "app.log"));
    EXPECT_EQ("/srv/x/a/b", path_of(26, {"a"}, "b")) << "a mount's directory that ends in a slash gets no other";
}

TEST_F(KpFileRecord, EachProbeHasItsKind)
{
    const std::pair<kp_record_cb, uint32_t> rows[] = {
        {read_kp_crt_event, 0x100},     {read_kp_del_event, 0x200},   {read_kp_writeclose_event, 0x8},
        {read_kp_movefrom_event, 0x40}, {read_kp_moveto_event, 0x80}, {read_kp_link_event, 0x1000},
    };
    for (const auto &[callback, kind] : rows) {
        EXPECT_EQ("/d/f", path_of(record(23, {"d"}, "f"), callback, 4000000000u));
        EXPECT_EQ(kind, mask_);
        EXPECT_EQ(4000000000u, pid_) << "as the library gave it";
    }
}

TEST_F(KpFileRecord, LogsWhatItDoes)
{
    path_of(25, {"var"}, "f");
    EXPECT_EQ((std::vector<std::string>{"filename:f, mnt_id:25\n", "file dirname = var", "file dirname = /",
                                        "root_dirname:/data", "transform path:dir:10,path:var"}),
              [] {
                  std::vector<std::string> out;
                  for (const LogLine &line : log_lines())
                      if (line.file == "linux/clt_file.c" && line.level == 4)
                          out.push_back(line.text);
                  return out;
              }());
}

/* ---- mounts ---- */

TEST_F(KpFileRecord, UnknownMountIsRootedAtTheTop)
{
    for (uint32_t mount : {0u, 1u, 24u, 0x80000000u, 0xffffffffu}) {
        EXPECT_EQ("/a/b", path_of(mount, {"a"}, "b")) << mount;
        EXPECT_EQ(1, log_count(2, "we don't find the mount dir!"));
        EXPECT_EQ(1, log_count(4, "root_dirname:(null)"));
    }
    EXPECT_TRUE(logged(4, "filename:b, mnt_id:-1\n"));
}

/* ---- depth ---- */

TEST_F(KpFileRecord, TenDirectoriesBelowTheMount)
{
    std::vector<std::string> dirs;
    std::string path = "/data";
    for (int n = 0; n <= 10; n++) {
        EXPECT_EQ(path + "/leaf", path_of(25, dirs, "leaf")) << n;
        dirs.push_back("d" + std::to_string(n));
        path += "/" + dirs.back();
    }
    /* Eleven names leave no place for the root, and further ones push it out. */
    for (int n = 11; n <= 12; n++) {
        std::vector<std::string> last(dirs.end() - 11, dirs.end());
        EXPECT_EQ("", path_of(25, last, "leaf")) << n;
        EXPECT_EQ(1, log_count(2, "can't find root dir"));
        dirs.push_back("d" + std::to_string(n));
    }
}

TEST_F(KpFileRecord, TheRootIsTheFirstOneUpward)
{
    std::string bytes = record(23, {"a", "b"}, "f");
    put_name(bytes, 0, "/other");
    EXPECT_EQ("/a/b/f", path_of(bytes));
    put_name(bytes, 9, "/looks"); /* by its first character only */
    EXPECT_EQ("/b/f", path_of(bytes));
}

/* ---- names at their limits ---- */

TEST_F(KpFileRecord, DirectoryNamesAtTheirLimit)
{
    for (size_t size : {29u, 30u, 31u}) {
        const std::string name(size, 'n');
        EXPECT_EQ("/" + name + "/f", path_of(23, {name}, "f")) << size;
    }
    for (size_t size : {32u, 33u, 64u}) {
        EXPECT_EQ("", path_of(23, {std::string(size, 'n')}, "f")) << size;
        EXPECT_EQ(1, log_count(2, "dir name trunc"));
    }
    EXPECT_EQ("", path_of(23, {std::string(40, 'n'), "short", "er"}, "f")) << "on the way to the root";
    EXPECT_EQ(1, log_count(4, "file dirname = short"));
}

/* A NUL within a name whose field is full ends it: that name was not cut off. */
TEST_F(KpFileRecord, GarbageBehindANameIsNoTruncation)
{
    std::string bytes = record(23, {"a"}, "f");
    bytes[4 + 32 * 10 + 31] = 'x';
    bytes[419] = 'y';
    EXPECT_EQ("/a/f", path_of(bytes));
}

TEST_F(KpFileRecord, ANameBeyondTheRootIsNotLookedAt)
{
    std::string bytes = record(23, {"a"}, "f");
    put_name(bytes, 3, std::string(32, 'x'));
    EXPECT_EQ("/a/f", path_of(bytes));
}

TEST_F(KpFileRecord, LeafNamesAtTheirLimit)
{
    for (size_t size : {1u, 62u, 63u})
        EXPECT_EQ("/" + std::string(size, 'n'), path_of(23, {}, std::string(size, 'n'))) << size;
    /* Marked as a pattern: 62 characters and a star. */
    for (size_t size : {64u, 65u, 255u})
        EXPECT_EQ("/" + std::string(62, 'n') + "*", path_of(23, {}, std::string(size, 'n'))) << size;
    EXPECT_TRUE(logged(4, "filename:" + std::string(64, 'n') + ", mnt_id:23\n"));
    EXPECT_EQ("/", path_of(23, {}, "")) << "nothing but the directory";
}

/* ---- the path's limit ---- */

/* Ten directories of 31 bytes are 320 bytes of path; the mount's directory makes up the rest. */
TEST_F(KpFileRecord, PathsAtTheirLimit)
{
    const std::vector<std::string> dirs(10, std::string(31, 'd'));
    std::string below;
    for (const std::string &dir : dirs)
        below += dir + "/";
    ASSERT_EQ(320u, below.size());
    /* MOUNT + "/" + 320 + 1 byte of leaf: 1022 at most. */
    const std::string widest = mount_of_size(700) + "/" + below + "f";
    ASSERT_EQ(1022u, widest.size());
    EXPECT_EQ(widest, path_of(30, dirs, "f"));
    EXPECT_EQ("", path_of(30, dirs, "ff"));
    EXPECT_EQ(1, log_count(2, "file path over 1024"));
    mount_of_size(701);
    EXPECT_EQ("", path_of(30, dirs, "f"));
    EXPECT_EQ(1022u, path_of(30, dirs, "").size());
    mount_of_size(702);
    EXPECT_EQ("", path_of(30, dirs, ""));
    EXPECT_EQ(1, log_count(2, "file path over 1024"));
    mount_of_size(703); /* the last slash takes the last byte */
    EXPECT_EQ("", path_of(30, dirs, ""));
    EXPECT_EQ(1, log_count(2, "file path over 1024"));
    mount_of_size(704); /* the last directory does not fit: another line */
    EXPECT_EQ("", path_of(30, dirs, "f"));
    EXPECT_EQ(1, log_count(2, "file path over 1024!"));
    EXPECT_EQ(0, log_count(2, "file path over 1024"));
}

TEST_F(KpFileRecord, WhatHasNoPathIsCounted)
{
    const uint64_t before = fmon.lost.path;
    EXPECT_EQ("", path_of(23, {std::string(32, 'n')}, "f"));
    EXPECT_EQ(before + 1, fmon.lost.path);
    EXPECT_STREQ("", fmon.lost_path) << "an ancestor's name is not known";
    const std::string mount = mount_of_size(700), below = "/" + std::string(31, 'd');
    EXPECT_EQ("", path_of(30, std::vector<std::string>(10, below.substr(1)), "ff"));
    EXPECT_EQ(before + 2, fmon.lost.path);
    EXPECT_EQ(mount + below, std::string(fmon.lost_path).substr(0, mount.size() + below.size()));
    mount_of_size(1023);
    EXPECT_EQ("", path_of(30, {"d"}, "f"));
    EXPECT_EQ(before + 3, fmon.lost.path);
    EXPECT_EQ(1023u, strlen(fmon.lost_path));
    EXPECT_EQ("/a/f", path_of(23, {"a"}, "f"));
    EXPECT_EQ(before + 3, fmon.lost.path);
}

TEST_F(KpFileRecord, MountDirectoryThatFillsThePath)
{
    mount_of_size(1021);
    EXPECT_EQ(1022u, path_of(30, {}, "").size());
    EXPECT_EQ("", path_of(30, {}, "f"));
    mount_of_size(1022); /* and the slash: no directory fits */
    EXPECT_EQ("", path_of(30, {"d"}, ""));
    EXPECT_EQ(1, log_count(2, "file path over 1024!"));
    for (size_t size : {1023u, 1024u, 2000u}) { /* no directory is even tried */
        mount_of_size(size);
        EXPECT_EQ("", path_of(30, {"d"}, "f")) << size;
        EXPECT_EQ(1, log_count(2, "file path over 1024")) << size;
        EXPECT_EQ(0, log_count_containing("transform path"));
    }
}

TEST_F(KpFileRecord, MountWithoutADirectoryAddsNothing)
{
    mount_of_size(1);
    FMON_RECORD(mounts_.next, struct mount_entry, link)->mount[0] = '\0';
    EXPECT_EQ("d/f", path_of(30, {"d"}, "f"));
}

/* ---- records that are none ---- */

TEST_F(KpFileRecord, ShortRecordsAreDroppedUntouched)
{
    const std::string whole = record(23, {"a"}, "f");
    for (kp_record_cb callback : {read_kp_crt_event, read_kp_del_event, read_kp_writeclose_event,
                                  read_kp_movefrom_event, read_kp_moveto_event, read_kp_link_event})
        for (size_t size : {0u, 1u, 4u, 36u, 419u}) {
            EXPECT_EQ("", path_of(whole.substr(0, size), callback)) << size;
            EXPECT_TRUE(log_lines().empty());
        }
}

TEST_F(KpFileRecord, LongRecordsAreTakenForWhatTheyBeginWith)
{
    const std::string more = record(23, {"a"}, "f") + "\x08\x00\x00\x00\xa4\x81";
    for (kp_record_cb callback : {read_kp_crt_event, read_kp_writeclose_event, read_kp_moveto_event}) {
        EXPECT_EQ("/a/f", path_of(more, callback));
        EXPECT_EQ(0, log_count_containing("wrong data"));
    }
    EXPECT_EQ("/a/f", path_of(more, read_kp_movefrom_event));
    EXPECT_EQ(1, log_count(2, "wrong data")) << "said, and taken all the same";
    path_of(record(23, {"a"}, "f"), read_kp_movefrom_event);
    EXPECT_EQ(0, log_count_containing("wrong data"));
}

TEST_F(KpFileRecord, GarbageStaysInsideTheRecord)
{
    EXPECT_EQ("", path_of(std::string(kRecord, '\xff')));
    EXPECT_TRUE(logged(2, "dir name trunc"));
    EXPECT_EQ("", path_of(std::string(kRecord, '\0')));
    EXPECT_TRUE(logged(2, "can't find root dir"));
    std::mt19937 random(7);
    for (int round = 0; round < 20000; round++) {
        std::string bytes(kRecord, '\0');
        for (char &c : bytes)
            c = random() % 4 == 0 ? '\0' : static_cast<char>(random());
        if (round % 2)
            put_name(bytes, random() % kAncestors, "/");
        const std::string path = path_of(bytes);
        EXPECT_LT(path.size(), 1024u);
    }
}

TEST_F(KpFileRecord, SlashesFillEveryName)
{
    const std::string path = path_of(std::string(kRecord, '/'));
    EXPECT_EQ("", path) << "a name of 32 bytes, whatever they are";
    std::string bytes(kRecord, '/');
    for (size_t k = 0; k < kAncestors; k++)
        bytes[4 + 32 * k + 31] = '\0', bytes[4 + 32 * k + 30] = '\0';
    EXPECT_EQ("/" + std::string(62, '/') + "*", path_of(bytes));
}

/* Nobody asked: the path is made, and the event is nobody's. */
TEST_F(KpFileRecord, EventsThatNobodyWantsGoNowhere)
{
    fmon.instances[id_].global_mask = FMON_DELETE;
    EXPECT_EQ("", path_of(23, {"a"}, "f"));
    EXPECT_EQ(0, fmon.event_count);
}

TEST_F(KpFileRecord, ResultOfTheTranslation)
{
    std::string good = record(23, {"a"}, "f"), bad = record(23, std::vector<std::string>(11, "d"), "f");
    EXPECT_EQ(0, transform_to_fmon_event(good.data(), FMON_CREATE, 1));
    EXPECT_EQ(-1, transform_to_fmon_event(bad.data(), FMON_CREATE, 1));
}

}  // namespace
