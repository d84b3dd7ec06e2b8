/* `fmon stats` asks a service that runs: each form has its figures, and they are those of what happened. */
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <regex>

#include "run_service.h"

using namespace systest;
using testlib::TempTree;

namespace
{

class RunStats : public testing::Test
{
protected:
    struct Answer {
        int status;
        std::vector<std::string> lines;
        std::string errors;
    };

    Answer stats(const std::string &form) const
    {
        Process process(
            Launch{{std::string(FMON_TEST_BIN) + "/fmon", "stats", "--socket", tree.path("socket"), "-f", form}});
        Answer answer = {};
        while (const std::optional<std::string> line = process.line())
            answer.lines.push_back(*line);
        answer.status = process.wait();
        answer.errors = process.errors();
        return answer;
    }

    /* Two instances, one of which has a path that is not there yet; four files, of which three are shown. */
    void start()
    {
        service.configure(instance_text("web", tree_text(tree.dir("w")) + "events = [\"create\"]\n", file_text(out),
                                        "exclude = [\"hidden$\"]\n") +
                          instance_text("later", tree_text(tree.path("later")), file_text(tree.path("later.json"))));
        service.start();
        for (const char *name : {"a", "b", "hidden", "c"})
            make_file(tree.path("w/") + name);
        ASSERT_TRUE(await([&] { return paths_in(out, {"create"}).size() == 3; }));
        ASSERT_TRUE(await([&] { return (*service.stats()["instances"].begin()).value("events", 0) == 3; }));
    }

    static bool has(const Answer &answer, const std::string &pattern)
    {
        const std::regex whole(pattern);
        return std::any_of(answer.lines.begin(), answer.lines.end(),
                           [&](const std::string &line) { return std::regex_match(line, whole); });
    }

    TempTree tree;
    const std::string out = tree.path("out.json");
    Service service{tree};
};

}  // namespace

TEST_F(RunStats, InJsonItIsTheServicesAnswer)
{
    start();
    const Answer answer = stats("json");
    EXPECT_EQ(0, answer.status) << answer.errors;
    ASSERT_EQ(1u, answer.lines.size());
    const Json stats = Json::parse(answer.lines[0]);
    EXPECT_EQ(service.process().pid(), stats["service"].value("pid", 0));
    EXPECT_EQ("watching", stats["service"].value("state", ""));
    const Json web = *stats["instances"].begin();
    EXPECT_EQ(4, web.value("events_in", 0));
    EXPECT_EQ(3, web.value("events", 0));
    EXPECT_EQ(1, web.value("filtered", 0));
}

TEST_F(RunStats, InTextItIsForPeople)
{
    start();
    const Answer answer = stats("text");
    EXPECT_EQ(0, answer.status) << answer.errors;
    const std::string pid = std::to_string(service.process().pid());
    for (const std::string &pattern :
         {"service     [^ ]+, process " + pid + ", fmon [0-9.]+, watching", std::string("losses      none"),
          std::string("instance    web"), "  watch     " + tree.path("w") + ": watching, .*",
          std::string("  events    4 in, 3 out, 1 filtered"),
          std::string("  output    file \\(json\\): 4 records, [0-9,]+ bytes, 0 waiting, 0 dropped, 0 more attempts"),
          std::string("instance    later"), std::string("  watch     .*/later: .*, 1 path awaited"),
          std::string("  events    0 in, 0 out")})
        EXPECT_TRUE(has(answer, pattern)) << pattern;
}

/* Each line is a comment or a sample of a metric whose type was said. */
TEST_F(RunStats, InPrometheusEachFigureHasItsTypeAndValue)
{
    start();
    const Answer answer = stats("prometheus");
    EXPECT_EQ(0, answer.status) << answer.errors;
    const std::regex type("# TYPE (fmon_[a-z_]+) (gauge|counter|histogram)"), help("# HELP fmon_[a-z_]+ [^\n]+");
    const std::regex sample("(fmon_[a-z_]+)(\\{[a-z]+=\"[^\"]*\"(,[a-z]+=\"[^\"]*\")*\\})? [0-9.e+-]+");
    std::string metric;
    for (const std::string &line : answer.lines) {
        std::smatch parts;
        if (std::regex_match(line, parts, type))
            metric = parts[1];
        else if (std::regex_match(line, parts, sample))
            EXPECT_EQ(0u, parts[1].str().find(metric)) << line;
        else
            EXPECT_TRUE(std::regex_match(line, help)) << line;
    }
    for (const std::string line :
         {"fmon_events_in_total\\{instance=\"web\"\\} 4", "fmon_events_filtered_total\\{instance=\"web\"\\} 1",
          "fmon_events_total\\{instance=\"web\"\\} 3", "fmon_events_total\\{instance=\"later\"\\} 0",
          "fmon_latency_seconds_bucket\\{instance=\"web\",le=\"\\+Inf\"\\} 3",
          "fmon_output_records_total\\{instance=\"web\",output=\"1\",type=\"file\"\\} 4", "fmon_reloads_total 0"})
        EXPECT_TRUE(has(answer, line)) << line;
}

TEST_F(RunStats, AServiceThatDoesNotAnswerOrIsGoneIsSaid)
{
    service.configure(instance_text("web", tree_text(tree.dir("w")), file_text(out)));
    service.start();
    service.process().send(SIGSTOP);
    const Answer stopped = stats("text");
    service.process().send(SIGCONT);
    EXPECT_EQ(2, stopped.status);
    EXPECT_EQ("fmon: the service at " + tree.path("socket") + " does not answer: it may be stopped, or ending\n",
              stopped.errors);
    service.process().send(SIGTERM);
    EXPECT_EQ(0, service.process().wait(2 * kPatienceMs));
    const Answer gone = stats("json");
    EXPECT_EQ(2, gone.status);
    EXPECT_NE(std::string::npos, gone.errors.find("no service listens at " + tree.path("socket"))) << gone.errors;
}
