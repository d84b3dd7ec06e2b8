/* Tests of diagnose.h: the sentence that a refusal becomes, with its remedy. */

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

/* A directory that was refused, as the monitor's status has it. */
Findings refused(uint64_t fmon_left_out::*counter, int error, uint32_t step, const char *path = "/x/s")
{
    Findings findings;
    findings.counts.*counter = 1;
    findings.last.code = -108;
    findings.last.error = error;
    findings.last.step = step;
    memcpy(findings.last.path, path, strlen(path) + 1);
    if (counter == &fmon_left_out::denied)
        findings.first_denied = path;
    return findings;
}

const Findings kWatchLimit = refused(&fmon_left_out::inotify_limit, ENOSPC, FMON_STEP_INOTIFY),
               kMarkLimit = refused(&fmon_left_out::fanotify_limit, ENOSPC, FMON_STEP_FANOTIFY),
               kCacheFull = refused(&fmon_left_out::cache_full, 0, FMON_STEP_CACHE),
               kTooLong = refused(&fmon_left_out::too_long, 0, FMON_STEP_READ, ""),
               kDenied = refused(&fmon_left_out::denied, EACCES, FMON_STEP_INOTIFY);

/* A monitor that did not start. */
struct fmon_source failed(const char *what, int error)
{
    struct fmon_source monitor = {FMON_SOURCE_REFUSED, FMON_WHY_SYSTEM, -105, error, ""};
    memcpy(monitor.why, what, strlen(what) + 1);
    return monitor;
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

TEST(CliDiagnose, APathThatAppearedAndMayNotBeWatched)
{
    expect_has(explain_retry({"/a", 0, false, false, kDenied}, machine()), {"/a is there, but", "Permission denied"});
    expect_has(explain_retry({"/a", 0, false, false, {}}, machine()),
               {"/a is there, but cannot be watched: the kernel refused it"});
}

/* As the monitor's log words it. */
TEST(CliDiagnose, TheLastRefusalIsTheReasonWhereThereIsNoBetterOne)
{
    const struct {
        uint32_t step;
        const char *said;
    } rows[] = {
        {FMON_STEP_OPEN, "open /x/s to mark it failed: Input/output error"},
        {FMON_STEP_READ, "open dir /x/s failed: Input/output error"},
        {FMON_STEP_INOTIFY, "inotify add failed: Input/output error"},
        {FMON_STEP_FANOTIFY, "fanotify add failed: Input/output error"},
        {FMON_STEP_MEMORY, "malloc iterate failed: Input/output error"},
        {FMON_STEP_TABLE, "add seq failed"},
        {FMON_STEP_CACHE, "the monitor's log tells why"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(explain_left_out("/x", refused(&fmon_left_out::other, EIO, row.step), 1, machine()),
                  std::string("1 directory below /x is not watched: ") + row.said);
}

TEST(CliDiagnose, LimitOfWatchesNamesUseAndRemedy)
{
    expect_has(refusal(-108, kWatchLimit),
               {"/x", "max_user_watches is reached (8,192", "8,192 in use by this user",
                "2,192 of them by other programs", "sysctl fs.inotify.max_user_watches=16384"});
    expect_has(explain_left_out("/x", kWatchLimit, 100000, machine()),
               {"100,000 directories below /x are not watched", "sysctl fs.inotify.max_user_watches=131072"});
}

TEST(CliDiagnose, LimitOfMarks)
{
    expect_has(refusal(-109, kMarkLimit),
               {"max_user_marks is reached (9,000)", "sysctl fs.fanotify.max_user_marks=16384"});
}

TEST(CliDiagnose, FullCacheNamesTheSetting)
{
    EXPECT_EQ("1 directory below /x is not watched: paths of more than 1,022 bytes cannot be watched",
              explain_left_out("/x", kTooLong, 1, machine()));
    expect_has(explain_left_out("/x", kCacheFull, 1, machine()),
               {"1 directory below /x is not watched", "max_dentries 100", "--set max_dentries=1024"});
    EXPECT_NE(refusal(FMON_ENOMEM).find("--set max_dentries="), std::string::npos);
}

TEST(CliDiagnose, NoPermission)
{
    Facts user = machine();
    user.root = false;
    expect_has(refusal(-108, kDenied, false, false, user), {"/x may not be read: Permission denied", "run as root"});
    expect_has(explain_left_out("/x", kDenied, 3, user),
               {"3 directories below /x are not watched", "/x/s and others", "run as root"});
}

TEST(CliDiagnose, WhatNeedsFanotify)
{
    Facts user = machine();
    user.root = user.fanotify = false;
    expect_has(refusal(FMON_ENOTSUP, {}, false, true, user),
               {"--pid", "needs fanotify, which only root may use", "without --pid", "do not name their process"});
    expect_has(refusal(FMON_ENOTSUP, {}, true, false, user), {"--mount", "only root"});
    user.root = true;
    expect_has(refusal(FMON_ENOTSUP, {}, true, false, user), {"this kernel or container does not offer"});
}

TEST(CliDiagnose, EveryCodeHasOneLineThatNamesThePath)
{
    for (const int code : {-100, -101, -102, -103, -104, -105, -108, -109, -110, -111, -112, -113, -114, -117, -1}) {
        const std::string line = refusal(code);
        expect_has(line, {"/x"});
        EXPECT_GT(line.size(), 15u);
    }
    expect_has(refusal(-1), {"code -1"});
}

/* Neither is a question of permissions, and both are limits. */
TEST(CliDiagnose, NoDescriptors)
{
    for (const auto &[error, said] : {std::pair(EMFILE, "LimitNOFILE="), std::pair(ENFILE, "sysctl fs.file-max")}) {
        const Findings findings = refused(&fmon_left_out::descriptors, error, FMON_STEP_OPEN);
        EXPECT_TRUE(findings.limit_reached());
        EXPECT_EQ(1u, findings.left_out());
        expect_has(explain_left_out("/x", findings, 1, machine()), {"1 directory below /x is not watched: ", said});
        expect_has(explain_refusal({"/x", FMON_ENOENT, false, false, findings}, machine()),
                   {"/x cannot be watched: ", said});
        const Findings mark = refused(&fmon_left_out::other, error, FMON_STEP_FANOTIFY);
        expect_has(explain_refusal({"/x", -109, false, false, mark}, machine()), {"/x cannot be watched: ", said});
    }
}

TEST(CliDiagnose, StartFailures)
{
    Facts facts = machine();
    const struct fmon_source instances = failed("init inotify failed", EMFILE);
    facts.user_instances = 128;
    expect_has(explain_start_failure(instances, facts),
               {"max_user_instances is reached (128", "sysctl fs.inotify.max_user_instances=1024"});
    facts.user_instances = 3;
    expect_has(explain_start_failure(instances, facts), {"ulimit -n"});
    facts.descriptors_left = 3;
    expect_has(explain_start_failure(instances, facts), {"no file descriptor is left", "LimitNOFILE="});
    expect_has(explain_start_failure(failed("init inotify failed", ENFILE), machine()),
               {"the system has no file descriptor left", "fs.file-max"});
    expect_has(explain_start_failure(failed("init inotify failed", ENOMEM), machine()),
               {"the monitor cannot start: init inotify failed: Cannot allocate memory; --verbose shows its log"});
    expect_has(explain_start_failure(failed("create file monitor thread failed", 0), machine()),
               {"the monitor cannot start: create file monitor thread failed; --verbose shows its log"});
    expect_has(explain_start_failure({}, facts), {"the monitor cannot start; --verbose"});
}

TEST(CliDiagnose, AFullCacheAndNoMemoryAreOneCode)
{
    expect_has(refusal(FMON_ENOMEM, kCacheFull),
               {"/x cannot be watched: out of memory, or the monitor's cache is full"});
}

TEST(CliDiagnose, Numbers)
{
    EXPECT_EQ(1024u, roomy_limit(0));
    EXPECT_EQ(1024u, roomy_limit(1024));
    EXPECT_EQ(2048u, roomy_limit(1025));
    EXPECT_EQ("0", with_commas(0));
    EXPECT_EQ("999", with_commas(999));
    EXPECT_EQ("1,000", with_commas(1000));
    EXPECT_EQ("1,234,567", with_commas(1234567));
    EXPECT_EQ("1 directory", counted(1, "directory"));
    EXPECT_EQ("0 directories", counted(0, "directory"));
    EXPECT_EQ("2 watches", counted(2, "watch"));
    EXPECT_EQ("2 paths", counted(2, "path"));
    EXPECT_EQ("5 events", counted(5, "event"));
}

TEST(CliMarks, CountsOfAMadeUpProc)
{
    const agent_testing::Directory proc;
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
    EXPECT_EQ(1u, marks.inotify_instances);
    EXPECT_EQ(3000u, marks.inotify_watches);
    EXPECT_EQ(1u, marks.fanotify_instances);
    EXPECT_EQ((std::vector<uint64_t>{0x1d}), marks.fanotify_mounts);
    EXPECT_EQ(3000u, user_marks(geteuid(), proc.root().c_str()).inotify_watches);
    EXPECT_EQ(0u, user_marks(geteuid() + 1, proc.root().c_str()).inotify_watches);
    EXPECT_EQ(0u, process_marks("13", proc.root().c_str()).inotify_instances);
}

TEST(CliDiagnose, WhatNoMarkOfAFileSystemServes)
{
    const struct fmon_fallback refused_mark = {FMON_FALLBACK_MARK, EPERM, "/x"}, file = {FMON_FALLBACK_KIND, 0, "/x"};
    expect_has(explain_refusal({"/x", kNotServed, false, false, {}, refused_mark}, machine()),
               {"/x cannot be watched with --source filesystem: a whole file system may not be marked", "CAP_SYS_ADMIN",
                "; --source auto"});
    expect_has(explain_refusal({"/x", kNotServed, false, false, {}, file}, machine()), {"only directories are"});
    expect_has(explain_retry({"/x", kNotServed, false, false, {}, file}, machine()),
               {"/x is there, but cannot be watched with --source filesystem"});
    expect_has(explain_refusal({"/x", FMON_ENOTSUP, false, true, {}, refused_mark}, machine()),
               {"cannot be watched with --pid: only open, access", "since no mark of its file system serves: a whole"});
    expect_has(explain_refusal({"/x", FMON_ENOTSUP, false, true, {}}, machine()), {"modify, close_write"});
}
