/*
 * `fmon offsets` and `fmon doctor` on the machine's own kernel, as a user starts them.
 */
#include <gtest/gtest.h>
#include <sys/fanotify.h>
#include <sys/inotify.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "harness.h"

using namespace systest;
using testlib::TempTree;

namespace
{

constexpr char kBtf[] = "/sys/kernel/btf/vmlinux";

struct Answer {
    int status = -1;
    std::vector<std::string> lines;
    std::string errors;
};

Answer run(const std::vector<std::string> &arguments)
{
    std::vector<std::string> argv = {std::string(FMON_TEST_BIN) + "/fmon"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    Process process({argv});
    Answer answer;
    while (auto line = process.line())
        answer.lines.push_back(*line);
    answer.status = process.wait();
    answer.errors = process.errors();
    return answer;
}

void expect_refused(const Answer &answer, const std::string &reason)
{
    EXPECT_EQ(2, answer.status);
    EXPECT_TRUE(answer.lines.empty());
    EXPECT_NE(answer.errors.find(reason), std::string::npos) << answer.errors;
    EXPECT_EQ(answer.errors.find('\n'), answer.errors.size() - 1) << answer.errors;
}

/* The value of "KEY = VALUE". */
int number_in(const std::string &line, const std::string &key)
{
    EXPECT_EQ(0u, line.rfind(key + " = ", 0)) << line;
    return atoi(line.substr(std::min(line.size(), key.size() + 3)).c_str());
}

std::map<std::string, Json> doctor_checks()
{
    std::map<std::string, Json> checks;
    for (const std::string &line : run({"doctor", "--format", "json"}).lines) {
        const Json check = Json::parse(line);
        EXPECT_EQ("check", check.value("type", ""));
        checks[check.value("section", "") + " " + check.value("name", "")] = check;
    }
    return checks;
}

bool is_root() { return geteuid() == 0; }

}  // namespace

TEST(Offsets, OfTheRunningKernel)
{
    NEED(access(kBtf, R_OK) == 0, "this kernel was built without BTF");
    const Answer answer = run({"offsets", "--release", "6.1.0-37-amd64"});
    ASSERT_EQ(0, answer.status) << answer.errors;
    ASSERT_EQ(3u, answer.lines.size());
    struct utsname name;
    ASSERT_EQ(0, uname(&name));
    EXPECT_EQ(answer.lines[0], std::string("[6.1.0-37-") + name.machine + "]");
    const int s_mounts = number_in(answer.lines[1], "s_mounts_offset"),
              mnt_id = number_in(answer.lines[2], "mnt_id_offset");
    EXPECT_GT(s_mounts, 0);
    EXPECT_LT(s_mounts, 4096);
    EXPECT_GT(mnt_id, 0);
    EXPECT_LT(mnt_id, 4096);
    // The same from a copy of the file, as from another machine.
    TempTree tree;
    std::filesystem::copy_file(kBtf, tree.path("btf"));
    EXPECT_EQ(run({"offsets", "--release", "6.1.0-37-amd64", tree.path("btf")}).lines, answer.lines);
    expect_refused(run({"offsets", tree.path("btf")}), "--release");
    const Answer json = run({"offsets", "-f", "json", "--release", "6.1.0-37-amd64"});
    ASSERT_EQ(1u, json.lines.size());
    EXPECT_EQ(Json::parse(json.lines[0]).value("s_mounts_offset", 0), s_mounts);
    EXPECT_EQ(Json::parse(json.lines[0]).value("mnt_id_offset", 0), mnt_id);
}

TEST(Offsets, CutOff)
{
    NEED(access(kBtf, R_OK) == 0, "this kernel was built without BTF");
    TempTree tree;
    std::filesystem::copy_file(kBtf, tree.path("btf"));
    std::filesystem::permissions(tree.path("btf"), std::filesystem::perms::owner_all);
    std::filesystem::resize_file(tree.path("btf"), std::filesystem::file_size(tree.path("btf")) / 2);
    expect_refused(run({"offsets", "--release", "6.1.0-37-amd64", tree.path("btf")}), "truncated or damaged");
}

TEST(Offsets, Refusals)
{
    TempTree tree;
    tree.file("text", "nothing");
    expect_refused(run({"offsets", tree.path("none")}), "none: No such file or directory");
    expect_refused(run({"offsets", tree.path("text")}), "no vmlinuz of a PC, no vmlinux and no BTF");
    expect_refused(run({"offsets", tree.root()}), "no regular file");
    expect_refused(run({"offsets", "/dev/zero"}), "no regular file");
    expect_refused(run({"offsets", "--what"}), "unknown option");
}

TEST(Doctor, EveryLine)
{
    const Answer text = run({"doctor"}), json = run({"doctor", "--format", "json"});
    EXPECT_EQ("", text.errors);
    EXPECT_TRUE(text.status == 0 || text.status == 1) << text.status;
    EXPECT_EQ(json.status, text.status);
    ASSERT_EQ(json.lines.size(), text.lines.size());
    bool missing = false;
    for (size_t i = 0; i < text.lines.size(); i++) {
        const Json check = Json::parse(json.lines[i]);
        const std::string state = check.value("state", "");
        EXPECT_TRUE(state == "ok" || state == "warn" || state == "no") << json.lines[i];
        EXPECT_EQ(0u, text.lines[i].rfind(state + " ", 0)) << text.lines[i];
        EXPECT_EQ(text.lines[i].find('\033'), std::string::npos) << "no terminal, no colours";
        missing |= state == "no" && check.value("reachable", true);
    }
    EXPECT_EQ(text.status, missing ? 1 : 0);
}

TEST(Doctor, SeesTheMachine)
{
    const auto checks = doctor_checks();
    struct utsname name;
    ASSERT_EQ(0, uname(&name));
    EXPECT_EQ("ok", checks.at("installation monitor")["state"]);
    EXPECT_EQ("ok", checks.at("installation fmon.ini")["state"]);
    EXPECT_NE(checks.at("kernel release").value("text", "").find(name.release), std::string::npos);
    EXPECT_EQ(checks.at("rights CAP_SYS_ADMIN")["state"] == "ok", is_root() && testlib::can_fanotify());
    EXPECT_EQ(checks.at("fanotify group")["state"] == "ok", testlib::can_fanotify());
}

// What is used of a limit, by somebody who uses it.
TEST(Doctor, CountsWatches)
{
    const auto used = [] {
        uint64_t number = 0;
        for (const char c : doctor_checks().at("inotify watches").value("text", "")) {
            if (c == ' ')
                break;
            if (c != ',')
                number = number * 10 + static_cast<uint64_t>(c - '0');
        }
        return number;
    };
    TempTree tree;
    const int fd = inotify_init1(IN_CLOEXEC);
    ASSERT_GE(fd, 0);
    for (int i = 0; i < 300; i++)
        ASSERT_GT(inotify_add_watch(fd, tree.dir(std::to_string(i)).c_str(), IN_CREATE), 0);
    EXPECT_GE(used(), 300u);
    close(fd);
}

// It looks, and leaves everything as it was.
TEST(Doctor, ChangesNothing)
{
    const auto listing = [] {
        std::ostringstream text;
        for (const auto &entry : std::filesystem::recursive_directory_iterator(FMON_TEST_BIN "/../var"))
            text << entry.path() << (entry.is_regular_file() ? entry.file_size() : 0) << "\n";
        for (const char *file :
             {"/sys/kernel/tracing/kprobe_events", "/proc/sys/fs/inotify/max_user_watches", "/proc/self/mountinfo"})
            text << std::ifstream(file).rdbuf() << "\n";
        return text.str();
    };
    const std::string before = listing();
    run({"doctor"});
    EXPECT_EQ(listing(), before);
}
