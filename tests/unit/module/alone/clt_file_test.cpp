/* The collector of system-wide file events with a library: what is registered for which kernel, and how it is switched.
 */
#include "linux/probe/clt_file.h"

#include <gtest/gtest.h>

#include "clt_file_fixture.h"
#include "watch_map.h"

using paper::library;

uint32_t watch_map[] = {FMON_DELETE, FMON_CREATE};

namespace
{

/* ---- registration ---- */

TEST_F(CltFile, DefinitionsAreStoredInTheirOwnOrder)
{
    EXPECT_LE(0, start(6, 1, 0));
    Calls stored;
    for (const struct kp_probe_def &def : clt_file.probes)
        stored.push_back(def.name);
    EXPECT_EQ((Calls{"Kc", "Kl", "Ku", "Km", "Krf", "Krt"}), stored);
}

TEST_F(CltFile, RegistersSixProbesInOrder)
{
    EXPECT_LE(0, start(6, 1, 0));
    EXPECT_EQ((Calls{"Kc security_inode_create", "Ku vfs_unlink", "Km __fsnotify_parent", "Krf vfs_rename",
                     "Krt vfs_rename", "Kl vfs_link"}),
              points());
    EXPECT_EQ((Calls{"ins_crt clt_file"}), library.calls) << "no probe is switched at the start";
    const kp_record_cb records[] = {read_kp_crt_event,      read_kp_del_event,    read_kp_writeclose_event,
                                    read_kp_movefrom_event, read_kp_moveto_event, read_kp_link_event};
    for (size_t i = 0; i < library.registered.size(); i++) {
        EXPECT_EQ(records[i], library.registered[i].record) << i;
        EXPECT_EQ(static_cast<void *>(&library), library.registered[i].instance);
    }
    int modes = 0;
    for (const testlib::LogLine &line : testlib::log_lines())
        modes += line.level == 3 && line.text == "krpopbe mode = 0" && line.file == "linux/clt_file.c";
    EXPECT_EQ(6, modes);
}

TEST_F(CltFile, DefinitionsAreOfTheWireFormat)
{
    start(6, 1, 0);
    for (size_t i = 0; i < library.registered.size(); i++) {
        const unsigned char *bytes = reinterpret_cast<const unsigned char *>(&library.registered[i].def);
        EXPECT_EQ('0', bytes[0]);
        EXPECT_EQ('p', bytes[1]);
        for (int at = 2; at < 8; at++)
            EXPECT_EQ(0, bytes[at]) << at;
        for (int at = 152; at < 160; at++)
            EXPECT_EQ(0, bytes[at]) << at;
        EXPECT_EQ(0u, library.definitions[i]->fetch.u) << "the text does not outlive the call";
        EXPECT_NE(0u, library.definitions[i]->filter.u);
        EXPECT_EQ(library.registered[i].filter, paper::text_at(library.definitions[i]->filter.u))
            << "but this one does";
    }
}

TEST_F(CltFile, CreationMovedWithTheKernel)
{
    const struct {
        uint8_t major, minor, patch;
        const char *point;
    } rows[] = {
        {3, 0, 0, "vfs_create"},
        {3, 10, 0, "vfs_create"},
        {3, 19, 99, "vfs_create"},
        {4, 0, 0, "vfs_create"},
        {4, 8, 17, "vfs_create"},
        {4, 9, 0, "security_inode_create"},
        {4, 19, 0, "security_inode_create"},
        {5, 0, 0, "security_inode_create"},
        {5, 8, 0, "security_inode_create"},
        {6, 18, 0, "security_inode_create"},
    };
    for (const auto &row : rows) {
        ASSERT_LE(0, start(row.major, row.minor, row.patch));
        EXPECT_STREQ(row.point, library.registered[0].def.point) << int{row.major} << "." << int{row.minor};
    }
}

TEST_F(CltFile, BeforeThreeNothingIsRegistered)
{
    EXPECT_EQ(-1, start(2, 6, 32));
    EXPECT_TRUE(library.registered.empty());
    EXPECT_TRUE(testlib::logged(2, "register create file cmd failed!"));
    EXPECT_EQ(0, testlib::log_count_containing("krpopbe"));
    EXPECT_EQ(-5, fds_[0]);
    expect_zero();
}

TEST_F(CltFile, EachRefusalHasItsLineAndLeavesNothing)
{
    const std::pair<const char *, const char *> rows[] = {
        {"Kc", "register create file cmd failed!"},
        {"Ku", "register delete file cmd failed!"},
        {"Km", "register close_write file cmd failed!"},
        {"Krf", "register rename from file cmd failed!"},
        {"Krt", "register rename to file cmd failed!"},
        {"Kl", "register close_write file cmd failed!"}, /* kept: log readers know it so */
    };
    size_t registered = 0;
    for (const auto &[event, line] : rows) {
        library.refused = event;
        EXPECT_EQ(-7, start()) << event;
        EXPECT_EQ(++registered, library.registered.size()) << "the ones before it, and none after";
        EXPECT_EQ(line, testlib::log_lines().back().text);
        EXPECT_EQ(2, testlib::log_lines().back().level);
        EXPECT_EQ(0u, library.definitions.back()->fetch.u);
        EXPECT_EQ(-5, fds_[0]);
        expect_zero();
    }
}

TEST_F(CltFile, KernelThatIsNotToldEndsTheStart)
{
    library.os_status = -3;
    EXPECT_EQ(-1, start());
    EXPECT_TRUE(testlib::logged(2, "get os_info failed!"));
    EXPECT_TRUE(testlib::logged(2, "register create file cmd failed!"));
    library.os_status = 0;
    library.os_null = true; /* success without a record */
    EXPECT_EQ(-1, start());
    EXPECT_TRUE(testlib::logged(2, "get os_info failed!"));
    expect_zero();
}

/* ---- fetch texts (their body is fetch_text's) ---- */

std::string ends(const std::string &text) { return text.substr(0, 28) + "..." + text.substr(text.size() - 20); }

TEST_F(CltFile, RegistersOf64Bits)
{
    start(6, 1, 0);
    const char *dentry[] = {"%si", "%si", "%si", "%si", "%cx", "%di"};
    for (size_t i = 0; i < 6; i++) {
        const std::string &fetch = library.registered[i].fetch;
        EXPECT_EQ(0u, fetch.find("mnt=+172(+192(+104(" + std::string(dentry[i]) + "))):u32 l0=+56(")) << fetch;
        if (i != 2) {
            EXPECT_EQ(1956u - 4 + 6 - 53 * 2 + 53 * 3, fetch.size());
        }
    }
    EXPECT_EQ(" a7=+56(+40(%si)) m=%dx:u32 f=+0(+48(%si)):u16",
              library.registered[2].fetch.substr(library.registered[2].fetch.size() - 46));
}

/* Any code but that of 64 bits means 32. */
TEST_F(CltFile, RegistersOf32Bits)
{
    for (uint16_t arch : {1, 0, 3, 0x200}) {
        start(4, 19, 0, arch);
        const char *dentry[] = {"%dx", "%dx", "%dx", "%dx", "+4(%sp)", "%ax"};
        for (size_t i = 0; i < 6; i++)
            EXPECT_EQ(
                0u, library.registered[i].fetch.find("mnt=+172(+192(+84(" + std::string(dentry[i]) + "))):u32 l0=+36("))
                << ends(library.registered[i].fetch);
        EXPECT_EQ(" a7=+56(+28(%dx)):u64 m=%cx:u32 f=+0(+36(%dx)):u16",
                  library.registered[2].fetch.substr(library.registered[2].fetch.size() - 50));
        EXPECT_EQ("+56(+28(+4(%sp))):u64", library.registered[4].fetch.substr(library.registered[4].fetch.size() - 21));
    }
}

TEST_F(CltFile, OffsetsComeFromTheConfiguration)
{
    testlib::set_ini(
        {{{"4.9.0-1-x86_64", "s_mounts_offset"}, "-8"}, {{"4.9.0-1-x86_64", "mnt_id_offset"}, "2147483647"}});
    EXPECT_LE(0, start());
    EXPECT_EQ(0u, library.registered[0].fetch.find("mnt=+2147483647(+-8(+104(%si))):u32 "))
        << ends(library.registered[0].fetch);
}

/* ---- filters ---- */

TEST_F(CltFile, AllButCloseWriteTakeTheCommonFilter)
{
    start();
    for (size_t i : {0u, 1u, 3u, 4u, 5u})
        EXPECT_EQ("(mnt==23||mnt==25||mnt==0)", library.registered[i].filter);
    const std::string close_write = "(mnt==23||mnt==25||mnt==0)&&m==8&&f>=32768&&f<=36863";
    EXPECT_EQ(close_write, library.registered[2].filter);
    EXPECT_TRUE(testlib::logged(4, "real_filter = " + close_write));
}

/* Kept: nothing to say about mounts leaves a text that begins with the conjunction. */
TEST_F(CltFile, WithoutMountsTheFiltersAreEmpty)
{
    set_mounts({});
    EXPECT_LE(0, start());
    EXPECT_TRUE(testlib::logged(2, "can't get mountonfo!"));
    EXPECT_EQ("", library.registered[0].filter);
    EXPECT_EQ("&&m==8&&f>=32768&&f<=36863", library.registered[2].filter);
}

std::vector<int> two_digits(int count)
{
    std::vector<int> ids;
    for (int i = 0; i < count; i++)
        ids.push_back(10 + i);
    return ids;
}

/* Kept: what does not fit behind the common filter is cut off. */
TEST_F(CltFile, CloseWriteFilterIsCutOffAtItsRoom)
{
    set_mounts(two_digits(24));
    EXPECT_LE(0, start());
    EXPECT_EQ("&&m==8&&f>=32768&&f<=36863", library.registered[2].filter.substr(library.registered[0].filter.size()));
    set_mounts(two_digits(25));
    EXPECT_LE(0, start());
    EXPECT_EQ(255u, library.registered[2].filter.size());
    EXPECT_NE("36863", library.registered[2].filter.substr(250));
}

TEST_F(CltFile, TooManyMountsForTheCommonFilter)
{
    set_mounts(two_digits(27));
    EXPECT_LE(0, start());
    set_mounts(two_digits(28));
    EXPECT_GT(0, start());
    EXPECT_TRUE(testlib::logged(2, "can't get common filter"));
    EXPECT_TRUE(testlib::logged(2, "maybe noy support global event"));
    EXPECT_TRUE(library.calls.empty()) << "the library is not asked";
    expect_zero();
}

/* ---- descriptors ---- */

TEST_F(CltFile, HandsTheDescriptorsOn)
{
    EXPECT_LE(0, start());
    EXPECT_EQ(70, fds_[0]);
    EXPECT_EQ(71, fds_[1]);
    EXPECT_EQ(-5, fds_[2]);
    EXPECT_EQ(2, clt_file.fd_count);
}

TEST_F(CltFile, NoMoreDescriptorsThanThereIsRoomFor)
{
    library.descriptors = 500;
    EXPECT_LE(0, start());
    EXPECT_EQ(73, fds_[3]);
    EXPECT_EQ(-5, fds_[4]);
}

TEST_F(CltFile, WithoutDescriptorsItStillStarts)
{
    for (int32_t count : {0, -1, INT32_MIN}) {
        library.descriptors = count;
        EXPECT_EQ(0, start()) << count;
        EXPECT_EQ(-5, fds_[0]);
        EXPECT_NE(nullptr, clt_file.instance.load());
        EXPECT_EQ(0, kpnotify_parse(0));
    }
    library.descriptors = 2;
    library.array_null = true;
    EXPECT_EQ(0, start());
    EXPECT_EQ(-5, fds_[0]);
}

TEST_F(CltFile, RefusedInstanceIsSaidTwice)
{
    library.instance_made = false;
    EXPECT_GT(0, start());
    EXPECT_EQ(2, testlib::log_count(2, "create kprobe instance failed!"));
    EXPECT_TRUE(library.registered.empty());
    expect_zero();
}

/* ---- switching, filtering, reading ---- */

TEST_F(CltFile, EachKindSwitchesItsProbe)
{
    start();
    library.calls.clear();
    for (uint32_t event : {0x100, 0x200, 0x8, 0x40, 0x80, 0x1000})
        enable_event(event, '1');
    EXPECT_EQ((Calls{"enable 49 Kc", "enable 49 Ku", "enable 49 Km", "enable 49 Krf", "enable 49 Krt", "enable 49 Kl"}),
              library.calls);
}

TEST_F(CltFile, KindsWithoutAProbeSwitchNothing)
{
    start();
    library.calls.clear();
    for (uint32_t event : {0u, 1u, 2u, 0x20u, 0x800u, 0x108u, 0xffffffffu})
        enable_event(event, '1');
    EXPECT_TRUE(library.calls.empty());
}

/* The byte goes on untranslated, so that the text '0' and the number 0 both arrive as they are. */
TEST_F(CltFile, TheSwitchIsTheLowByte)
{
    start();
    library.calls.clear();
    for (int on : {int{'0'}, 0, 1, 255, 256, -1})
        enable_event(FMON_CREATE, on);
    EXPECT_EQ((Calls{"enable 48 Kc", "enable 0 Kc", "enable 1 Kc", "enable 255 Kc", "enable 0 Kc", "enable 255 Kc"}),
              library.calls);
}

TEST_F(CltFile, TheAgentsSwitchTakesItsFirstKindOnly)
{
    start();
    library.calls.clear();
    kpnotify_enable(1);
    EXPECT_EQ((Calls{"enable 1 Ku"}), library.calls);
}

TEST_F(CltFile, OnlyCreationsAreFilteredAnew)
{
    start();
    library.calls.clear();
    set_mounts({7});
    for (uint32_t event : {0u, 0x8u, 0x40u, 0x80u, 0x200u, 0x1000u, 0x300u})
        enable_filter(event);
    EXPECT_TRUE(library.calls.empty());
    enable_filter(FMON_CREATE);
    EXPECT_EQ((Calls{"filter Kc (mnt==7||mnt==0)"}), library.calls);
    library.calls.clear();
    set_mounts(two_digits(28));
    enable_filter(FMON_CREATE);
    EXPECT_TRUE(library.calls.empty());
    EXPECT_TRUE(testlib::logged(2, "maybe noy support global event"));
}

TEST_F(CltFile, ParsingIsTheLibrarys)
{
    start();
    library.calls.clear();
    EXPECT_EQ(3, kpnotify_parse(1));
    library.parse_status = -9;
    EXPECT_EQ(-9, kpnotify_parse(0));
    EXPECT_EQ(0, kpnotify_parse(2));
    EXPECT_EQ(0, kpnotify_parse(-1));
    EXPECT_EQ((Calls{"parse 1", "parse 0"}), library.calls);
}

TEST_F(CltFile, CleaningReachesTheLibrary)
{
    start();
    library.calls.clear();
    clean_global_event();
    EXPECT_EQ((Calls{"clean"}), library.calls);
    EXPECT_TRUE(testlib::logged(4, "events is too much ,we clean the global event"));
}

TEST_F(CltFile, AfterTheEndNothingReachesTheLibrary)
{
    start();
    EXPECT_EQ(0, kp_notify_destroy());
    expect_zero();
    library.calls.clear();
    enable_event(FMON_CREATE, '1');
    enable_filter(FMON_CREATE);
    kpnotify_enable(1);
    clean_global_event();
    EXPECT_EQ(0, kpnotify_parse(0));
    EXPECT_TRUE(library.calls.empty());
}

TEST_F(CltFile, StartingAgainStartsFromZero)
{
    start();
    library.descriptors = 1;
    EXPECT_LE(0, start());
    EXPECT_EQ(1, clt_file.fd_count);
    EXPECT_EQ(6u, library.registered.size());
}

}  // namespace
