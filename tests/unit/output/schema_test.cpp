/* docs/fmon.schema.json against what the JSON form writes, by another's validator. */
#include <functional>

#include "agent/ancestors.h"
#include "agent/event_names.h"
#include "agent/paths.h"
#include "orx_fmon.h"
#include "output/formats.h"
#include "testlib/tree.h"
#include "unit/agent/agent_testing.h"

using namespace agent;
using namespace output;
using agent_testing::event_of;
using agent_testing::kTime;

namespace
{

class Schema : public testing::Test
{
protected:
    Schema()
    {
        style.sources = {"watch"};
        style.ancestors = style.stat = true;
        style.container_name = [](std::string_view) { return ContainerName{"web", "registry/web:1"}; };
    }

    /* Appends what the formatter makes of it. */
    void record(const std::function<void(Formatter &, std::string &)> &make) { make(*formatter(), lines); }
    void event(const Event &event)
    {
        record([&](Formatter &form, std::string &out) { form.event(event, out); });
    }

    /* What the validator says; "": nothing is wrong. */
    std::string violations(const std::string &text)
    {
        const std::string command = "/usr/bin/python3 " FMON_TEST_SOURCE "/tests/testlib/validate.py " FMON_TEST_SOURCE
                                    "/docs/fmon.schema.json " +
                                    folder.file("records", text) + " 2>&1";
        FILE *const pipe = popen(command.c_str(), "r");
        std::string said;
        for (int c; pipe && (c = fgetc(pipe)) != EOF;)
            said += static_cast<char>(c);
        status = pipe ? pclose(pipe) : -1;
        is_there = WEXITSTATUS(status) != 77 && WEXITSTATUS(status) != 127;
        return status == 0 ? "" : said + "(status " + std::to_string(status) + ")";
    }

    std::unique_ptr<Formatter> formatter() const { return make_json_formatter(style); }

    agent_testing::Directory folder;
    FormatStyle style;
    std::string lines;
    int status = 0;
    bool is_there = false;
};

ProcessInfo program()
{
    ProcessInfo cat = {"cat", "/usr/bin/cat", "cat x", 1000, 7, 1};
    cat.container = "c1";
    cat.loginuid = 1000;
    cat.start_ns = kTime;
    cat.parent = make_ancestor("sh", 7, kTime, make_ancestor("", 3, 0, nullptr));
    return cat;
}

}  // namespace

TEST_F(Schema, HasEveryEvent)
{
    const ProcessInfo cat = program(), unknown = {"", "", "", {}, 7, 0};
    for (size_t i = 0; i < kSingleEventNames; i++)
        event(event_of("/a", kEventTable[i].mask));
    event(event_of("/a", FMON_ALL_EVENTS, 42, &cat));
    event(event_of("/a", FMON_LINK, 42, &unknown));
    Event renamed = event_of("/a", FMON_MOVED_TO);
    const Identity file = {.ino = UINT64_MAX, .gid = 3};
    renamed.file = &file;
    renamed.from = "/b";
    event(renamed);
    EXPECT_NE(std::string::npos, lines.find("\"inode\":18446744073709551615,\"device\":\"0:0\",\"group\":3"));
    event(event_of("/not\xffutf8", FMON_CREATE));
    Event gone = event_of("/a", FMON_MODIFY);
    gone.deleted = gone.found = true;
    event(gone);
    const std::string said = violations(lines);
    NEED(is_there, "python3-jsonschema is not installed");
    EXPECT_EQ("", said) << lines;
}

TEST_F(Schema, HasEveryRecordBesideEvents)
{
    record([](Formatter &form, std::string &out) {
        form.established(kTime, {{"/a", "/b"}, {}, 2, "marks"}, out);
        form.established(kTime, {{}, {"/c"}, 0, "both"}, out);
        form.established(kTime, {{}, {}, 0, "filesystem", 2}, out);
        form.loss(kTime, "inotify", 3, "", out);
        form.loss(kTime, "path", 1, "/\xfe", out);
        form.resynced(kTime, {"/a"}, 3, out);
        form.appeared(kTime, "/a", out);
        form.ended(kTime, "/a\xff", "removed", out);
        form.burst(kTime, {"/d", "make", FMON_CREATE, 1204, 10'000}, out);
        form.burst(kTime, {"/\xfe", "", FMON_CREATE | FMON_DELETE, 1, 1}, out);
        for (const char *reason : {"stopped", "killed", "booted"})
            form.unwatched(kTime, {kTime - 1, kTime, reason}, out);
    });
    const std::string said = violations(lines);
    NEED(is_there, "python3-jsonschema is not installed");
    EXPECT_EQ("", said) << lines;
}

TEST_F(Schema, HasTheNamesOfHostAndInstanceInEachRecord)
{
    style.host = "web1";
    style.instance = "etc";
    event(event_of("/a", FMON_CREATE));
    record([](Formatter &form, std::string &out) { form.loss(kTime, "inotify", 3, "", out); });
    const std::string said = violations(lines);
    EXPECT_NE(lines.find("\"count\":3,\"instance\":\"etc\",\"host\":\"web1\"}"), std::string::npos) << lines;
    NEED(is_there, "python3-jsonschema is not installed");
    EXPECT_EQ("", said) << lines;
}

TEST_F(Schema, RefusesWhatIsNoRecord)
{
    violations("{}\n");
    NEED(is_there, "python3-jsonschema is not installed");
    event(event_of("/a", FMON_CREATE));
    ASSERT_EQ("", violations(lines));
    const std::string good = lines.substr(0, lines.size() - 2);
    for (const std::string &bad :
         {good + ",\"more\":1}\n", std::string("{}\n"), std::string("{\"type\":\"event\"}\n"), std::string(),
          std::string("{\"type\":\"other\",\"time\":\"2024-02-29T12:34:56.789012345Z\"}\n"),
          std::string("{\"type\":\"appeared\",\"time\":\"yesterday\",\"path\":\"/a\"}\n")})
        EXPECT_NE("", violations(bad)) << bad;
}
