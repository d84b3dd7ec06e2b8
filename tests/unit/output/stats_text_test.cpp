/* The figures of a service as text and for Prometheus. */
#include "output/stats_text.h"

#include <gtest/gtest.h>

using namespace output;

namespace
{

constexpr char kStats[] = R"({
"service":{"pid":12,"version":"0.1.0","host":"web1","boot":"b","start":"2026-11-22T10:00:00.000000000Z","uptime_ms":7260000,
  "config":"/etc/fmon/fmon.toml","reloads":2,"reload_error":"","state":"watching"},
"losses":{"inotify":3,"path":1},
"monitor":{"records":5,"max_records":10000,"inotify_watches":7,"directories":1,"file_systems":1},
"instances":[{"name":"a\"b","events_in":1200,"filtered":3,"limited":0,"sampled":0,"summarised":0,"events":1197,
  "watches":[{"paths":["/etc","/bo\u001b[2Jot"],"state":"watching","source":"both","directories":12,"queue":4,"waiting_paths":1},
             {"paths":[],"state":"failed","source":"probes","directories":0,"queue":2}],
  "latency_us":{"count":100,"sum":25000,"buckets":[[100,60],[1000,39],[null,1]]},
  "outputs":[{"type":"file","format":"json","accepted":1197,"bytes":2097152,"dropped":0,"retries":0,"waiting":0,"safe":9,
              "stuck":false,"stuck_ms":0,"text":""},
             {"type":"http","format":"ecs","accepted":9,"bytes":10,"dropped":2,"retries":1,"waiting":7,"safe":1,
              "stuck":true,"stuck_ms":90500,"text":"no\nroute"}]}]})";

std::string with(const std::string &from, const std::string &to)
{
    std::string text = kStats;
    text.replace(text.find(from), from.size(), to);
    return text;
}

std::string people(const std::string &json)
{
    std::string text;
    return stats_text(json, text) ? text : "no figures";
}

std::string prometheus(const std::string &json)
{
    std::string text;
    return prometheus_text(json, text) ? text : "no figures";
}

bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

}  // namespace

TEST(StatsText, SaysEachFigure)
{
    EXPECT_EQ(R"(service     web1, process 12, fmon 0.1.0, watching
start       2026-11-22T10:00:00.000000000Z, 2 h ago
config      /etc/fmon/fmon.toml, 2 reloads
losses      inotify 3, path 1
monitor     5 of 10,000 records wait; 7 inotify watches, 1 directory, 1 file system
instance    a"b
  watch     /etc /bo\033[2Jot: watching, both, 12 directories, 4 events in the queue, 1 path awaited
  watch     the whole system: failed, probes, 0 directories, 2 events in the queue
  events    1,200 in, 1,197 out, 3 filtered
  latency   half below 0.1 ms, 99 % below 1 ms
  output    file (json): 1,197 records, 2.0 MiB, 0 waiting, 0 dropped, 0 more attempts
  output    http (ecs): 9 records, 10 bytes, 7 waiting, 2 dropped, 1 more attempt; STUCK for 90 s: no\nroute
)",
              people(kStats));
}

TEST(StatsText, SaysWhatIsWrong)
{
    EXPECT_TRUE(has(people(with("\"reload_error\":\"\"", "\"reload_error\":\"line 3\"")), "\n  REFUSED   line 3\n"));
    EXPECT_TRUE(has(people(with("\"inotify\":3,\"path\":1", "")), "\nlosses      none\n"));
    EXPECT_TRUE(has(people(with("[1000,39],[null,1]", "[1000,1],[null,39]")), "99 % below more"));
}

TEST(StatsText, TakesWhatLacksMembersOrHasOthers)
{
    EXPECT_TRUE(has(people("{\"service\":{}}"), "losses      none\n"));
    for (const char *part : {"\"file_systems\":1", "\"paths\":[\"/etc\",\"/bo\\u001b[2Jot\"]", "[null,1]"})
        for (const char *other : {"\"x\":[{}]", "\"paths\":7", "\"paths\":[7]"})
            EXPECT_TRUE(has(people(with(part, part[0] == '[' ? "[]" : other)), "a\"b")) << part << other;
}

TEST(StatsText, RefusesWhatIsNoFigures)
{
    for (const char *bad : {"", "{", "[]", "7", "{}", "{\"error\":\"unknown request\"}"}) {
        EXPECT_EQ("no figures", people(bad));
        EXPECT_EQ("no figures", prometheus(bad));
    }
}

TEST(StatsPrometheus, HasEachFigureWithItsLabels)
{
    const std::string text = prometheus(kStats);
    for (const char *line :
         {"fmon_info{version=\"0.1.0\",host=\"web1\",config=\"/etc/fmon/fmon.toml\",state=\"watching\"} 1",
          "fmon_uptime_milliseconds 7260000", "fmon_reloads_total 2", "fmon_reload_failed 0",
          "fmon_losses_total{source=\"inotify\"} 3", "fmon_monitor_records 5", "fmon_directories 1",
          "fmon_events_in_total{instance=\"a\\\"b\"} 1200", "fmon_events_total{instance=\"a\\\"b\"} 1197",
          "fmon_queue{instance=\"a\\\"b\"} 6", "fmon_latency_seconds_bucket{instance=\"a\\\"b\",le=\"0.0001\"} 60",
          "fmon_latency_seconds_bucket{instance=\"a\\\"b\",le=\"0.001\"} 99",
          "fmon_latency_seconds_bucket{instance=\"a\\\"b\",le=\"+Inf\"} 100",
          "fmon_latency_seconds_sum{instance=\"a\\\"b\"} 0.025", "fmon_latency_seconds_count{instance=\"a\\\"b\"} 100",
          "fmon_output_records_total{instance=\"a\\\"b\",output=\"1\",type=\"file\"} 1197",
          "fmon_output_stuck_milliseconds{instance=\"a\\\"b\",output=\"2\",type=\"http\"} 90500"})
        EXPECT_TRUE(has(text, "\n" + std::string(line) + "\n")) << line << "\n" << text;
}

/* As the format wants it: help and type once, before all samples of a metric. */
TEST(StatsPrometheus, KeepsTheSamplesOfAMetricTogether)
{
    std::string two = kStats;
    const size_t begin = two.find("[{\"name\"") + 1;
    const std::string instance = two.substr(begin, two.rfind("]}") - begin);
    two.insert(begin, instance + ",");
    const std::string text = prometheus(two);
    std::string metric, seen = " ";
    for (size_t at = 0; at < text.size(); at = text.find('\n', at) + 1) {
        const std::string line = text.substr(at, text.find('\n', at) - at);
        if (line.starts_with("# HELP ")) {
            metric = line.substr(7, line.find(' ', 7) - 7);
            EXPECT_FALSE(has(seen, " " + metric + " ")) << metric;
            seen += metric + " ";
        } else if (!line.starts_with("# TYPE ")) {
            EXPECT_TRUE(line.starts_with(metric)) << line;
        }
    }
    EXPECT_TRUE(has(seen, " fmon_output_waiting "));
}
