/*
 * mount_fixture.h: made mountinfo files for the tests of the mount table.
 */
#ifndef UNIT_MOUNT_FIXTURE_H
#define UNIT_MOUNT_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "linux/fmon_linux.h"
#include "linux/mount.h"
#include "list.h"
#include "testlib/fake_host.h"
#include "testlib/fault.h"
#include "testlib/tree.h"

/* One line of a made mountinfo; what a case does not name is ordinary. */
struct Line {
    std::string id = "23", root = "/", mount = "/mnt", options = "rw", optional = "shared:1 ", fs = "ext4", dev;
    std::string text() const
    {
        return id + " 1 8:1 " + root + " " + mount + " " + options + " " + optional + "- " + fs + " " + dev +
               " rw,errors=continue\n";
    }
};

/* Reads made mountinfo files; `dev` is a source that passes the device test. */
class MountTest : public ::testing::Test
{
protected:
    MountTest()
    {
        testlib::reset_host();
        fmlnx.mounts = {};
        list_init(list);
        dev = tree.dir("dev");
        testlib::redirect_path("/proc/self/mountinfo", tree.path("mountinfo"));
    }
    ~MountTest() override
    {
        mount_release(list);
        testlib::clear_redirects();
    }

    Line line(const std::string &id, const std::string &mount) const
    {
        Line made;
        made.id = id;
        made.mount = mount;
        made.dev = dev;
        return made;
    }
    void write(const std::string &text) { tree.file("mountinfo", text); }
    void read(const std::string &text)
    {
        write(text);
        ASSERT_EQ(0, get_mountinfo(list));
    }
    std::vector<struct mount_entry *> entries() const
    {
        std::vector<struct mount_entry *> all;
        FMON_LIST_EACH (node, list)
            all.push_back(FMON_RECORD(node, struct mount_entry, link));
        return all;
    }
    /* The mount points listed, joined by blanks. */
    std::string listed() const
    {
        std::string text;
        for (const struct mount_entry *entry : entries())
            text += (text.empty() ? "" : " ") + std::string(entry->mount);
        return text;
    }
    std::string listed(const std::string &text)
    {
        read(text);
        return listed();
    }
    std::vector<int32_t> ids()
    {
        int32_t *out = nullptr;
        const int count = get_global_mnt(&out);
        std::vector<int32_t> all(out, out + count);
        free(out);
        return all;
    }
    static void hang_watch(struct mount_entry *entry)
    {
        auto *link = static_cast<struct mount_link *>(calloc(1, sizeof(struct mount_link)));
        list_add_tail(&link->link, &entry->watches);
    }

    testlib::TempTree tree;
    std::string dev;
    list_head *const list = &fmlnx.mounts;
};

#endif
