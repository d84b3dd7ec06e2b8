/*
 * Descriptors at the ends of their range: none of the three standard ones open at the start, so that the next ones get
 * their numbers; and numbers above those that the C library's select() sets hold.
 */
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "harness.h"
#include "orx_fmon.h"

using namespace systest;
using testlib::can_fanotify;
using testlib::TempTree;

namespace
{

std::vector<std::string> lines_of(const std::string &path)
{
    std::ifstream in(path);
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);)
        out.push_back(line);
    return out;
}

/* Waits for a line that holds all of `parts`. */
bool wait_for_line(const std::string &path, const std::vector<std::string> &parts, int ms = kPatienceMs)
{
    for (int64_t deadline = now_ms() + ms; now_ms() < deadline; pause_ms(20))
        for (const std::string &line : lines_of(path))
            if (std::all_of(parts.begin(), parts.end(),
                            [&](const std::string &part) { return line.find(part) != line.npos; }))
                return true;
    return false;
}

std::string hex(const std::string &text)
{
    std::string out;
    char two[3];
    for (char c : text) {
        snprintf(two, sizeof two, "%02x", static_cast<unsigned char>(c));
        out += two;
    }
    return out;
}

/* Numbers and targets of another process's descriptors. */
std::map<int, std::string> descriptors_of(pid_t pid)
{
    std::map<int, std::string> out;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
        std::error_code gone;
        out[std::stoi(entry.path().filename())] = std::filesystem::read_symlink(entry.path(), gone);
    }
    return out;
}

/* ---- closed standard descriptors ---- */

TEST(ClosedStandardDescriptors, TheCommandWritesToItsFile)
{
    TempTree tree, results;
    std::string file = results.path("events");
    Process fmon({{std::string(FMON_TEST_BIN) + "/fmon", "watch", "-r", "-e", "all", "--format", "json", "-o", file,
                   tree.root()},
                  true});
    ASSERT_TRUE(wait_for_line(file, {"\"established\""})) << testing::PrintToString(lines_of(file));
    make_file(tree.path("a"));
    EXPECT_TRUE(wait_for_line(file, {"\"create\"", tree.path("a")})) << testing::PrintToString(lines_of(file));
    EXPECT_TRUE(!can_fanotify() || wait_for_line(file, {"\"close_write\"", tree.path("a")}));
    for (const std::string &line : lines_of(file)) /* nobody else wrote into it by number */
        EXPECT_TRUE(Json::parse_if(line)) << line;
    EXPECT_EQ(0, fmon.interrupt());
}

/* The watched agent's standard input is closed, which must not look like an event source of the monitor's. */
TEST(ClosedStandardDescriptors, TheModuleTakesNoDescriptorZero)
{
    NEED(can_fanotify(), "the monitor's fanotify descriptors need root");
    TempTree tree, results;
    std::string file = results.path("events");
    Process agent(
        {{FMON_TEST_AGENT, "-w", "-o", file, FMON_TEST_LIB, tree.root()}, true, {"FMON_HOME=" FMON_TEST_BIN "/.."}});
    ASSERT_TRUE(wait_for_line(file, {"ready"}));
    auto descriptors = descriptors_of(agent.pid());
    for (const auto &[fd, target] : descriptors)
        EXPECT_TRUE(fd > 0 || target.find("notify") == target.npos) << target;
    make_file(tree.path("a"));
    EXPECT_TRUE(wait_for_line(file, {"fast", hex(tree.path("a"))})) << testing::PrintToString(lines_of(file));
    char close_write[32];
    snprintf(close_write, sizeof close_write, " %d ", getpid());
    EXPECT_TRUE(wait_for_line(file, {"fast", close_write, hex(tree.path("a"))}));
}

/* ---- high ones ---- */

class HighDescriptors : public testing::TestWithParam<int>
{
};

TEST_P(HighDescriptors, ArriveAsAnyOther)
{
    NEED(can_fanotify(), "the monitor's fanotify descriptors need root");
    struct rlimit files;
    getrlimit(RLIMIT_NOFILE, &files);
    NEED(files.rlim_max > static_cast<rlim_t>(GetParam()) + 100, "too few descriptors allowed here");
    TempTree tree;
    Agent agent(tree.root(), {"-d", std::to_string(GetParam())});
    int own = 0;
    for (const auto &[fd, target] : descriptors_of(agent.pid()))
        if (target == "anon_inode:inotify" || target == "anon_inode:[fanotify]") {
            EXPECT_GT(fd, GetParam()) << target;
            own++;
        }
    EXPECT_EQ(3, own);
    unsigned seen = 0;
    make_file(tree.path("a"));
    for (int64_t deadline = now_ms() + kPatienceMs; seen != 0x12a && now_ms() < deadline;)
        if (auto line = agent.line(200))
            if (auto delivery = parse_delivery(*line); delivery && delivery->path == tree.path("a"))
                seen |= delivery->mask;
    EXPECT_EQ(seen, unsigned{FMON_CREATE | FMON_OPEN | FMON_MODIFY | FMON_CLOSE_WRITE});
    agent.close_input();
    EXPECT_EQ(0, agent.wait()) << agent.errors();
}

/* Around the end of fd_set, around the next word, and far beyond. */
INSTANTIATE_TEST_SUITE_P(System, HighDescriptors, testing::Values(1020, 1023, 1086, 4000));

/* ---- few ---- */

/* Kernel probes on many processors need more than the default limit, which is the command's own to raise. */
TEST(FewDescriptors, TheCommandRaisesItsLimit)
{
    struct rlimit files = {}, raised = {};
    getrlimit(RLIMIT_NOFILE, &files);
    NEED(files.rlim_max > 64, "too few descriptors allowed here");
    TempTree tree;
    Process fmon(
        {{"/bin/sh", "-c", "ulimit -S -n 64; exec " FMON_TEST_BIN "/fmon watch --format json " + tree.root()}});
    fmon.line();
    ASSERT_EQ(0, prlimit(fmon.pid(), RLIMIT_NOFILE, nullptr, &raised));
    EXPECT_EQ(raised.rlim_cur, files.rlim_max);
    EXPECT_EQ(0, fmon.interrupt());
}

}  // namespace
