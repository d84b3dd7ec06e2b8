/* The inotify probe with a library: which probe for which kernel. */
#include "linux/probe/clt_inotify.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "linux/probe/inotify_probe.h"
#include "paper_probes.h"
#include "testlib/fake_host.h"
#include "testlib/tree.h"

using paper::library;

namespace
{

using Calls = std::vector<std::string>;

/* "f0=+FIRST(BASE):u64 f1=..." as one writes it down. */
std::string words(int count, int first, const std::string &base)
{
    const char *names = "0123456789abcdef";
    std::string out;
    for (int i = 0; i < count; i++)
        out += std::string(" f") + names[i] + "=+" + std::to_string(first + 8 * i) + "(" + base + "):u64";
    return out;
}

class CltInotify : public ::testing::Test
{
protected:
    CltInotify()
    {
        testlib::reset_host();
        clt_inotify_room = 4;
        set_version("Linux version 6.1.0 (nobody)\n");
    }
    ~CltInotify() override
    {
        kp_inotify_destroy();
        testlib::clear_redirects();
    }
    void set_version(const std::string &text) { testlib::redirect_path("/proc/version", tree_.file("version", text)); }
    int init()
    {
        for (int32_t &fd : fds_)
            fd = -5;
        return kp_inotify_init(fds_);
    }
    /* Registers on such a kernel; "mode N point". */
    std::string choose(uint8_t major, uint8_t minor, uint8_t patch, uint16_t arch = KP_ARCH_X86_64)
    {
        init();
        library.os.major = major;
        library.os.minor = minor;
        library.os.patch = patch;
        library.os.arch = arch;
        library.registered.clear();
        testlib::log_clear();
        EXPECT_EQ(0, get_inotify_event());
        EXPECT_EQ(1u, library.registered.size());
        const std::string mode = std::to_string(clt_inotify_mode());
        EXPECT_EQ(1, testlib::log_count(3, "kprobe mode = " + mode));
        return "mode " + mode + " " + library.registered.back().def.point;
    }
    std::string fetch() { return library.registered.back().fetch; }

    paper::Installed installed_;
    testlib::TempTree tree_;
    int32_t fds_[6];
};

/* ---- the instance ---- */

TEST_F(CltInotify, CountsTheDescriptorsOfItsInstance)
{
    EXPECT_EQ(2, init());
    EXPECT_EQ((Calls{"ins_crt clt_inotify"}), library.calls);
    EXPECT_EQ(70, fds_[0]);
    EXPECT_EQ(71, fds_[1]);
    EXPECT_EQ(-5, fds_[2]);
    EXPECT_EQ(1, clt_inotify_active());
}

TEST_F(CltInotify, NoMoreDescriptorsThanThereIsRoomFor)
{
    library.descriptors = 500;
    EXPECT_EQ(4, init());
    EXPECT_EQ(73, fds_[3]);
    EXPECT_EQ(-5, fds_[4]);
}

TEST_F(CltInotify, WithoutDescriptorsThereIsStillAnInstance)
{
    for (int32_t count : {0, -1}) {
        library.descriptors = count;
        EXPECT_EQ(0, init());
        EXPECT_EQ(-5, fds_[0]);
        EXPECT_EQ(0, inotify_parse(0));
    }
}

TEST_F(CltInotify, RefusedInstanceIsSaidTwice)
{
    library.instance_made = false;
    EXPECT_EQ(-1, init());
    EXPECT_EQ(2, testlib::log_count(2, "create kprobe instance failed!"));
    EXPECT_EQ(0, clt_inotify_active());
}

/* ---- the table of kernels ---- */

TEST_F(CltInotify, VersionsOf64Bits)
{
    EXPECT_EQ("mode 0 fsnotify_add_notify_event", choose(2, 6, 0));
    EXPECT_EQ("mode 0 fsnotify_add_notify_event", choose(2, 6, 35));
    EXPECT_EQ("i=+64(+32(%si)):u64 w=+24(%dx):u32 m=+64(%si):u32" + words(2, 0, "+72(%si)"), fetch());
    EXPECT_EQ("mode 1 inotify_handle_event", choose(2, 6, 36));
    EXPECT_EQ("mode 1 inotify_handle_event", choose(2, 6, 38));
    EXPECT_EQ("i=+168(+32(%cx)):u64 w=+128(%si):u32 m=+64(%cx):u32" + words(2, 0, "+72(%cx)"), fetch());
    EXPECT_EQ("mode 1 inotify_handle_event", choose(2, 7, 0));
    EXPECT_EQ("mode 2 inotify_handle_event", choose(3, 0, 0));
    EXPECT_EQ("mode 2 inotify_handle_event", choose(3, 14, 255));
    EXPECT_EQ("i=+64(+32(%cx)):u64 w=+112(%si):u32 m=+64(%cx):u32" + words(16, 0, "+72(%cx)"), fetch());
    for (auto [major, minor] :
         {std::pair<uint8_t, uint8_t>{2, 4}, {3, 15}, {3, 17}, {4, 0}, {4, 15}, {4, 18}, {5, 4}, {5, 9}, {6, 19}}) {
        EXPECT_EQ("mode 3 inotify_handle_event", choose(major, minor, 0)) << int{major} << "." << int{minor};
        EXPECT_EQ("i=+64(%si):u64 w=+72(%dx):u32 m=%r8:u32" + words(16, 0, "+16(%sp)"), fetch());
    }
}

TEST_F(CltInotify, VersionsOf32Bits)
{
    EXPECT_EQ("mode 0 fsnotify_add_notify_event", choose(2, 6, 35, KP_ARCH_X86_32));
    EXPECT_EQ("i=+32(+16(%dx)):u32 w=+12(%cx) m=+36(%dx)" + words(2, 0, "+44(%dx)"), fetch());
    EXPECT_EQ("mode 1 fsnotify_add_notify_event", choose(2, 6, 38, KP_ARCH_X86_32));
    EXPECT_EQ("i=+96(+16(%dx)):u32 w=+12(%cx) m=+36(%dx)" + words(2, 0, "+44(%dx)"), fetch());
    EXPECT_EQ("mode 2 inotify_handle_event", choose(3, 10, 0, KP_ARCH_X86_32));
    EXPECT_EQ("i=+40(+16(+4(%sp))):u32 w=+64(%dx):u32 m=+36(+4(%sp)):u32" + words(16, 0, "+44(+4(%sp))"), fetch());
    EXPECT_EQ("mode 3 inotify_handle_event", choose(5, 10, 0, KP_ARCH_X86_32));
    EXPECT_EQ("i=+40(%dx):u32 w=+44(%cx):u32 m=+8(%sp):u32" + words(16, 0, "+20(%sp)"), fetch());
}

/* One text to the last character, not made by the rule that the others are compared with. */
TEST_F(CltInotify, OneWholeText)
{
    choose(4, 19, 0);
    EXPECT_EQ(
        "i=+64(+16(%si)):u64 w=+32(%si):u32 m=+24(%si):u32 f0=+44(%si):u64 f1=+52(%si):u64 f2=+60(%si):u64 "
        "f3=+68(%si):u64 f4=+76(%si):u64 f5=+84(%si):u64 f6=+92(%si):u64 f7=+100(%si):u64 f8=+108(%si):u64 "
        "f9=+116(%si):u64 fa=+124(%si):u64 fb=+132(%si):u64 fc=+140(%si):u64 fd=+148(%si):u64 "
        "fe=+156(%si):u64 ff=+164(%si):u64",
        fetch());
}

/* Only the code of 32 bits means that. */
TEST_F(CltInotify, UnknownArchitecturesTakeTheTextOf64Bits)
{
    for (uint16_t arch : {0, 2, 3, 0x100}) {
        choose(5, 10, 0, arch);
        EXPECT_EQ(0u, fetch().find("i=+64(%si):u64 w=+72(%dx)")) << arch;
    }
}

TEST_F(CltInotify, DistributionKernels)
{
    const struct {
        uint8_t major, minor;
        const char *log, *point, *head64, *head32;
        int first64, first32;
        const char *base64, *base32;
    } rows[] = {
        {3, 16, "use debian 8", "inotify_handle_event", "i=+64(%si):u64 w=+112(%dx):u32 m=%r8:u32",
         "i=+40(%dx):u32 w=+64(%cx):u32 m=+8(%sp):u32", 0, 0, "+16(%sp)", "+20(%sp)"},
        {4, 4, "use ubuntu 17,16 version/debian 9", "inotify_handle_event", "i=+64(%si):u64 w=+80(%dx):u32 m=%r8:u32",
         "i=+40(%dx):u32 w=+48(%cx):u32 m=+8(%sp):u32", 0, 0, "+16(%sp)", "+20(%sp)"},
        {4, 9, "use ubuntu 17,16 version/debian 9", "inotify_handle_event", "i=+64(%si):u64 w=+80(%dx):u32 m=%r8:u32",
         "i=+40(%dx):u32 w=+48(%cx):u32 m=+8(%sp):u32", 0, 0, "+16(%sp)", "+20(%sp)"},
        {4, 10, "use ubuntu 17,16 version/debian 9", "inotify_handle_event", "i=+64(%si):u64 w=+80(%dx):u32 m=%r8:u32",
         "i=+40(%dx):u32 w=+48(%cx):u32 m=+8(%sp):u32", 0, 0, "+16(%sp)", "+20(%sp)"},
        {4, 19, "use debian 10", "fsnotify_add_event", "i=+64(+16(%si)):u64 w=+32(%si):u32 m=+24(%si):u32",
         "i=+40(+8(%dx)):u32 w=+16(%dx):u32 m=+12(%dx):u32", 44, 28, "%si", "%dx"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(std::string("mode 3 ") + row.point, choose(row.major, row.minor, 7));
        EXPECT_TRUE(testlib::logged(3, row.log)) << row.log;
        EXPECT_EQ(row.head64 + words(16, row.first64, row.base64), fetch());
        EXPECT_EQ(std::string("mode 3 ") + row.point, choose(row.major, row.minor, 7, KP_ARCH_X86_32));
        EXPECT_EQ(row.head32 + words(16, row.first32, row.base32), fetch());
    }
    choose(3, 17, 0);
    EXPECT_EQ(0, testlib::log_count_containing("use "));
}

/* ---- a distribution's 3.10 ---- */

TEST_F(CltInotify, BackportedBuildsAreToldByTheirNumber)
{
    const std::pair<const char *, bool> rows[] = {
        {"Linux version 3.10.0-1062.el7.x86_64 (builder)", true},
        {"Linux version 3.10.0-328.el7.x86_64", true},
        {"Linux version 3.10.0-327.el7.x86_64", false},
        {"Linux version 3.10.0-0x148", true}, /* the base is the number's own */
        {"Linux version 3.10.0-0510", true},  /* 328 in octal */
        {"Linux version 3.10.0-0500", false},
        {"Linux version 3.10.0-el7", false},
        {"Linux version 3.10.1-1062.el7", false},
        {"Linux version 4.10.0-1062", false},
        {"", false},
    };
    for (const auto &[text, backported] : rows) {
        set_version(text);
        EXPECT_EQ(std::string("mode 2 ") + (backported ? "fsnotify_add_event" : "inotify_handle_event"),
                  choose(3, 10, 0))
            << text;
        EXPECT_EQ(backported ? 1 : 0, testlib::log_count(3, "use centos 7 update version"));
    }
    set_version("Linux version 3.10.0-1062");
    EXPECT_EQ("mode 2 fsnotify_add_event", choose(3, 2, 0)) << "looked for on every kernel of the mode";
    EXPECT_EQ("mode 2 fsnotify_add_event", choose(3, 10, 0, KP_ARCH_X86_32));
    EXPECT_EQ("i=+40(+8(%dx)):u32 w=+16(%dx):u32 m=+12(%dx):u32" + words(16, 28, "%dx"), fetch());
    EXPECT_EQ("mode 3 inotify_handle_event", choose(3, 15, 0)) << "but on no other";
}

TEST_F(CltInotify, OnlyTheBeginningOfTheVersionCounts)
{
    set_version(std::string(256 - 10, 'x') + "3.10.0-1062");
    EXPECT_EQ("mode 2 inotify_handle_event", choose(3, 10, 0)) << "the build is cut off: 3.10.0-106";
    set_version(std::string(256 - 11, 'x') + "3.10.0-1062");
    EXPECT_EQ("mode 2 fsnotify_add_event", choose(3, 10, 0));
}

TEST_F(CltInotify, UnreadableVersionIsThatOfTheTable)
{
    set_version("Linux version 3.10.0-1062");
    testlib::redirect_path("/proc/version", tree_.path("missing"));
    EXPECT_EQ("mode 2 inotify_handle_event", choose(3, 10, 0));
    set_version("Linux version 3.10.0-1062");
    testlib::Fault fault("read", 1, EIO);
    EXPECT_EQ("mode 2 inotify_handle_event", choose(3, 10, 0));
    EXPECT_TRUE(fault.hit());
}

/* ---- the definition ---- */

TEST_F(CltInotify, DefinitionAndFilter)
{
    choose(6, 1, 0);
    const paper::Registration &r = library.registered.back();
    EXPECT_EQ('1', r.def.c0) << "not what the file probes have";
    EXPECT_EQ('p', r.def.kind);
    EXPECT_STREQ("Ki", r.def.name);
    EXPECT_EQ(&read_kp_inotify_event, r.record);
    EXPECT_EQ(static_cast<void *>(&library), r.instance);
    const std::string filter = "common_pid!=" + std::to_string(gettid()) + "&&common_pid!=4242&&w!=0";
    EXPECT_EQ(filter, r.filter);
    EXPECT_EQ(filter, paper::text_at(library.definitions.back()->filter.u)) << "stays readable";
    EXPECT_EQ(0u, library.definitions.back()->fetch.u);
    EXPECT_TRUE(testlib::logged(3, "fmon tid = " + std::to_string(gettid())));
}

TEST_F(CltInotify, LibrarysProcessIsPrintedAsASignedNumber)
{
    library.os.pid = 0xffffffff;
    choose(6, 1, 0);
    EXPECT_NE(std::string::npos, library.registered.back().filter.find("&&common_pid!=-1&&"));
}

TEST_F(CltInotify, RegistersEvenWhenTheKernelIsNotTold)
{
    init();
    library.os_status = -2;
    testlib::log_clear();
    EXPECT_EQ(0, get_inotify_event());
    EXPECT_TRUE(testlib::logged(2, "get os_info failed!"));
    EXPECT_TRUE(testlib::logged(2, "calculate kprobe cmd failed !"));
    ASSERT_EQ(1u, library.registered.size());
    EXPECT_STREQ("", library.registered[0].def.name);
    EXPECT_EQ(0, testlib::log_count_containing("kprobe mode"));
}

TEST_F(CltInotify, RefusedRegistrationIsReported)
{
    init();
    library.refused = "Ki";
    EXPECT_EQ(-7, get_inotify_event());
    EXPECT_TRUE(testlib::logged(2, "register inotify event failed!"));
    EXPECT_EQ(1, clt_inotify_active()) << "the instance stays";
}

TEST_F(CltInotify, WithoutAnInstanceTheLibraryIsNotAskedToRegister)
{
    EXPECT_EQ(-1, get_inotify_event());
    EXPECT_TRUE(testlib::logged(2, "register inotify event failed!"));
    EXPECT_TRUE(library.registered.empty());
}

/* ---- switching, reading, end ---- */

TEST_F(CltInotify, SwitchIsTheLowByte)
{
    choose(6, 1, 0);
    library.calls.clear();
    for (int on : {1, 0, int{'1'}, 256, -1})
        kp_inotify_enable(on);
    EXPECT_EQ((Calls{"enable 1 Ki", "enable 0 Ki", "enable 49 Ki", "enable 0 Ki", "enable 255 Ki"}), library.calls);
}

TEST_F(CltInotify, ParsingIsTheLibrarys)
{
    init();
    library.calls.clear();
    EXPECT_EQ(3, inotify_parse(1));
    EXPECT_EQ(0, inotify_parse(2));
    EXPECT_EQ(0, inotify_parse(-1));
    EXPECT_EQ((Calls{"parse 1"}), library.calls);
}

TEST_F(CltInotify, AfterTheEndNothingReachesTheLibrary)
{
    choose(6, 1, 0);
    EXPECT_EQ(0, kp_inotify_destroy());
    library.calls.clear();
    kp_inotify_enable(1);
    EXPECT_EQ(0, inotify_parse(0));
    EXPECT_TRUE(library.calls.empty());
    EXPECT_EQ(0, clt_inotify_active());
    EXPECT_EQ(0, clt_inotify_mode());
}

}  // namespace
