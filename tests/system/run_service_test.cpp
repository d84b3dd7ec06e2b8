/* `fmon run`: start, figures, reloads under churn, the end, outputs that are slow, and many instances. */
#include "run_service.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

using namespace systest;
using testlib::TempTree;

namespace
{

class RunService : public testing::Test
{
protected:
    std::string out(const std::string &name = "out.json") const { return tree.path(name); }

    bool has(const std::string &file, const std::string &part) const
    {
        return await([&] { return content(file).find(part) != std::string::npos; });
    }

    std::set<std::string> created_in(const std::string &file) const
    {
        const std::vector<std::string> paths = paths_in(file, {"create"});
        return {paths.begin(), paths.end()};
    }

    /* Whether the state directory says that a service watches. */
    bool is_noted() const
    {
        for (const auto &entry : std::filesystem::directory_iterator(tree.path("state"))) {
            std::ifstream file(entry.path());
            std::string time, boot, ended;
            if (entry.path().extension() != ".new" && file >> time >> boot >> ended && ended == "0")
                return true;
        }
        return false;
    }

    TempTree tree;
    Service service{tree};
};

/* Makes files in a directory until it is told to stop. */
class Churn
{
public:
    explicit Churn(const std::string &directory)
        : thread_([this, directory] {
              while (!over_) {
                  make_file(directory + "/" + std::to_string(made_++));
                  pause_ms(1);
              }
          })
    {
    }
    ~Churn() { stop(); }
    size_t stop()
    {
        over_ = true;
        if (thread_.joinable())
            thread_.join();
        return made_;
    }
    size_t made() const { return made_; }

private:
    std::atomic<bool> over_ = false;
    std::atomic<size_t> made_ = 0;
    std::thread thread_;
};

}  // namespace

TEST_F(RunService, EventsReachTheFileWithTheNameOfTheirInstance)
{
    service.configure(instance_text("web", tree_text(tree.dir("w")), file_text(out())));
    service.start();
    make_file(tree.path("w/a"));
    ASSERT_TRUE(has(out(), tree.path("w/a")));
    EXPECT_NE(std::string::npos, content(out()).find("\"instance\":\"web\",\"host\":\""));
    EXPECT_NE(std::string::npos, content(out()).find("\"type\":\"established\""));
}

// The service looks after its outputs every two seconds: more often where the manager waits for no longer.
TEST_F(RunService, FeedsAWatchdogOfAnyLimit)
{
    service.configure(instance_text("one", tree_text(tree.dir("in")), file_text(out())));
    service.launch("WATCHDOG_USEC=400000");
    EXPECT_TRUE(service.hears("WATCHDOG=1", 20)) << service.process().errors();
}

TEST_F(RunService, ItSaysHowItDoes)
{
    service.configure(instance_text("web", tree_text(tree.dir("w")), file_text(out()), "exclude = [\"b$\"]\n"));
    service.start();
    EXPECT_TRUE(service.hears("STATUS=watching: 1 instance"));
    make_file(tree.path("w/b"));
    make_file(tree.path("w/a"));
    ASSERT_TRUE(has(out(), tree.path("w/a")));
    struct stat st;
    ASSERT_EQ(0, stat(tree.path("socket").c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 0777);
    const Json stats = service.stats();
    EXPECT_EQ(service.process().pid(), stats["service"].value("pid", 0));
    const Json web = *stats["instances"].begin();
    EXPECT_EQ("web", web.value("name", ""));
    EXPECT_GT(web.value("filtered", 0), 0);
    EXPECT_EQ(web.value("events_in", 0), web.value("events", 0) + web.value("filtered", 0));
    EXPECT_EQ("watching", (*web["watches"].begin()).value("state", ""));
    EXPECT_EQ("file", (*web["outputs"].begin()).value("type", ""));
    EXPECT_EQ(web.value("events", 0), web["latency_us"].value("count", 0));
}

TEST_F(RunService, PrometheusReadsItsFigures)
{
    service.configure(instance_text("web", tree_text(tree.dir("w")), file_text(out())),
                      "prometheus = \"" + tree.path("metrics") + "\"\n");
    service.start();
    const std::string answer = service.ask("metrics", "GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_EQ(0u, answer.find("HTTP/1.0 200 OK\r\nContent-Type: text/plain; version=0.0.4\r\n")) << answer;
    EXPECT_NE(std::string::npos, answer.find("instance=\"web\"")) << answer;
    EXPECT_EQ("{\"error\":\"unknown request\"}\n", service.ask("socket", "what\n"));
}

TEST_F(RunService, AReloadChangesWhatChangedAndLosesNothing)
{
    const std::string stays = instance_text("stays", tree_text(tree.dir("stays")), file_text(out("stays.json")));
    const auto other = [&](const std::string &directory) {
        return instance_text("other", tree_text(tree.dir(directory)), file_text(out(directory + ".json")));
    };
    service.configure(stays + other("x"));
    service.start();
    Churn churn(tree.path("stays"));
    for (const std::string round : {"y1", "x2", "y3"}) {
        const std::string directory = round.substr(0, 1);
        service.configure(stays + other(directory));
        service.reload();
        make_file(tree.path(directory + "/" + round));
        EXPECT_TRUE(has(out(directory + ".json"), "/" + round));
        const size_t made = churn.made();
        await([&] { return churn.made() > made + 50; });
    }
    const size_t made = churn.stop();
    EXPECT_TRUE(await([&] { return created_in(out("stays.json")).size() == made; }))
        << created_in(out("stays.json")).size() << " of " << made;
    EXPECT_EQ(made, paths_in(out("stays.json"), {"create"}).size());
    EXPECT_EQ(3, service.stats()["service"].value("reloads", 0));
    make_file(tree.path("x/after"));
    make_file(tree.path("y/after"));
    EXPECT_TRUE(has(out("y.json"), "y/after"));
    EXPECT_EQ(std::string::npos, content(out("x.json")).find("x/after"));
}

TEST_F(RunService, OutputsAndFiltersChangeWhileTheWatchStays)
{
    const std::string watch = tree_text(tree.dir("w"));
    service.configure(instance_text("web", watch, file_text(out("1.json"))));
    service.start();
    Churn churn(tree.path("w"));
    await([&] { return churn.made() > 50; });
    service.configure(instance_text("web", watch, file_text(out("2.json"))));
    service.reload();
    const size_t then = churn.made();
    await([&] { return churn.made() > then + 50; });
    const size_t made = churn.stop();
    const auto seen = [&] {
        std::set<std::string> all = created_in(out("1.json"));
        all.merge(created_in(out("2.json")));
        return all.size();
    };
    EXPECT_TRUE(await([&] { return seen() == made; })) << seen() << " of " << made;
    EXPECT_EQ(1u, content(out("1.json")).find("\"type\":\"established\""));
    EXPECT_EQ(std::string::npos, content(out("2.json")).find("\"type\":\"established\""));
}

TEST_F(RunService, AFileWithErrorsChangesNothing)
{
    const std::string good = instance_text("web", tree_text(tree.dir("w")), file_text(out()));
    service.configure(good);
    service.start();
    service.configure(good + "\n[[instance.output]]\ntyp = \"file\"\n");
    service.reload();
    EXPECT_NE(std::string::npos, service.process().errors().find("unknown key 'typ' in [[instance.output]]"));
    EXPECT_NE(std::string::npos, service.process().errors().find("the configuration was not taken over"));
    EXPECT_NE("", service.stats()["service"].value("reload_error", ""));
    make_file(tree.path("w/a"));
    EXPECT_TRUE(has(out(), tree.path("w/a")));
}

TEST_F(RunService, AnOutputThatCannotBeHadChangesNothing)
{
    service.configure(instance_text("web", tree_text(tree.dir("w")), file_text(out())));
    service.start();
    service.configure(instance_text("web", tree_text(tree.dir("w2")),
                                    "type = \"file\"\npath = \"" + tree.path("no") + "/such/out.json\"\n"));
    service.reload();
    EXPECT_NE("", service.stats()["service"].value("reload_error", ""));
    make_file(tree.path("w/a"));
    EXPECT_TRUE(has(out(), tree.path("w/a")));
}

TEST_F(RunService, ItDoesNotStartWithErrors)
{
    service.configure("[[instance]]\nnme = \"a\"\n");
    service.launch();
    EXPECT_EQ(2, service.process().wait());
    EXPECT_NE(std::string::npos, service.process().errors().find("fmon.toml:7:1: unknown key 'nme' in [[instance]]"))
        << service.process().errors();
}

TEST_F(RunService, TheEndBringsWhatWasSeen)
{
    service.configure(instance_text("web", tree_text(tree.dir("w")), file_text(out())));
    service.start();
    for (int i = 0; i < 3000; i++)
        make_file(tree.path("w/" + std::to_string(i)));
    service.process().send(SIGTERM);
    EXPECT_EQ(0, service.process().wait(2 * kPatienceMs)) << service.process().errors();
    EXPECT_EQ(3000u, created_in(out()).size());
    EXPECT_TRUE(service.hears("STOPPING=1"));
    EXPECT_NE(std::string::npos, service.process().errors().find("ended: all is delivered"));
}

TEST_F(RunService, TheEndBringsWhatTheKernelStillHolds)
{
    service.configure(instance_text("web", tree_text(tree.dir("w")) + "events = [\"create\"]\n", file_text(out())));
    service.start();
    service.process().send(SIGSTOP);
    for (int i = 0; i < 2000; i++)
        make_file(tree.path("w/" + std::to_string(i)));
    service.process().send(SIGTERM);
    service.process().send(SIGCONT);
    EXPECT_EQ(0, service.process().wait(2 * kPatienceMs)) << service.process().errors();
    EXPECT_EQ(2000u, created_in(out()).size());
}

TEST_F(RunService, WhatIsNotDeliveredInTimeIsSaid)
{
    service.configure(instance_text("stuck", tree_text(tree.dir("w")),
                                    "type = \"command\"\ncommand = \"exec sleep 1000\"\nbuffer = \"64 KiB\"\n"),
                      "drain = \"1 s\"\n");
    service.start();
    for (int i = 0; i < 2000; i++)
        make_file(tree.path("w/" + std::to_string(i)));
    const int64_t start = now_ms();
    service.process().send(SIGTERM);
    EXPECT_EQ(0, service.process().wait()) << service.process().errors();
    EXPECT_LT(now_ms() - start, 8000);
    EXPECT_NE(std::string::npos,
              service.process().errors().find(" not delivered, since the time to end ('drain') is over"))
        << service.process().errors();
}

TEST_F(RunService, ASlowOutputHoldsNobodyElseUp)
{
    const std::string go = tree.path("go");
    service.configure(instance_text("slow", tree_text(tree.dir("w")),
                                    "type = \"command\"\ncommand = \"until [ -e " + go +
                                        " ]; do sleep 0.1; done; exec cat >" + out("slow.json") +
                                        "\"\nbuffer = \"64 KiB\"\n") +
                      instance_text("quick", tree_text(tree.path("w")), file_text(out("quick.json"))));
    service.start();
    constexpr size_t kFiles = 3000;
    for (size_t i = 0; i < kFiles; i++)
        make_file(tree.path("w/" + std::to_string(i)));
    EXPECT_TRUE(await([&] { return created_in(out("quick.json")).size() == kFiles; }));
    EXPECT_TRUE(service.hears("slow: output command is stuck"));
    make_file(go);
    EXPECT_TRUE(await([&] { return created_in(out("slow.json")).size() == kFiles; }, 30'000))
        << created_in(out("slow.json")).size();
}

TEST_F(RunService, AMissingPathIsWaitedForAndTheRestIsWatched)
{
    service.configure(instance_text("later", tree_text(tree.path("later")), file_text(out("later.json"))) +
                      instance_text("now", tree_text(tree.dir("now")), file_text(out("now.json"))));
    service.start();
    make_file(tree.path("now/a"));
    EXPECT_TRUE(has(out("now.json"), "now/a"));
    make_dir(tree.path("later"));
    EXPECT_TRUE(has(out("later.json"), "\"type\":\"appeared\""));
    make_file(tree.path("later/a"));
    EXPECT_TRUE(has(out("later.json"), "later/a"));
}

TEST_F(RunService, ThirtyTwoInstances)
{
    std::string text;
    for (int i = 0; i < 32; i++)
        text += instance_text("i" + std::to_string(i), tree_text(tree.dir("w" + std::to_string(i))),
                              file_text(out(std::to_string(i) + ".json")));
    service.configure(text);
    service.start();
    for (int i = 0; i < 32; i++)
        make_file(tree.path("w" + std::to_string(i) + "/a"));
    for (int i = 0; i < 32; i++) {
        const std::string directory = "w" + std::to_string(i) + "/";
        EXPECT_TRUE(has(out(std::to_string(i) + ".json"), directory + "a"));
        for (const std::string &path : paths_in(out(std::to_string(i) + ".json"), {"create"}))
            EXPECT_NE(std::string::npos, path.find("/" + directory)) << path;
    }
    service.process().send(SIGTERM);
    EXPECT_EQ(0, service.process().wait());
}

TEST_F(RunService, SaysFromWhenUntilWhenItDidNotRun)
{
    tree.dir("state");
    service.configure(instance_text("web", tree_text(tree.dir("w")), file_text(out())));
    service.start();
    service.process().send(SIGTERM);
    EXPECT_EQ(0, service.process().wait(2 * kPatienceMs));
    EXPECT_EQ(std::string::npos, content(out()).find("unwatched"));
    service.start();
    EXPECT_TRUE(has(out(), "\"reason\":\"stopped\",\"instance\":\"web\""));
    EXPECT_TRUE(await([&] { return is_noted(); }));  // killed before that, it says the same again rather than nothing
    service.process().send(SIGKILL);
    service.process().wait();
    service.start();
    EXPECT_TRUE(has(out(), "\"reason\":\"killed\""));
    service.reload();
    const std::string records = content(out()), last = records.substr(records.rfind("\"unwatched\""));
    EXPECT_NE(std::string::npos, last.find("\"killed\"")) << records;  // a reload says nothing of the kind
}

TEST_F(RunService, ABurstOfDeletionsIsInTheFile)
{
#ifdef FMON_TEST_SANITIZED
    constexpr int kFiles = 10'000; /* a sanitizer makes each dear, and checks no figure */
#else
    constexpr int kFiles = 50'000;
#endif
    const int directory = open(tree.dir("w").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int i = 0; i < kFiles; i++)
        close(openat(directory, std::to_string(i).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    service.configure(instance_text("web", tree_text(tree.path("w")) + "events = [\"delete\"]\n", file_text(out())));
    service.start();
    for (int i = 0; i < kFiles; i++)
        EXPECT_EQ(0, unlinkat(directory, std::to_string(i).c_str(), 0));
    close(directory);
    const auto deleted = [&] { return paths_in(out(), {"delete"}).size(); };
    const bool all =
        await([&] { return content(out()).find("w/" + std::to_string(kFiles - 1)) != std::string::npos; }, 60'000);
    service.process().send(SIGTERM);
    EXPECT_EQ(0, service.process().wait());
    const bool lost = content(out()).find("\"type\":\"loss\"") != std::string::npos;
    EXPECT_TRUE(lost || (all && deleted() == size_t{kFiles})) << deleted();
}
