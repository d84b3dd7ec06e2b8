/*
 * The border of libfmon.so: what it exports is its list and what its headers mark, what it imports is the agent's
 * interface and the C library's, and a program's functions of the same names do not get between it and its own.
 */
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "harness.h"

using namespace systest;
using testlib::can_fanotify;
using testlib::TempTree;

namespace
{

std::string output_of(const std::string &command)
{
    std::string out;
    FILE *pipe = popen(command.c_str(), "r");
    char chunk[4096];
    for (size_t n; pipe && (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;)
        out.append(chunk, n);
    EXPECT_TRUE(pipe && pclose(pipe) == 0) << command;
    return out;
}

std::string file_text(const std::string &path)
{
    std::ifstream in(path);
    EXPECT_TRUE(in.good()) << path;
    return {std::istreambuf_iterator<char>(in), {}};
}

/* Names in the dynamic symbol table; `options` as of nm. */
Names symbols(const std::string &library, const std::string &options)
{
    Names out;
    std::istringstream lines(output_of("nm -D -P " + options + " '" + library + "'"));
    for (std::string line; std::getline(lines, line);)
        out.insert(line.substr(0, line.find(' ')));
    return out;
}

Names module_symbols(const std::string &options)
{
    return symbols(std::string(FMON_TEST_LIB) + "/libfmon.so", options);
}

/* Every match's first group. */
Names matches(const std::string &text, const std::string &pattern)
{
    Names out;
    std::regex regex(pattern);
    for (std::sregex_iterator at(text.begin(), text.end(), regex), end; at != end; ++at)
        out.insert((*at)[1]);
    return out;
}

/* Neither comments nor preprocessor lines. */
std::string code_of(const std::string &path)
{
    std::string text = std::regex_replace(file_text(path), std::regex(R"(/\*[^*]*\*+(?:[^/*][^*]*\*+)*/)"), "");
    return std::regex_replace(text, std::regex(R"(\n#[^\n]*)"), "");
}

/* Functions and objects that an interface header declares. */
Names declared(const std::string &header)
{
    std::string text = code_of(std::string(FMON_TEST_INCLUDE) + "/" + header);
    Names out = matches(text, R"(\b(\w+)\s*\((?:[^()]|\([^()]*\))*\)\s*(?:__attribute__\s*\(\([^;]*\)\))?\s*;)");
    out.merge(matches(text, R"(extern [\w ]*?\b(\w+)\s*(?:\[\])?\s*__attribute__)"));
    out.erase("__attribute__");
    return out;
}

Names difference(const Names &a, const Names &b)
{
    Names out;
    std::set_difference(a.begin(), a.end(), b.begin(), b.end(), std::inserter(out, out.end()));
    return out;
}

/* ---- what leaves ---- */

TEST(Exports, AreExactlyTheList)
{
    std::string list = code_of(FMON_TEST_EXPORTS);
    list = list.substr(0, list.find("local:"));
    Names want = matches(list, R"(\b(\w+)\s*;)");
    EXPECT_GT(want.size(), 60U);
    EXPECT_EQ(module_symbols("--defined-only"), want);
}

/* Every declaration of the public header can be called, and none is missing from it. */
TEST(Exports, HoldThePublicHeader)
{
    std::string header = code_of(std::string(FMON_TEST_INCLUDE) + "/orx_fmon.h");
    Names want = matches(header, R"(FMON_API [^;(]*?\b(\w+)\s*[(;])");
    EXPECT_GE(want.size(), 17U);
    EXPECT_EQ(difference(want, module_symbols("--defined-only")), Names());
}

TEST(Exports, OfTheHostAreItsHeaders)
{
    Names want;
    for (const char *header : {"orx_base.h", "orx_event_loop.h", "orx_autolog.h"})
        want.merge(declared(header));
    Names have = symbols(std::string(FMON_TEST_LIB) + "/liborx_base.so", "--defined-only");
    Names missing = difference(want, have);
    missing.erase("cJSON_AddItemToObject"); /* the JSON library's, which the base library brings along */
    EXPECT_EQ(missing, Names());
}

/* ---- what comes in ---- */

TEST(Imports, AreTheAgentsAndTheCLibrarys)
{
#ifdef FMON_TEST_SANITIZED
    GTEST_SKIP() << "a sanitizer adds imports of its own";
#endif
    Names agent;
    for (const char *header : {"orx_base.h", "orx_event_loop.h", "orx_autolog.h", "watch_map.h"})
        agent.merge(declared(header));
    EXPECT_TRUE(agent.count("error_output") && agent.count("error_output_level") && agent.count("watch_map"));
    Names rest;
    for (const std::string &name : module_symbols("--undefined-only"))
        if (name.find("@GLIBC_") == std::string::npos && !agent.count(name))
            rest.insert(name);
    for (const char *weak : {"_ITM_deregisterTMCloneTable", "_ITM_registerTMCloneTable", "__gmon_start__"})
        rest.erase(weak); /* the compiler's start-up code asks whether they exist */
    EXPECT_EQ(rest, Names());
}

/* An agent may lack these: they are looked for and done without. */
TEST(Imports, OptionalOnesAreWeak)
{
    std::istringstream lines(output_of("nm -D --undefined-only '" + std::string(FMON_TEST_LIB) + "/libfmon.so'"));
    std::map<std::string, std::string> kind;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string letter, name;
        words >> letter >> name;
        kind[name] = letter;
    }
    for (const auto &[name, letter] : kind)
        if (name == "error_output_level" || name == "watch_map" || name.starts_with("cJSON_")) {
            EXPECT_TRUE(letter == "w" || letter == "v") << name;
        }
    EXPECT_EQ(kind["error_output"], "U");
}

/* Nothing of the C++ library is needed at run time beyond what the linker may name by habit. */
TEST(Imports, NeedNoCxxLibrary)
{
#ifdef FMON_TEST_SANITIZED
    GTEST_SKIP() << "a sanitizer adds libraries of its own";
#endif
    std::string dynamic = output_of("readelf -d '" + std::string(FMON_TEST_LIB) + "/libfmon.so'");
    EXPECT_EQ(dynamic.find("libstdc++"), std::string::npos) << dynamic;
}

/* ---- names that the agent has, too ---- */

TEST(Names, OfTheAgentDoNotCaptureTheModules)
{
    Names own = symbols(FMON_TEST_CAPTURING_AGENT, "--defined-only");
    for (const char *name : {"event_free", "event_process", "dcache_add", "fmon", "g_container_flag"})
        EXPECT_TRUE(own.count(name)) << name << " is not exported by the program, so nothing is shown";

    TempTree tree;
    Agent agent(tree.root(), {}, FMON_TEST_CAPTURING_AGENT);
    make_file(tree.path("a"));
    make_dir(tree.path("d"));
    move(tree.path("d"), tree.path("e"));
    Names seen, want = {tree.path("a"), tree.path("d"), tree.path("e")};
    for (int64_t deadline = now_ms() + kPatienceMs; difference(want, seen).size() && now_ms() < deadline;)
        if (auto line = agent.line(200))
            if (auto delivery = parse_delivery(*line))
                seen.insert(delivery->path);
    EXPECT_EQ(difference(want, seen), Names());
    agent.close_input();
    EXPECT_EQ(agent.wait(), 0);
    EXPECT_EQ(agent.errors().find("captured"), std::string::npos) << agent.errors();
}

}  // namespace
