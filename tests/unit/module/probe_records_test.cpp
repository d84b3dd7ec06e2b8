/* What the library hands on, byte for byte: records of the file probes and of the inotify probe. */
#include <sys/inotify.h>

#include "event.h"
#include "probe_fixture.h"

using testlib::log_count;

namespace
{

/* ---- records of every size: the library gives each a block of exactly that size ---- */

PROBE_CASE(ProbeRecords, ShortOnesAreDropped)
{
    m.start_all();
    m.fanotify.mark_error = EPERM;
    ASSERT_EQ(0, fmon_add_global_watch(0, FMON_ALL_EVENTS));
    const std::string whole = testlib::file_probe_record(m.kMount, {"/", "d"}, "f");
    for (const char *event : {"Kc", "Ku", "Km", "Krf", "Krt"})
        for (const size_t size : {0, 1, 4, 355, 356, 419})
            m.probes.put(event, 7, whole.substr(0, size));
    for (const size_t size : {0, 15, 16, 31, 32, 143})
        m.probes.put("Ki", 7, testlib::inotify_probe_record(1, 1, IN_CREATE, "f").substr(0, size));
    EXPECT_EQ((std::vector<int>{0, 4}), m.turn());
    EXPECT_EQ(Strings{}, m.events());
    EXPECT_EQ(0u, fmlnx.unknown_wd_count);
}

PROBE_CASE(ProbeRecords, LongOnesAreTaken)
{
    m.start_all();
    m.fanotify.mark_error = EPERM;
    ASSERT_EQ(0, fmon_add_global_watch(0, FMON_ALL_EVENTS));
    for (const char *event : {"Kc", "Ku", "Km", "Krf", "Krt"})
        m.probes.put(event, 7, testlib::file_probe_record(m.kMount, {"/"}, event) + "123456");
    m.turn();
    EXPECT_EQ((Strings{"/Kc:create 7", "/Km:close_write 7", "/Krf:moved_from 7", "/Krt:moved_to 7", "/Ku:delete 7"}),
              m.events());
    EXPECT_EQ(1, log_count(2, "wrong data")); /* of moves only */
}

PROBE_CASE(ProbeRecords, NamesThatFillTheirFields)
{
    m.start_all();
    ASSERT_EQ(0, fmon_add_global_watch(0, FMON_CREATE));
    const std::string dir31(31, 'd'), dir32(32, 'd'), leaf63(63, 'l'), leaf64(64, 'l');
    m.probes.put("Kc", 7, testlib::file_probe_record(m.kMount, {"/", dir31}, leaf63));
    m.probes.put("Kc", 7, testlib::file_probe_record(m.kMount, {"/", dir31}, leaf64));
    m.probes.put("Kc", 7, testlib::file_probe_record(m.kMount, {"/", dir32}, "f"));
    m.turn();
    EXPECT_EQ(
        (Strings{"/" + dir31 + "/" + leaf63.substr(0, 62) + "*:create 7", "/" + dir31 + "/" + leaf63 + ":create 7"}),
        m.events());
    EXPECT_EQ(1, log_count(2, "dir name trunc"));
}

PROBE_CASE(ProbeRecords, TenDirectoriesBelowTheRootAndNoMore)
{
    m.start_all();
    ASSERT_EQ(0, fmon_add_global_watch(0, FMON_CREATE));
    Strings dirs = {"/", "1", "2", "3", "4", "5", "6", "7", "8", "9", "10"};
    m.probes.put("Kc", 7, testlib::file_probe_record(m.kMount, dirs, "f"));
    dirs.push_back("11");
    m.probes.put("Kc", 7, testlib::file_probe_record(m.kMount, dirs, "g"));
    m.turn();
    EXPECT_EQ(Strings{"/1/2/3/4/5/6/7/8/9/10/f:create 7"}, m.events());
    EXPECT_EQ(1, log_count(2, "can't find root dir"));
}

PROBE_CASE(ProbeRecords, OneThatComesInPieces)
{
    m.start_all();
    ASSERT_EQ(0, fmon_add_global_watch(0, FMON_CREATE));
    const std::string frame = m.probes.frame("Kc", 7, testlib::file_probe_record(m.kMount, {"/"}, "f"));
    m.probes.put_bytes("clt_file.1", frame.substr(0, 9));
    EXPECT_EQ(std::vector<int>{5}, m.turn());
    m.probes.put_bytes("clt_file.1", frame.substr(9, 200));
    EXPECT_EQ(std::vector<int>{5}, m.turn());
    EXPECT_EQ(Strings{}, m.events());
    m.probes.put_bytes("clt_file.1", frame.substr(209));
    m.turn();
    EXPECT_EQ(Strings{"/f:create 7"}, m.events());
}

/* ---- the kernel's inotify deliveries ---- */

PROBE_CASE(ProbeInotify, AWatchedDirectorysEventHasItsProcess)
{
    m.start_all();
    const std::string dir = m.tree.dir("w");
    ASSERT_EQ(0, fmon_add_watch(0, dir.c_str(), FMON_CREATE | FMON_MODIFY, FMON_DIR, 0, 0));
    m.delivers(dir, IN_CREATE, "f", 55);
    EXPECT_EQ(std::vector<int>{0}, m.turn());
    EXPECT_EQ(Strings{dir + "/f:create 55"}, m.events());
}

PROBE_CASE(ProbeInotify, OthersDescriptorsAreNotOurs)
{
    m.start_all();
    const std::string dir = m.tree.dir("w");
    ASSERT_EQ(0, fmon_add_watch(0, dir.c_str(), FMON_CREATE, FMON_DIR, 0, 0));
    m.probes.put("Ki", 7, testlib::inotify_probe_record(1, testlib::wd_of(dir), IN_CREATE, "f"));
    m.probes.put("Ki", 7, testlib::inotify_probe_record(1, testlib::wd_of(dir), IN_IGNORED));
    m.probes.put("Ki", 7, testlib::inotify_probe_record(1, 999, IN_CREATE, std::string(128, 'x')));
    m.turn();
    EXPECT_EQ(Strings{}, m.events());
    EXPECT_EQ(1u, fmlnx.unknown_wd_count);
    EXPECT_EQ(1u, fmlnx.read_status);
    EXPECT_EQ(1, log_count(4, "can't find dentry, filename:" + std::string(15, 'x') + "\n"));
    EXPECT_GT(testlib::wd_of(dir), 0); /* still watched */
}

PROBE_CASE(ProbeInotify, ANewDirectoryIsWatchedAndADeletedOneForgotten)
{
    m.start_all();
    const std::string dir = m.tree.dir("w");
    ASSERT_EQ(0, fmon_add_watch(0, dir.c_str(), FMON_CREATE, FMON_DIR | FMON_RECURSIVE | FMON_SYNC, 0, 0));
    const std::string sub = m.tree.dir("w/sub");
    m.delivers(dir, IN_CREATE | IN_ISDIR, "sub");
    m.turn();
    EXPECT_GT(testlib::wd_of(sub), 0);
    m.delivers(sub, IN_CREATE, "f");
    m.turn();
    EXPECT_EQ((Strings{dir + "/sub/f:create 9", dir + "/sub:create 9"}), m.events());
    m.delivers(sub, IN_IGNORED, "");
    m.turn();
    EXPECT_FALSE(testlib::cached(sub));
}

/* Switched with 1 and 0, not with characters; on until then. */
PROBE_CASE(ProbeInotify, TheAgentsSwitch)
{
    m.start_all();
    const std::string dir = m.tree.dir("w");
    ASSERT_EQ(0, fmon_add_watch(0, dir.c_str(), FMON_CREATE, FMON_DIR, 0, 0));
    _clt_file_enable(0);
    EXPECT_EQ(Strings{"event_enable 0 Ki"}, m.probes.calls()); /* this agent has no watch_map */
    m.delivers(dir, IN_CREATE, "unseen");
    m.turn();
    _clt_file_enable(1);
    m.delivers(dir, IN_CREATE, "seen");
    m.turn();
    EXPECT_EQ(Strings{dir + "/seen:create 9"}, m.events());
}

}  // namespace
