/*
 * What others make of the records: the schema's validator, and rsyslog with the example of its configuration.
 */
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "harness.h"

using namespace systest;
using testlib::TempTree;

namespace
{

/* What a command writes, and how it ended. */
std::string output_of(const std::string &command, int &status)
{
    FILE *const pipe = popen((command + " 2>&1").c_str(), "r");
    std::string text;
    for (int c; pipe && (c = fgetc(pipe)) != EOF;)
        text += static_cast<char>(c);
    status = pipe ? pclose(pipe) : -1;
    return text;
}

/* `fmon watch -r` of `root` into a file, from when its watches are in place. */
class Writer
{
public:
    Writer(const std::string &root, std::string file, const std::string &format)
        : file_(std::move(file)),
          process_({{FMON_TEST_BIN "/fmon", "watch", "-r", "--source", "marks", "--format", format, "-o", file_, root}})
    {
        EXPECT_TRUE(reaches("established")) << process_.errors();
    }
    bool reaches(const std::string &text) const
    {
        for (const int64_t end = now_ms() + kPatienceMs; now_ms() < end; pause_ms(10))
            if (content(file_).find(text) != std::string::npos)
                return true;
        return false;
    }
    int stop() { return process_.interrupt(); }

private:
    std::string file_;
    Process process_;
};

void replace(std::string &text, const std::string &from, const std::string &to)
{
    const size_t at = text.find(from);
    ASSERT_NE(std::string::npos, at) << from;
    text.replace(at, from.size(), to);
}

/* Something of every kind that a directory can report. */
void churn(const std::string &root)
{
    make_file(root + "/a", "text");
    read_file(root + "/a");
    change_mode(root + "/a", 0600);
    make_dir(root + "/sub");
    move(root + "/a", root + "/sub/b");
    hard_link(root + "/sub/b", root + "/c");
    make_file(root + "/not\xffutf8");
    remove_file(root + "/sub/b");
    remove_dir(root + "/sub");
}

TEST(Formats, WhatIsWrittenKeepsTheSchema)
{
    TempTree tree;
    const std::string watched = tree.dir("watched"), file = tree.path("events.json");
    Writer writer(watched, file, "json");
    churn(watched);
    make_file(watched + "/last");
    EXPECT_TRUE(writer.reaches("/last"));
    EXPECT_EQ(0, writer.stop());
    int status = 0;
    const std::string said = output_of("/usr/bin/python3 " FMON_TEST_SOURCE
                                       "/tests/testlib/validate.py " FMON_TEST_SOURCE "/docs/fmon.schema.json " +
                                           file,
                                       status);
    NEED(WEXITSTATUS(status) != 77 && WEXITSTATUS(status) != 127, "python3-jsonschema is not installed");
    EXPECT_EQ(0, status) << said << content(file);
}

TEST(Formats, RsyslogReadsThem)
{
    NEED(access("/usr/sbin/rsyslogd", X_OK) == 0, "rsyslog is not installed");
    TempTree tree;
    const std::string watched = tree.dir("watched"), file = tree.path("events.json"), log = tree.path("fmon.log");
    std::string configuration = content(FMON_TEST_SOURCE "/docs/readers/rsyslog.conf");
    replace(configuration, "/var/log/fmon/events.json", file);
    replace(configuration, "/var/log/fmon.log", log);
    replace(configuration, "/var/log/fmon-losses.log", tree.path("losses.log"));
    const std::string conf =
        tree.file("rsyslog.conf", "global(workDirectory=\"" + tree.dir("work") + "\")\n" + configuration);

    int status = 0;
    const std::string said = output_of("/usr/sbin/rsyslogd -N1 -f " + conf, status);
    EXPECT_EQ(0, status) << said;

    Writer writer(watched, file, "json");
    Process rsyslog({{"/usr/sbin/rsyslogd", "-n", "-f", conf, "-i", tree.path("pid")}});
    make_file(watched + "/first");
    bool has_read = false;
    for (const int64_t end = now_ms() + kPatienceMs; !has_read && now_ms() < end; pause_ms(20))
        has_read = content(log).find(" " + watched + "/first by ") != std::string::npos;
    EXPECT_TRUE(has_read) << content(log) << rsyslog.errors();
    EXPECT_NE(content(log).find(" established "), std::string::npos) << content(log);
    rsyslog.send(SIGTERM);
    EXPECT_EQ(0, rsyslog.wait());
    EXPECT_EQ(0, writer.stop());
}

}  // namespace
