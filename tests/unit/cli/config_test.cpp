/* The service's configuration: what is taken from it, and what each mistake is answered with. */
#include "cli/run/config_read.h"

#include "cli/run/config_tables.h"
#include "orx_fmon.h"
#include "output/settings_text.h"
#include "unit/agent/agent_testing.h"

using namespace cli;
using Texts = std::vector<std::string>;

namespace
{

constexpr char kWatchAndOutput[] = R"(
[[instance.watch]]
paths = ["/etc"]
[[instance.output]]
type = "stdout"
)";

/* The lines of what is wrong, joined; empty: nothing is. */
std::string faults_of(const std::string &text)
{
    Config config;
    Faults faults;
    read_config(text, config, faults);
    std::string all;
    for (const std::string &line : faults.lines("f"))
        all += (all.empty() ? "" : "\n") + line;
    return all;
}

Config config_of(const std::string &text)
{
    Config config;
    Faults faults;
    read_config(text, config, faults);
    EXPECT_EQ(Texts{}, faults.lines("f"));
    return config;
}

/* An instance "a" with these lines before its watch and output. */
std::string with_instance(const std::string &lines = "")
{
    return "[[instance]]\nname = \"a\"\n" + lines + kWatchAndOutput;
}

/* With these lines in its watch, which has no paths else. */
std::string with_watch(const std::string &lines)
{
    return "[[instance]]\nname = \"a\"\n[[instance.output]]\ntype = \"stdout\"\n[[instance.watch]]\n" + lines;
}

/* With these lines in its output, which has no type else. */
std::string with_output(const std::string &lines)
{
    return "[[instance]]\nname = \"a\"\n[[instance.watch]]\npaths = [\"/etc\"]\n[[instance.output]]\n" + lines;
}

agent::Request request_of(const std::string &lines)
{
    return config_of(with_watch(lines)).instances.at(0).watches.at(0);
}

}  // namespace

/* ---- what is taken ---- */

TEST(ConfigTest, TheLeastThereCanBe)
{
    const Config config = config_of(with_instance());
    EXPECT_EQ("/run/fmon/fmon.sock", config.service.socket);
    EXPECT_EQ("/var/lib/fmon", config.service.state_directory);
    EXPECT_EQ(10'000u, config.service.drain_ms);
    EXPECT_EQ(2, config.service.monitor.log_level);
    ASSERT_EQ(1u, config.instances.size());
    const InstanceConfig &only = config.instances[0];
    EXPECT_EQ("a", only.name);
    ASSERT_EQ(1u, only.watches.size());
    EXPECT_EQ(Texts{"/etc"}, only.watches[0].paths);
    EXPECT_TRUE(only.watches[0].wait);
    EXPECT_TRUE(only.watches[0].keep_going);
    ASSERT_EQ(1u, only.outputs.size());
    EXPECT_EQ("stdout", only.outputs[0].type);
    EXPECT_EQ("json", only.outputs[0].format);
    EXPECT_EQ(output::PacingOptions{}, only.pacing);
}

TEST(ConfigTest, AWatchSaysWhatTheOptionsSay)
{
    const agent::Request request = request_of(R"(
paths = ["/srv", "/home/*/.ssh"]
recursive = true
events = ["create", "delete,modify"]
delay = true
no_found = true
max_depth = 3
max_subdirs = 100
)");
    EXPECT_EQ((Texts{"/srv", "/home/*/.ssh"}), request.paths);
    EXPECT_EQ(uint32_t{FMON_CREATE | FMON_DELETE | FMON_MODIFY}, request.events);
    EXPECT_TRUE(request.recursive && request.delay && request.no_found && request.wait);
    EXPECT_EQ(3u, request.max_depth);
    EXPECT_EQ(100u, request.max_subdirs);
}

TEST(ConfigTest, WhatIsSpared)
{
    EXPECT_EQ((Texts{"/srv/a", "/srv/b"}),
              request_of("paths = [\"/srv\"]\nrecursive = true\nspare = [\"/srv/a\", \"/srv/b\"]").spare);
    EXPECT_EQ("f:8:9: 'srv/a' is no absolute path: begin it with /",
              faults_of(with_watch("paths = [\"/srv\"]\nrecursive = true\nspare = [\"srv/a\"]")));
    EXPECT_NE(
        std::string::npos,
        faults_of(with_watch("paths = [\"/srv\"]\nspare = [\"/srv/a\"]")).find("a part of a tree: add recursive"));
}

TEST(ConfigTest, HowPathsAndTimesAreShown)
{
    const agent::Request request = request_of("paths = [\"/srv\"]\npair_renames = true\nas_given = true");
    EXPECT_TRUE(request.pair_renames && request.as_given);
    const auto output_of = [](const std::string &lines) {
        return config_of(with_output("type = \"stdout\"\n" + lines)).instances.at(0).outputs.at(0);
    };
    EXPECT_EQ("%F %T", output_of("format = \"text\"\ntime_format = \"%F %T\"").time_format);
    EXPECT_TRUE(output_of("format = \"ecs\"\nstat = true").stat);
    EXPECT_TRUE(output_of("format = \"%p %a\"").ancestors);
    EXPECT_FALSE(output_of("format = \"%p %%a\"").ancestors);
}

TEST(ConfigTest, OldPathsAreThereForThoseWhoShowThem)
{
    const auto one = [](const std::string &watch, const std::string &format) {
        return config_of("[[instance]]\nname = \"a\"\n[[instance.watch]]\npaths = [\"/etc\"]\n" + watch +
                         "\n[[instance.output]]\ntype = \"stdout\"\nformat = \"" + format + "\"\n")
            .instances.at(0);
    };
    EXPECT_TRUE(one("", "%o %p").watches[0].pair_renames);
    EXPECT_FALSE(one("events = [\"create\"]", "%o %p").watches[0].pair_renames);
    EXPECT_FALSE(one("", "csv").outputs[0].pairs);
    EXPECT_TRUE(one("pair_renames = true", "csv").outputs[0].pairs);
    EXPECT_FALSE(one("pair_renames = true", "json").outputs[0].pairs) << "which has no columns";
}

TEST(ConfigTest, WhatCanBeWaitedForIs)
{
    EXPECT_TRUE(request_of("paths = [\"/a\", \"/b*\"]").wait);
    EXPECT_FALSE(request_of("paths = [\"/b*\"]").wait);
    EXPECT_FALSE(request_of("paths = [\"/a\"]\nwait = false").wait);
    EXPECT_FALSE(request_of("paths = [\"/a\"]\nmount = true").wait);
    EXPECT_FALSE(request_of("system = true").wait);
}

TEST(ConfigTest, FiltersAndPacing)
{
    const InstanceConfig only = config_of(with_instance(R"(
include = ["^/etc/"]
exclude = "swp$"
iinclude = "readme"
iexclude = ["~$"]
process = ["!apt"]
process_id = ["1", "!2"]
user = ["root"]
container = ["web"]
rate_limit = 100
sample = 10
burst_summary = "10 s"
)"))
                                    .instances.at(0);
    EXPECT_EQ(
        (output::FilterOptions{{"^/etc/"}, {"swp$"}, {"readme"}, {"~$"}, {"!apt"}, {"1", "!2"}, {"root"}, {"web"}}),
        only.filter);
    EXPECT_EQ((output::PacingOptions{100, 10, 10'000}), only.pacing);
}

TEST(ConfigTest, TheMonitorsKeysAreThoseOfFmonIni)
{
    const Config config = config_of(
        "[service]\ndrain = \"2 s\"\nsocket = \"\"\n[fmon]\nsource = \"marks\"\nprobes = "
        "\"off\"\nlog_level = 3\nmax_events = 500\n" +
        with_instance());
    const agent::Request &monitor = config.service.monitor;
    EXPECT_EQ(2000u, config.service.drain_ms);
    EXPECT_EQ("", config.service.socket);
    EXPECT_EQ(agent::Source::kMarks, monitor.source);
    EXPECT_EQ(agent::Probes::kOff, monitor.probes);
    EXPECT_EQ(3, monitor.log_level);
    EXPECT_EQ("max_events", monitor.settings.at(0).first);
    EXPECT_EQ("500", monitor.settings.at(0).second);
    EXPECT_EQ(agent::Source::kMarks, config.instances[0].watches[0].source);
}

TEST(ConfigTest, EachDefaultIsAValueOfItsType)
{
    const Rows monitor = monitor_keys();
    for (const auto rows :
         {service_keys(), instance_keys(), watch_keys(), output_keys(), std::span<const output::Setting>(monitor)})
        for (const output::Setting &row : rows) {
            output::Settings::Value value;
            EXPECT_TRUE(!row.fallback || output::default_of(row, value)) << row.key;
        }
}

/* ---- what is wrong ---- */

TEST(ConfigTest, FormsThatDoNotFitAreRefused)
{
    EXPECT_EQ("f:8:15: 'time_format' is about text, csv and templates: json has times of one form",
              faults_of(with_output("type = \"stdout\"\nformat = \"json\"\ntime_format = \"%T\"")));
    EXPECT_NE(std::string::npos, faults_of(with_output("type = \"stdout\"\nformat = \"csv\"\nstat = true"))
                                     .find("'stat' is about json, ecs and ocsf"));
    EXPECT_NE(std::string::npos, faults_of(with_output("type = \"stdout\"\nformat = \"text\"\ntime_format = \"" +
                                                       std::string(129, 'x') + "\""))
                                     .find("of at most 128 bytes"));
    EXPECT_NE(std::string::npos, faults_of(with_watch("paths = [\"/a\"]\nevents = [\"create\"]\npair_renames = true"))
                                     .find("pair_renames, and %o, are about moved_from and moved_to"));
}

TEST(ConfigTest, WhatIsNoTomlHasItsPlace)
{
    EXPECT_TRUE(faults_of("[[instance]]\nname = a\n").starts_with("f:2:")) << faults_of("[[instance]]\nname = a\n");
}

/* Each part is a table in the one before. */
TEST(ConfigTest, KeysOfVeryManyPartsAreRefused)
{
    const auto key = [](size_t parts) {
        std::string text = "a";
        for (size_t i = 1; i < parts; i++)
            text += " . \"x.=\"";
        return text;
    };
    EXPECT_EQ("f:2:507: a key has more than 64 parts",
              faults_of("# " + std::string(99, '.') + "\n" + key(65) + " = 1"));
    EXPECT_EQ("f:1:512: a key has more than 64 parts", faults_of("x = {" + key(1'000'000) + " = 1}"));
    EXPECT_NE(std::string::npos, faults_of(key(64) + " = 1").find("unknown key 'a'"));
    const std::string dots(99, '.');
    EXPECT_EQ("", faults_of(with_instance("exclude = [\"" + dots + "\", '" + dots + "']\n")));
}

TEST(ConfigTest, LettersAreAsciiOrQuoted)
{
    const std::string said = ": only texts and comments may have other letters than those of ASCII: put it into quotes";
    EXPECT_EQ("f:1:2" + said, faults_of("n\u00e9 = 1"));
    EXPECT_EQ("f:2:8" + said, faults_of("# \u00e9\na = \"\" \u035c"));
    EXPECT_EQ("f:2:2" + said, faults_of("a = '\u00e9' # \u00e9\nb\u00e9 = 1"));
    const std::string texts = "'\u00e9', \"\\\"\u00e9\", \"\"\"\"\u00e9\n\u00e9\"\"\"\"\", '''\u00e9''''";
    EXPECT_EQ("", faults_of("\ufeff# \u00e9\n" + with_instance("exclude = [" + texts + ", \"\u00e9\"]\n")));
}

TEST(ConfigTest, ATableHasAName)
{
    const std::string said = "a table needs a name within its brackets";
    EXPECT_EQ("f:1:2: " + said, faults_of("[\n{"));
    EXPECT_EQ("f:2:5: " + said, faults_of("a = [\"]\"]\n [[ =]]"));
    EXPECT_EQ("f:3:3: " + said, faults_of("a = [\n[1]]\n[ {}]"));
    EXPECT_EQ(std::string::npos, faults_of("[]").find(said)); /* what the library says itself */
    EXPECT_NE("", faults_of("["));
    EXPECT_EQ("", faults_of(with_instance("exclude = [\n\"a\", # [\n]\n")));
    EXPECT_EQ("f:3:11: 'exclude' takes an array of texts, not an array",
              faults_of(with_instance("exclude = [\n[\"a\"]\n]\n")));
}

TEST(ConfigTest, AnEmptyFileWatchesNothing) { EXPECT_EQ("f: nothing is watched: add an [[instance]]", faults_of("")); }

TEST(ConfigTest, UnknownKeysAreNamedWithTheNearest)
{
    EXPECT_EQ("f:3:1: unknown key 'inklude' in [[instance]]: is 'include' meant?",
              faults_of(with_instance("inklude = []\n")));
    EXPECT_EQ("f:6:1: unknown key 'path' in [[instance.watch]]: is 'paths' meant?",
              faults_of(with_watch("path = \"/a\"\nsystem = true")));
    EXPECT_NE(std::string::npos,
              faults_of("[servce]\n" + with_instance()).find("unknown key 'servce': there are instance"));
    EXPECT_NE(std::string::npos,
              faults_of("[fmon]\nfoo = 1\n" + with_instance()).find("f:2:1: unknown key 'foo' in [fmon]"));
}

TEST(ConfigTest, WrongTypesSayWhatIsWanted)
{
    EXPECT_EQ("f:3:14: 'rate_limit' takes a number, 0 or more, not 'many'",
              faults_of(with_instance("rate_limit = \"many\"\n")));
    EXPECT_EQ("f:3:14: 'rate_limit' takes a number, 0 or more, not a number",
              faults_of(with_instance("rate_limit = -1\n")));
    EXPECT_EQ("f:3:11: 'include' takes an array of texts, not an array", faults_of(with_instance("include = [1]\n")));
    EXPECT_EQ("f:2:9: 'drain' takes a time, such as \"10 s\" or \"5 min\", not 'soon'",
              faults_of("[service]\ndrain = \"soon\"\n" + with_instance()));
    EXPECT_EQ("f:6:13: 'recursive' takes true or false, not a number",
              faults_of(with_watch("recursive = 1\npaths = [\"/a\"]")));
    EXPECT_EQ("f:1:1: 'service' is a number: write [service] and its keys below",
              faults_of("service = 1\n" + with_instance()));
    EXPECT_EQ("f:3:1: 'watch' is a number: write [[instance.watch]] and its keys below",
              faults_of("[[instance]]\nname = \"a\"\nwatch = 1\n[[instance.output]]\ntype = \"stdout\""));
}

TEST(ConfigTest, AllFaultsAreReportedInTheirOrder)
{
    EXPECT_EQ(
        "f:3:10: 'sample' takes 1 (all events) or more\n"
        "f:4:11: '(' is no regular expression: Unmatched ( or \\(\n"
        "f:6:1: unknown key 'pats' in [[instance.watch]]: is 'paths' meant?",
        faults_of("[[instance]]\nname = \"a\"\nsample = 0\ninclude = [\"(\"]\n[[instance.watch]]\npats = "
                  "1\nsystem = true\n[[instance.output]]\ntype = \"stdout\"\n"));
}

TEST(ConfigTest, AnInstanceNeedsANameAWatchAndAnOutput)
{
    const std::string all = faults_of("[[instance]]\n");
    EXPECT_NE(std::string::npos, all.find("[[instance]] lacks 'name'")) << all;
    EXPECT_NE(std::string::npos, all.find("the instance watches nothing: add [[instance.watch]]")) << all;
    EXPECT_NE(std::string::npos, all.find("the instance's events go nowhere: add [[instance.output]]")) << all;
    EXPECT_NE(std::string::npos, faults_of(with_instance() + with_instance()).find("there is an instance 'a' already"));
    const std::string bad = "[[instance]]\nname = \"a b\"" + std::string(kWatchAndOutput);
    EXPECT_EQ("f:2:8: 'name' takes 1 to 64 letters, digits, - and _, not 'a b'", faults_of(bad));
}

TEST(ConfigTest, ContradictionsSpeakOfKeys)
{
    EXPECT_EQ("f:5:1: mount watches a whole mount: leave out sync, wait, max_depth and max_subdirs",
              faults_of(with_watch("paths = [\"/a\"]\nmount = true\nmax_depth = 2\nrecursive = true")));
    EXPECT_EQ("f:5:1: system is about all paths: leave out the PATH",
              faults_of(with_watch("paths = [\"/a\"]\nsystem = true")));
    EXPECT_EQ("f:5:1: [[instance.watch]] watches nothing: give it 'paths', or 'system = true'",
              faults_of(with_watch("")));
    EXPECT_EQ("f:6:9: 'etc' is no absolute path: begin it with /", faults_of(with_watch("paths = [\"etc\"]")));
    EXPECT_EQ("f:6:10: unknown event 'born': `fmon watch -e help` lists the names",
              faults_of(with_watch("events = [\"born\"]\nsystem = true")));
    EXPECT_EQ("f:6:13: 'max_depth' takes a number from 0 to 65535",
              faults_of(with_watch("max_depth = 65536\nrecursive = true\npaths = [\"/a\"]")));
}

TEST(ConfigTest, FiltersAreTried)
{
    EXPECT_EQ("f:3:8: there is no user 'nobody-of-that-name' on this machine",
              faults_of(with_instance("user = [\"nobody-of-that-name\"]\n")));
}

/* Of what type they are: a socket and a file cannot share a path either. */
TEST(ConfigTest, TwoOutputsWithOnePathAreRefused)
{
    const auto instance = [](const std::string &name, const std::string &path) {
        return "[[instance]]\nname = \"" + name +
               "\"\nwatch = [{paths = [\"/etc\"]}]\noutput = [{type = \"file\", path = \"" + path + "\"}]\n";
    };
    EXPECT_EQ("", faults_of(instance("a", "/var/1") + instance("b", "/var/2")));
    EXPECT_EQ("f:8:34: another output has '/var/1' already: give each a path of its own, or the instance more watches",
              faults_of(instance("a", "/var/1") + instance("b", "/var/1")));
    EXPECT_NE("",
              faults_of(with_output(
                  "type = \"file\"\npath = \"/var/1\"\n[[instance.output]]\ntype = \"socket\"\npath = \"/var/1\"")));
}

TEST(ConfigTest, OutputsAreTried)
{
    EXPECT_TRUE(
        faults_of(with_output("type = \"tape\"")).starts_with("f:6:8: there is no output of type 'tape': there are "));
    EXPECT_TRUE(faults_of(with_output("format = \"json\"")).starts_with("f:5:1: [[instance.output]] lacks 'type'"));
    EXPECT_TRUE(
        faults_of(with_output("type = \"stdout\"\nformat = \"xml\"")).starts_with("f:7:10: 'format' takes text, json"));
    EXPECT_TRUE(faults_of(with_output("type = \"stdout\"\nformat = \"%q\"")).starts_with("f:7:10: "));
    EXPECT_TRUE(faults_of(with_output("type = \"stdout\"\nbroker = \"x\"")).starts_with("f:7:1: unknown key 'broker'"));
    EXPECT_TRUE(faults_of(with_output("type = \"file\"")).starts_with("f:5:1: [[instance.output]] lacks 'path'"));
}

TEST(ConfigTest, TheMonitorsKeysHaveRanges)
{
    EXPECT_EQ("f:2:10: 'source' takes one of auto, marks, filesystem, not 'disk'",
              faults_of("[fmon]\nsource = \"disk\"\n" + with_instance()));
    EXPECT_EQ("f:2:13: 'log_level' takes 2 (warnings), 3 (information) or 4 (everything)",
              faults_of("[fmon]\nlog_level = 1\n" + with_instance()));
    EXPECT_EQ("f:2:14: 'max_events' takes a number from 1 to 2147483647",
              faults_of("[fmon]\nmax_events = 0\n" + with_instance()));
    EXPECT_EQ(
        "f:2:14: 'prometheus' takes an address of this machine, such as 127.0.0.1:9464, or an absolute path, not "
        "'0.0.0.0:9464'",
        faults_of("[service]\nprometheus = \"0.0.0.0:9464\"\n" + with_instance()));
    EXPECT_EQ("f:2:10: 'socket' takes an absolute path, not 'x'",
              faults_of("[service]\nsocket = \"x\"\n" + with_instance()));
}

/* ---- how much there may be ---- */

TEST(ConfigTest, ThereAreAsManyWatchesAsTheMonitorHasInstances)
{
    std::string text;
    for (int i = 0; i < 32; i++)
        text += "[[instance]]\nname = \"i" + std::to_string(i) + "\"" + kWatchAndOutput;
    const Config config = config_of(text);
    EXPECT_EQ(32u, config.instances.size());
    ASSERT_EQ(1u, config_warnings(config).size());
    EXPECT_TRUE(config_warnings(config)[0].starts_with("all instances of the monitor are taken"));
    EXPECT_NE(std::string::npos,
              faults_of(text + with_instance()).find("the watches need 33 instances of the monitor"));
}

TEST(ConfigTest, AWatchThatNamesProcessesNeedsMore)
{
    EXPECT_EQ(3u, monitor_instances(config_of(with_watch("paths = [\"/a\"]\npid = true")).instances[0]));
    EXPECT_EQ(1u, monitor_instances(config_of(with_watch("system = true")).instances[0]));
}

TEST(ConfigTest, PathsThatAreNotThereAreSaid)
{
    const Config config =
        config_of(with_watch("paths = [\"/\", \"/no/such\", \"/no/*\"]\n[[instance.watch]]\n"
                             "paths = [\"/no/mount\"]\nmount = true\nevents = [\"modify\"]"));
    EXPECT_EQ((Texts{"instance a: /no/such is not there yet: it is waited for",
                     "instance a: /no/mount is not there, and cannot be waited for"}),
              config_awaited(config));
}

TEST(ConfigTest, ManyPathsAreWarnedOf)
{
    std::string paths;
    for (size_t i = 0; i <= kMostPaths; i++)
        paths += "\"/p/" + std::to_string(i) + "\",";
    const std::vector<std::string> lines = config_warnings(config_of(with_watch("paths = [" + paths + "]")));
    ASSERT_EQ(1u, lines.size());
    EXPECT_TRUE(lines[0].starts_with("instance a has 1,001 paths, more than the 1,000 that one client should carry"));
}
