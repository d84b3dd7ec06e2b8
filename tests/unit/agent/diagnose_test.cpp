#include "agent/diagnose.h"

#include <cerrno>
#include <cstring>

#include "agent/marks.h"
#include "agent/message.h"
#include "orx_fmon.h"
#include "unit/agent/agent_testing.h"

using namespace agent;

namespace
{

Facts machine()
{
    Facts facts;
    facts.root = true;
    facts.fanotify = true;
    facts.max_user_watches = 8192;
    facts.user_watches = 8192;
    facts.own_watches = 6000;
    facts.max_user_instances = 128;
    facts.max_user_marks = 9000;
    facts.max_dentries = 100;
    return facts;
}

Findings logged(std::initializer_list<std::string> lines)
{
    LogWatch log([] {});
    for (const std::string &line : lines)
        log.line(1, line);
    return log.take();
}

void expect_has(const std::string &text, std::initializer_list<const char *> parts)
{
    for (const char *part : parts)
        EXPECT_NE(text.find(part), std::string::npos) << part << " in: " << text;
    EXPECT_EQ(text.find('\n'), std::string::npos) << text;
}

std::string refusal(int code, const Findings &findings = {}, bool mount = false, bool pid = false,
                    const Facts &facts = machine())
{
    return explain_refusal({"/x", code, mount, pid, findings}, facts);
}

}  // namespace

TEST(CliLogWatch, lines_of_the_monitor)
{
    struct Row {
        std::string line;
        Finding finding;
    };
    const std::string space = strerror(ENOSPC), none = strerror(ENOENT), denied = strerror(EACCES);
    const Row rows[] = {
        {"inotify add failed: " + space, Finding::kWatchLimit},
        {"inotify add failed: " + denied, Finding::kDenied},
        {"inotify add failed: " + none, Finding::kNone},
        {std::string("inotify add failed: ") + strerror(ENOMEM), Finding::kOther},
        {"fanotify add failed: " + space, Finding::kMarkLimit},
        {"fanotify add failed: " + none, Finding::kNone},
        {"iterate add dentry failed", Finding::kCacheFull},
        {"add sub dentry failed: /a sub b", Finding::kCacheFull},
        {"add sub failed", Finding::kCacheFull},
        {"open dir /a failed: " + denied, Finding::kUnreadable},
        {"open dir /a failed: " + none, Finding::kNone},
        {std::string("open dir /a failed: ") + strerror(ENOTDIR), Finding::kNone},
        {std::string("open dir /a failed: ") + strerror(EMFILE), Finding::kDescriptors},
        {std::string("open dir /a failed: ") + strerror(ENFILE), Finding::kDescriptors},
        {std::string("open /a to mark it failed: ") + strerror(EMFILE), Finding::kUnopened},
        {"open /a to mark it failed: " + denied, Finding::kDenied},
        {"open /a to mark it failed: " + none, Finding::kNone},
        {std::string("open /a to mark it failed: ") + strerror(ELOOP), Finding::kNone},
        {std::string("open /a to mark it failed: ") + strerror(EIO), Finding::kOther},
        {"open /a failed: " + denied, Finding::kNone},
        {"path is NULL", Finding::kTooLong},
        {"select failed: Bad file descriptor", Finding::kMonitorEnded},
        {"create file monitor thread failed", Finding::kMonitorEnded},
        {"orx_fmon plugin init", Finding::kNone},
        {"open dir ", Finding::kNone},
        {"", Finding::kNone},
    };
    for (const Row &row : rows)
        EXPECT_EQ(static_cast<int>(read_log_line(row.line).finding), static_cast<int>(row.finding)) << row.line;
}

TEST(CliLogWatch, a_path_may_hold_the_words_of_the_line)
{
    const std::string line = std::string("open dir /a failed: b failed: ") + strerror(EACCES);
    EXPECT_EQ(read_log_line(line).path, "/a failed: b");
}

TEST(CliLogWatch, counts_until_they_are_taken)
{
    int woken = 0;
    LogWatch log([&] { woken++; });
    const std::string denied = strerror(EACCES);
    log.line(1, "inotify add failed: " + denied);
    log.line(1, "open dir /a failed: " + denied);
    log.line(1, "inotify add failed: " + denied);
    log.line(1, "open dir /b failed: " + denied);
    log.line(1, "something else");
    log.line(4, "a debug line");
    EXPECT_EQ(woken, 1);
    EXPECT_TRUE(log.any());
    const Findings findings = log.take();
    EXPECT_EQ(findings.left_out(), 2u);  // each was refused twice
    EXPECT_EQ(findings.first_unreadable, "/a");
    EXPECT_EQ(findings.last_error, "something else");
    EXPECT_FALSE(findings.limit_reached());
    EXPECT_FALSE(log.any());
    EXPECT_EQ(log.take().left_out(), 0u);
}

TEST(CliLogWatch, a_path_that_appeared_and_may_not_be_watched)
{
    const Findings findings =
        logged({std::string("inotify add failed: ") + strerror(EACCES), "add watch failed: -108"});
    expect_has(explain_retry("/a", findings, machine()), {"/a is there, but", "Permission denied"});
}

TEST(CliLogWatch, the_reason_is_not_the_line_that_passes_it_on)
{
    const Findings findings = logged({"inotify add failed: No", "add watch failed: -108", "fmon init failed"});
    EXPECT_EQ(findings.last_error, "inotify add failed: No");
}

TEST(CliLogWatch, a_directory_over_both_limits_counts_once)
{
    const std::string space = strerror(ENOSPC);
    const Findings findings =
        logged({"fanotify add failed: " + space, "inotify add failed: " + space, "iterate add dentry failed"});
    EXPECT_EQ(findings.left_out(), 2u);
    EXPECT_TRUE(findings.limit_reached());
}

TEST(CliDiagnose, limit_of_watches_names_use_and_remedy)
{
    const Findings findings = logged({std::string("inotify add failed: ") + strerror(ENOSPC)});
    expect_has(refusal(-108, findings),
               {"/x", "max_user_watches is reached (8,192", "8,192 in use by this user",
                "2,192 of them by other programs", "sysctl fs.inotify.max_user_watches=16384"});
    expect_has(explain_left_out("/x", findings, 100000, machine()),
               {"100,000 directories below /x are not watched", "sysctl fs.inotify.max_user_watches=131072"});
}

TEST(CliDiagnose, limit_of_marks)
{
    expect_has(refusal(-109, logged({std::string("fanotify add failed: ") + strerror(ENOSPC)})),
               {"max_user_marks is reached (9,000)", "sysctl fs.fanotify.max_user_marks=16384"});
}

TEST(CliDiagnose, full_cache_names_the_setting)
{
    EXPECT_EQ(explain_left_out("/x", logged({"path is NULL"}), 1, machine()),
              "1 directory below /x is not watched: paths of more than 1,022 bytes cannot be watched");
    expect_has(explain_left_out("/x", logged({"iterate add dentry failed"}), 1, machine()),
               {"1 directory below /x is not watched", "max_dentries 100", "--set max_dentries=1024"});
    EXPECT_NE(refusal(FMON_ENOMEM).find("--set max_dentries="), std::string::npos);
}

TEST(CliDiagnose, no_permission)
{
    Facts user = machine();
    user.root = false;
    const Findings denied = logged({std::string("inotify add failed: ") + strerror(EACCES)});
    expect_has(refusal(-108, denied, false, false, user), {"/x may not be read: Permission denied", "run as root"});
    expect_has(explain_left_out("/x", logged({std::string("open dir /x/s failed: ") + strerror(EACCES)}), 3, user),
               {"3 directories below /x are not watched", "/x/s and others", "run as root"});
}

TEST(CliDiagnose, what_needs_fanotify)
{
    Facts user = machine();
    user.root = user.fanotify = false;
    expect_has(refusal(FMON_ENOTSUP, {}, false, true, user),
               {"--pid", "needs fanotify, which only root may use", "without --pid", "do not name their process"});
    expect_has(refusal(FMON_ENOTSUP, {}, true, false, user), {"--mount", "only root"});
    user.root = true;
    expect_has(refusal(FMON_ENOTSUP, {}, true, false, user), {"this kernel or container does not offer"});
}

TEST(CliDiagnose, every_code_has_one_line_that_names_the_path)
{
    for (const int code : {-100, -101, -102, -103, -104, -105, -108, -109, -110, -111, -112, -113, -114, -117, -1}) {
        const std::string line = refusal(code);
        expect_has(line, {"/x"});
        EXPECT_GT(line.size(), 15u);
    }
    expect_has(refusal(-1), {"code -1"});
}

/* Neither is a question of permissions, and both are limits. */
TEST(CliDiagnose, no_descriptors)
{
    for (const auto &[error, said] : {std::pair(EMFILE, "LimitNOFILE="), std::pair(ENFILE, "sysctl fs.file-max")}) {
        const std::string reason = strerror(error);
        const Findings findings =
            logged({"open /x/a to mark it failed: " + reason, "open dir /x/a failed: " + reason});  // refused twice
        EXPECT_TRUE(findings.limit_reached());
        EXPECT_TRUE(logged({"open /x/a to mark it failed: " + reason}).limit_reached());
        EXPECT_EQ(findings.left_out(), 1u);
        expect_has(explain_left_out("/x", findings, 1, machine()), {"1 directory below /x is not watched: ", said});
        expect_has(explain_refusal({"/x", FMON_ENOENT, false, false, findings}, machine()),
                   {"/x cannot be watched: ", said});
        const Findings mark = logged({std::string("fanotify add failed: ") + strerror(error)});
        expect_has(explain_refusal({"/x", -109, false, false, mark}, machine()), {"/x cannot be watched: ", said});
    }
}

TEST(CliDiagnose, start_failures)
{
    Facts facts = machine();
    const Findings instances = logged({std::string("init inotify failed: ") + strerror(EMFILE), "fmon init failed"});
    facts.user_instances = 128;
    expect_has(explain_start_failure(instances, facts),
               {"max_user_instances is reached (128", "sysctl fs.inotify.max_user_instances=1024"});
    facts.user_instances = 3;
    expect_has(explain_start_failure(instances, facts), {"ulimit -n"});
    facts.descriptors_left = 3;
    expect_has(explain_start_failure(instances, facts), {"no file descriptor is left", "LimitNOFILE="});
    const Findings full = logged({std::string("init inotify failed: ") + strerror(ENFILE), "fmon init failed"});
    expect_has(explain_start_failure(full, machine()), {"the system has no file descriptor left", "fs.file-max"});
    expect_has(explain_start_failure({}, facts), {"--verbose"});
}

TEST(CliDiagnose, numbers)
{
    EXPECT_EQ(roomy_limit(0), 1024u);
    EXPECT_EQ(roomy_limit(1024), 1024u);
    EXPECT_EQ(roomy_limit(1025), 2048u);
    EXPECT_EQ(with_commas(0), "0");
    EXPECT_EQ(with_commas(999), "999");
    EXPECT_EQ(with_commas(1000), "1,000");
    EXPECT_EQ(with_commas(1234567), "1,234,567");
    EXPECT_EQ(counted(1, "directory"), "1 directory");
    EXPECT_EQ(counted(0, "directory"), "0 directories");
    EXPECT_EQ(counted(2, "watch"), "2 watches");
    EXPECT_EQ(counted(2, "path"), "2 paths");
    EXPECT_EQ(counted(5, "event"), "5 events");
}

TEST(CliMarks, counts_of_a_made_up_proc)
{
    const agent_testing::Folder proc;
    proc.dir("12/fd");
    proc.dir("12/fdinfo");
    std::string info = "pos:\t0\nflags:\t00\n";
    for (int i = 0; i < 3000; i++)  // more than one read
        info += "inotify wd:" + std::to_string(i) + " ino:1 sdev:1 mask:fff ignored_mask:0 fhandle-bytes:8\n";
    proc.file("12/fdinfo/5", info);
    proc.file("12/fdinfo/6", "fanotify flags:0 event-flags:0\nfanotify ino:1 sdev:2\nfanotify mnt_id:1d mflags:0\n");
    std::filesystem::create_symlink("anon_inode:inotify", proc.path("12/fd/5"));
    std::filesystem::create_symlink("anon_inode:[fanotify]", proc.path("12/fd/6"));
    std::filesystem::create_symlink("/dev/null", proc.path("12/fd/0"));
    const Marks marks = process_marks("12", proc.root().c_str());
    EXPECT_EQ(marks.inotify_instances, 1u);
    EXPECT_EQ(marks.inotify_watches, 3000u);
    EXPECT_EQ(marks.fanotify_instances, 1u);
    EXPECT_EQ(marks.fanotify_mounts, (std::vector<uint64_t>{0x1d}));
    EXPECT_EQ(user_marks(geteuid(), proc.root().c_str()).inotify_watches, 3000u);
    EXPECT_EQ(user_marks(geteuid() + 1, proc.root().c_str()).inotify_watches, 0u);
    EXPECT_EQ(process_marks("13", proc.root().c_str()).inotify_instances, 0u);
}
