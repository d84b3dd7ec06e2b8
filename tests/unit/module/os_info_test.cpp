/* The running kernel and the structure offsets. */
#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <cstring>

#include "linux/probe/clt_file.h"
#include "testlib/fake_host.h"
#include "testlib/fault.h"

namespace
{

using Lines = std::vector<std::pair<int, std::string>>;
using testlib::Ini;

Lines lines()
{
    Lines out;
    for (const testlib::LogLine &line : testlib::log_lines()) {
        EXPECT_EQ("linux/clt_file.c", line.file);
        out.emplace_back(line.level, line.text);
    }
    return out;
}

std::string machine, release;
int fake_uname(void *out)
{
    struct utsname *name = static_cast<struct utsname *>(out);
    snprintf(name->machine, sizeof name->machine, "%s", machine.c_str());
    snprintf(name->release, sizeof name->release, "%s", release.c_str());
    return 0;
}

class OsInfo : public ::testing::Test
{
protected:
    OsInfo()
    {
        testlib::reset_host();
        testlib::replace_uname(fake_uname);
        machine = "x86_64";
        release = "4.9.0-1-amd64";
    }
    ~OsInfo() override
    {
        testlib::replace_uname(nullptr);
        kp_notify_destroy();
    }
    /* "platform major.minor.patch-build", or what was logged. */
    static std::string detect()
    {
        testlib::log_clear();
        struct os_info info = {};
        if (get_os_info(&info) == 0) {
            EXPECT_EQ(Lines{}, lines());
            return std::to_string(info.platform) + " " + std::to_string(info.major) + "." + std::to_string(info.minor) +
                   "." + std::to_string(info.patch) + "-" + std::to_string(info.build);
        }
        const Lines log = lines();
        EXPECT_EQ(1u, log.size());
        EXPECT_EQ(1, log[0].first);
        return log[0].second;
    }
    static std::string detect_release(const std::string &text)
    {
        release = text;
        return detect();
    }
    static std::string refused(const std::string &text)
    {
        return "kernel version get failed, uname.release:[" + text + "]";
    }
};

/* ---- releases ---- */

TEST_F(OsInfo, ReleasesOfTheRightShape)
{
    EXPECT_EQ("0 4.9.0-1", detect_release("4.9.0-1-amd64"));
    EXPECT_EQ("0 3.10.0-957", detect_release("3.10.0-957.el7.x86_64"));
    EXPECT_EQ("0 6.1.0-25", detect_release("6.1.0-25-amd64"));
    EXPECT_EQ("0 2.6.32-754", detect_release("2.6.32-754"));
    EXPECT_EQ("0 5.15.0-91", detect_release("5.15.0-91-generic"));
    EXPECT_EQ("0 1.2.3-4", detect_release("1.2.3-4x"));
}

TEST_F(OsInfo, ReleasesOfAnotherShapeAreRefused)
{
    for (const char *text :
         {"4.9.0", "5.4.0", "4.9", "4", "", "4.9.0-", "4.9.0-amd64", "4.9.0-rc1", "4.9-1-amd64", "4.9.0.1-2",
          "4.9.0+-1", "4.9.0 -1", "4..0-1", ".9.0-1", "v4.9.0-1", "4-9-0-1", "4,9,0-1", "4.9.x-1", "garbage"})
        EXPECT_EQ(refused(text), detect_release(text)) << text;
}

TEST_F(OsInfo, NumbersAreCutToTheirFields)
{
    EXPECT_EQ("0 44.1.2-3", detect_release("300.1.2-3"));
    EXPECT_EQ("0 1.0.255-3", detect_release("1.256.511-3"));
    EXPECT_EQ("0 4.9.0-2147483647", detect_release("4.9.0-2147483647"));
    /* A long is what the C library reads into first. */
    EXPECT_EQ(sizeof(long) == 8 ? "0 4.9.0-4294967295" : "0 4.9.0-2147483647", detect_release("4.9.0-4294967295"));
    EXPECT_EQ(sizeof(long) == 8 ? "0 4.9.0-1" : "0 4.9.0-2147483647", detect_release("4.9.0-4294967297"));
}

/* As strtol reads them. */
TEST_F(OsInfo, SignsAndBlanksBelongToNumbers)
{
    EXPECT_EQ("0 4.9.0-1", detect_release(" 4. 9.+0- 1"));
    EXPECT_EQ("0 255.9.0-4294967295", detect_release("-1.9.0--1"));
    EXPECT_EQ("0 4.9.0-0", detect_release("4.9.0-0x10")); /* base 10 only */
    EXPECT_EQ("0 4.10.9-7", detect_release("04.010.09-07"));
}

TEST_F(OsInfo, TheLongestRelease)
{
    const std::string text = "4.9.0-1-" + std::string(sizeof(utsname::release) - 1 - 8, 'x');
    EXPECT_EQ("0 4.9.0-1", detect_release(text));
    const std::string bad(sizeof(utsname::release) - 1, '7');
    EXPECT_EQ(refused(bad), detect_release(bad));
}

/* ---- machines ---- */

TEST_F(OsInfo, KnownMachines)
{
    const std::pair<const char *, char> table[] = {{"x86_64", '0'}, {"i386", '1'}, {"i686", '2'}};
    for (auto [name, index] : table) {
        machine = name;
        EXPECT_EQ(std::string(1, index) + " 4.9.0-1", detect());
    }
}

TEST_F(OsInfo, OtherMachinesAreRefused)
{
    for (const char *name : {"aarch64", "", "x86_64 ", "X86_64", "x86", "i586", "i6860"}) {
        machine = name;
        EXPECT_EQ("not support [" + machine + "] platform", detect());
    }
}

TEST_F(OsInfo, TheMachineIsLookedAtFirst)
{
    machine = "aarch64";
    EXPECT_EQ("not support [aarch64] platform", detect_release("garbage"));
}

TEST_F(OsInfo, WithoutUname)
{
    testlib::Fault refused_call("uname", 1, EFAULT);
    EXPECT_EQ("get hw plat error", detect());
}

TEST_F(OsInfo, ThisMachine)
{
    testlib::replace_uname(nullptr);
    struct utsname name;
    ASSERT_EQ(0, uname(&name));
    struct os_info info;
    const int ret = get_os_info(&info);
    if (ret == 0)
        EXPECT_EQ(0, strncmp((std::to_string(info.major) + ".").c_str(), name.release, 2));
    else
        EXPECT_EQ(1u, lines().size());
}

TEST(OsInfoDeathTest, ANullRecordStopsTheProcess) { EXPECT_DEATH(get_os_info(nullptr), "uname_machine && dst_str"); }

/* ---- offsets ---- */

class Offsets : public OsInfo
{
protected:
    static constexpr struct os_info kCentos = {0, 3, 10, 0, 957};

    static Ini section(const std::string &name, const char *s_mounts, const char *mnt_id)
    {
        Ini ini;
        if (s_mounts)
            ini[{name, "s_mounts_offset"}] = s_mounts;
        if (mnt_id)
            ini[{name, "mnt_id_offset"}] = mnt_id;
        return ini;
    }
    static void expect_offsets(int s_mounts, int mnt_id)
    {
        EXPECT_EQ(s_mounts, clt_file.s_mounts_offset);
        EXPECT_EQ(mnt_id, clt_file.mnt_id_offset);
        EXPECT_EQ(0, testlib::ini_open());
    }
};

TEST_F(Offsets, OfTheKernelsOwnSection)
{
    testlib::set_ini(section("3.10.0-957-x86_64", "200", "180"));
    EXPECT_EQ(0, init_file_offset_conf(kCentos));
    expect_offsets(200, 180);
    EXPECT_EQ((Lines{{3, "vm_info:3.10.0-957-x86_64"}, {4, "s_mounts_offset:200, mnt_id_offset:180\n"}}), lines());
    EXPECT_EQ(std::vector<std::string>{"/agent/bin/../config/fmon.ini"}, testlib::ini_loads());
}

/* Kept: half a section is thrown away, its value too. */
TEST_F(Offsets, HalfASectionGivesTheDefaults)
{
    const Lines expected = {{3, "vm_info:3.10.0-957-x86_64"}, {1, "fmon conf file prase error, no version!"}};
    for (const Ini &ini : {section("3.10.0-957-x86_64", "1", nullptr), section("3.10.0-957-x86_64", nullptr, "2"),
                           section("3.10.0-956-x86_64", "1", "2"), Ini{}}) {
        testlib::log_clear();
        testlib::set_ini(ini);
        EXPECT_EQ(0, init_file_offset_conf(kCentos));
        expect_offsets(192, 172);
        EXPECT_EQ(expected, lines());
    }
}

TEST_F(Offsets, DefaultsOfEveryPlatform)
{
    testlib::set_ini({});
    struct os_info info = kCentos;
    const struct {
        uint8_t platform;
        const char *name;
        int s_mounts, mnt_id;
    } table[] = {{0, "x86_64", 192, 172}, {1, "i386", 108, 88}, {2, "i686", 108, 88}};
    for (const auto &row : table) {
        testlib::log_clear();
        info.platform = row.platform;
        EXPECT_EQ(0, init_file_offset_conf(info));
        expect_offsets(row.s_mounts, row.mnt_id);
        EXPECT_EQ(std::string("vm_info:3.10.0-957-") + row.name, lines()[0].second);
    }
}

TEST_F(Offsets, WithoutAFileTheEarlierOnesStay)
{
    clt_file.s_mounts_offset = 7;
    clt_file.mnt_id_offset = 8;
    EXPECT_EQ(-1, init_file_offset_conf(kCentos));
    expect_offsets(7, 8);
    EXPECT_EQ((Lines{{3, "vm_info:3.10.0-957-x86_64"}, {2, "clt_net conf file load failed!"}}), lines());
}

TEST_F(Offsets, TextsAreReadAsNumbers)
{
    const struct {
        const char *text;
        int value;
    } table[] = {{"", 0},
                 {"none", 0},
                 {"-8", -8},
                 {"12 bytes", 12},
                 {" 5", 5},
                 {"0x20", 0},
                 {"99999999999999999999", sizeof(long) == 8 ? -1 : 2147483647}};
    for (const auto &row : table) {
        testlib::set_ini(section("3.10.0-957-x86_64", row.text, "4"));
        EXPECT_EQ(0, init_file_offset_conf(kCentos));
        expect_offsets(row.value, 4);
    }
}

TEST_F(Offsets, TheWidestSectionName)
{
    testlib::set_ini(section("255.255.255-2147483647-x86_64", "1", "2"));
    EXPECT_EQ(0, init_file_offset_conf({0, 255, 255, 255, 2147483647}));
    expect_offsets(1, 2);
}

/* The build is printed as a signed number. */
TEST_F(Offsets, ABuildBeyondTheSignedRange)
{
    testlib::set_ini({});
    EXPECT_EQ(0, init_file_offset_conf({0, 4, 9, 0, 0xffffffff}));
    EXPECT_EQ("vm_info:4.9.0--1-x86_64", lines()[0].second);
}

TEST_F(Offsets, AnUnknownPlatformReadsNothingBeyondTheTable)
{
    testlib::set_ini({});
    EXPECT_EQ(0, init_file_offset_conf({200, 4, 9, 0, 1}));
    expect_offsets(108, 88);
    EXPECT_EQ("vm_info:4.9.0-1-", lines()[0].second);
}

}  // namespace
