/*
 * clt_file_fixture.h: the collector of system-wide file events with a library on paper and a made-up mount table.
 */
#ifndef TESTS_CLT_FILE_FIXTURE_H
#define TESTS_CLT_FILE_FIXTURE_H

#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <cstring>
#include <string>
#include <vector>

#include "linux/fmon_linux.h"
#include "linux/mount.h"
#include "linux/probe/clt_file.h"
#include "list.h"
#include "paper_probes.h"
#include "testlib/fake_host.h"
#include "testlib/tree.h"

using Calls = std::vector<std::string>;

inline int fake_uname(void *out)
{
    struct utsname *name = static_cast<struct utsname *>(out);
    snprintf(name->machine, sizeof name->machine, "x86_64");
    snprintf(name->release, sizeof name->release, "4.9.0-1-amd64");
    return 0;
}

class CltFile : public ::testing::Test
{
protected:
    CltFile()
    {
        testlib::reset_host();
        testlib::replace_uname(fake_uname);
        testlib::set_ini({});
        list_init(&fmlnx.mounts);
        set_mounts({23, 25});
        clt_file_room = 4;
        kp_notify_destroy();
    }
    ~CltFile() override
    {
        kp_notify_destroy();
        mount_release(&fmlnx.mounts);
        testlib::clear_redirects();
        testlib::replace_uname(nullptr);
    }
    void set_mounts(const std::vector<int> &ids)
    {
        std::string text;
        for (int id : ids)
            text += std::to_string(id) + " 1 8:1 / /m" + std::to_string(id) + " rw - ext4 " + tree_.root() + " rw\n";
        testlib::redirect_path("/proc/self/mountinfo", tree_.file("mountinfo", text));
    }
    int start(uint8_t major, uint8_t minor, uint8_t patch, uint16_t arch = KP_ARCH_X86_64)
    {
        paper::library.os.major = major;
        paper::library.os.minor = minor;
        paper::library.os.patch = patch;
        paper::library.os.arch = arch;
        return start();
    }
    int start()
    {
        testlib::log_clear();
        paper::library.registered.clear();
        paper::library.calls.clear();
        for (int32_t &fd : fds_)
            fd = -5;
        return init_kpnotify(fds_);
    }
    static Calls points()
    {
        Calls out;
        for (const auto &r : paper::library.registered)
            out.push_back(std::string(r.def.name) + " " + r.def.point);
        return out;
    }
    static void expect_zero()
    {
        EXPECT_EQ(nullptr, clt_file.instance.load());
        EXPECT_EQ(nullptr, clt_file.fds);
        EXPECT_EQ(0, clt_file.fd_count);
        EXPECT_EQ(0, clt_file.s_mounts_offset);
        EXPECT_EQ(0, clt_file.mnt_id_offset);
        for (const struct kp_probe_def &def : clt_file.probes) {
            const struct kp_probe_def zero = {};
            EXPECT_EQ(0, memcmp(&def, &zero, sizeof(def)));
        }
    }

    paper::Installed installed_;
    testlib::TempTree tree_;
    int32_t fds_[6];
};

#endif
