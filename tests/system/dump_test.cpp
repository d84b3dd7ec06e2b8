/*
 * `fmon dump` against a running `fmon watch`, both as a user starts them.
 */
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "harness.h"

using namespace systest;
using testlib::TempTree;

namespace
{

const std::string kFmon = std::string(FMON_TEST_BIN) + "/fmon";

struct Answer {
    int status;
    std::string text, errors;
};

std::string join(const std::vector<std::string> &lines)
{
    std::string text;
    for (const std::string &line : lines)
        text += line + "\n";
    return text;
}

/* What a program prints until it ends. */
Answer finish(Process &process, int ms = kPatienceMs)
{
    std::vector<std::string> lines;
    while (auto line = process.line(ms))
        lines.push_back(*line);
    const int status = process.wait();
    return {status, join(lines), process.errors()};
}

Answer dump(const std::vector<std::string> &arguments)
{
    std::vector<std::string> argv = {kFmon, "dump"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    Process process({argv});
    return finish(process);
}

void expect_has(const std::string &text, std::initializer_list<const char *> parts)
{
    for (const char *part : parts)
        EXPECT_NE(text.find(part), std::string::npos) << "no '" << part << "' in:\n" << text;
}

/* One line on stderr, status 2, nothing on stdout. */
void expect_refused(const Answer &answer, const char *reason)
{
    EXPECT_EQ(2, answer.status) << answer.errors;
    EXPECT_EQ("", answer.text);
    expect_has(answer.errors, {reason});
    EXPECT_EQ(answer.errors.find('\n'), answer.errors.size() - 1) << answer.errors;
}

class Dump : public testing::Test
{
protected:
    std::string pid() { return std::to_string(watch_->process().pid()); }

    void SetUp() override
    {
        if (geteuid() != 0 && !getenv("XDG_RUNTIME_DIR")) { /* as a session of the user has it */
            chmod(runtime_.root().c_str(), 0700);
            setenv("XDG_RUNTIME_DIR", runtime_.root().c_str(), 1);
        }
        tree_.dir("sub");
        watch_.emplace(tree_.root(), std::vector<std::string>{"-r"});
        watch_->established();
    }

    /* Reads events until one is about that path. */
    Json event_of(const std::string &path)
    {
        for (int64_t end = now_ms() + kPatienceMs; now_ms() < end;)
            if (auto object = watch_->next(); object && object->value("path", "") == path)
                return *object;
        ADD_FAILURE() << "no event of " << path;
        return {};
    }

    static inline TempTree runtime_;
    TempTree tree_;
    std::optional<Watch> watch_;
};

TEST_F(Dump, EveryPart)
{
    watch_.emplace(tree_.root(), std::vector<std::string>{"-r", "--source", "marks"});
    watch_->established();
    const std::string watch = "    [W] " + tree_.root() + " (dentry), event ";
    expect_has(dump({"-t", "instances", pid()}).text,
               {"Instance:\n  watch id 0\n", watch.c_str(), "flags dir,recursive,sync, maxdepth 0, maxsubdirs 0"});
    EXPECT_EQ("TBD list:\n", dump({"-t", "waiting", pid()}).text);
    const std::string deepest = by_filesystem() ? tree_.root() : tree_.path("sub"); /* what has a mark of its own */
    expect_has(dump({"-t", "dentries", pid()}).text, {"Dentry:\n  /", ("  " + deepest + "\n").c_str()});
    EXPECT_EQ("Events:\ncount: 0\n", dump({"-t", "events", pid()}).text);
    for (const char *part : {"backend", "files", "losses"}) {
        const Answer answer = dump({"-t", part, pid()});
        EXPECT_EQ(0, answer.status);
        EXPECT_EQ("", answer.text);
        expect_has(answer.errors, {"has nothing to tell about", part});
    }
    const Answer all = dump({pid()});
    EXPECT_EQ(0, all.status);
    EXPECT_EQ("", all.errors);
    expect_has(all.text, {"Instance:\n", "\n\nTBD list:\n", "\n\nDentry:\n", "\n\nEvents:\ncount: 0\n"});
    for (int type = 0; type <= 6; type++)
        EXPECT_EQ(0, dump({"-t", std::to_string(type), pid()}).status) << type;
    EXPECT_EQ(dump({"-t", "0", pid()}).text, all.text);
    EXPECT_EQ(0, watch_->stop());
}

/* How long the command needs to start is not known, so that a longer hold is tried where a short one missed. */
TEST_F(Dump, HoldShowsEventsAndLosesNone)
{
    Answer answer;
    std::string first, evil;
    for (int seconds = 1; seconds <= 16 && answer.text.find("first") == std::string::npos; seconds *= 2) {
        Process held({{kFmon, "dump", "-t", "events", "--hold", std::to_string(seconds), pid()}});
        pause_ms(seconds * 300);
        first = tree_.path("first" + std::to_string(seconds));
        evil = tree_.path("sub/a\n\033[31m" + std::to_string(seconds));
        make_file(first);
        make_file(evil);
        answer = finish(held, 2 * kPatienceMs);
        EXPECT_EQ(0, answer.status) << answer.errors;
        const Json events = event_of(first)["events"]; /* of its process, where probes name it, all in one */
        EXPECT_NE(std::find(events.begin(), events.end(), "create"), events.end()) << events.dump();
        event_of(evil);
    }
    expect_has(answer.text, {"Events:\ncount: ", (first + ", event ").c_str(), "create", ", ref 1, pending 0\n",
                             (tree_.path("sub/a\\n\\033[31m")).c_str()});
    EXPECT_EQ(answer.text.find('\033'), std::string::npos);
    EXPECT_EQ(0, watch_->stop());
}

TEST_F(Dump, HoldThatTheWatchsEndBreaksLosesNone)
{
    Process held({{kFmon, "dump", "--hold", "30", pid()}});
    pause_ms(500);
    make_file(tree_.path("late"));
    pause_ms(300);
    watch_->process().send(SIGINT);
    event_of(tree_.path("late"));
    EXPECT_EQ(0, watch_->process().wait());
    const Answer answer = finish(held);
    EXPECT_TRUE(answer.status == 0 || answer.status == 2) << answer.status;
}

TEST_F(Dump, KilledAskerIsForgotten)
{
    {
        Process held({{kFmon, "dump", "--hold", "30", pid()}});
        pause_ms(500);
        held.send(SIGKILL);
        held.wait();
    }
    make_file(tree_.path("after"));
    event_of(tree_.path("after"));
    EXPECT_EQ(0, dump({pid()}).status);
    EXPECT_EQ(0, watch_->stop());
}

TEST_F(Dump, StoppedAskerDoesNotStopTheWatch)
{
    Process held({{kFmon, "dump", "--hold", "0.2", pid()}});
    held.send(SIGSTOP);
    make_file(tree_.path("meanwhile"));
    event_of(tree_.path("meanwhile"));
    held.send(SIGCONT);
    held.wait();
    EXPECT_EQ(0, watch_->stop());
}

TEST_F(Dump, LeavesTheLogAlone)
{
    TempTree log;
    log.dir("home");
    symlink(FMON_TEST_BIN, log.path("home/bin").c_str());
    symlink(FMON_TEST_LIB, log.path("home/lib").c_str());
    Process quiet({{kFmon, "watch", "--log", "stderr", "--format", "json", tree_.root()},
                   false,
                   {"FMON_HOME=" + log.path("home")}});
    quiet.line();
    const Answer answer = dump({std::to_string(quiet.pid())});
    expect_has(answer.text, {"Instance:"});
    EXPECT_EQ(0, quiet.interrupt());
    expect_has(quiet.errors(), {" warning "}); /* it is the log that is looked at */
    for (const char *part : {" debug ", "Instance:"})
        EXPECT_EQ(quiet.errors().find(part), std::string::npos) << quiet.errors();
    EXPECT_EQ(0, watch_->stop());
}

TEST_F(Dump, SeveralAreListed)
{
    Process other({{kFmon, "watch", "--format", "json", tree_.path("sub")}});
    other.line();
    const Answer answer = dump({});
    EXPECT_EQ(2, answer.status);
    EXPECT_EQ("", answer.text);
    expect_has(answer.errors, {"more than one fmon watch is running", ("  " + pid() + " ").c_str(),
                               ("  " + std::to_string(other.pid()) + " ").c_str(), "watch --format json"});
    expect_has(dump({"-t", "1", std::to_string(other.pid())}).text, {(tree_.path("sub") + " (dentry)").c_str()});
    EXPECT_EQ(0, other.interrupt());
    EXPECT_EQ(0, watch_->stop());
}

/* As another user does who knows where the watch listens. 0, or the errno. */
int connect_as(uid_t uid, pid_t watch)
{
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    ("/run/fmon/fmon-" + std::to_string(watch) + ".socket").copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(0, seteuid(uid));
    const int error = connect(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address) == 0 ? 0 : errno;
    EXPECT_EQ(0, seteuid(0));
    close(fd);
    return error;
}

TEST_F(Dump, AnotherUserIsRefused)
{
    NEED(geteuid() == 0, "only root can become another user");
    EXPECT_EQ(EACCES, connect_as(65534, watch_->process().pid()));
    EXPECT_EQ(0, connect_as(0, watch_->process().pid()));
    EXPECT_EQ(0, watch_->stop());
    EXPECT_EQ(ENOENT, connect_as(0, watch_->process().pid())) << "the name goes with the watch";
}

TEST(DumpOfNothing, OneLineEach)
{
    expect_refused(dump({"2147483646"}), "there is no process 2147483646");
    expect_refused(dump({"1"}), "process 1 is no running fmon watch");
    expect_refused(dump({std::to_string(getpid())}), "is no running fmon watch");
    expect_refused(dump({"-t", "8"}), "--type takes all, instances, waiting, dentries, events, backend, files, losses");
    expect_refused(dump({"--hold", "x"}), "--hold takes seconds");
    const Answer help = dump({"--help"});
    EXPECT_EQ(0, help.status);
    expect_has(help.text, {"Usage: fmon dump", "--hold S", "Examples:"});
}

}  // namespace
