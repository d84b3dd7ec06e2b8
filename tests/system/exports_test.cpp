/*
 * The border of libfmon.so: what it exports is its list and what its headers mark, what it imports is the agent's
 * interface and the C library's, and a program's functions of the same names do not get between it and its own.
 */
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
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

/* Neither comments nor preprocessor lines. */
std::string code_of(const std::string &path)
{
    std::string text = file_text(path), out;
    for (size_t at = 0; at < text.size();) {
        const bool comment = text.compare(at, 2, "/*") == 0, directive = text[at] == '#';
        if (comment || directive)
            at = std::min(text.size(), comment ? text.find("*/", at) + 2 : text.find('\n', at));
        else
            out += text[at++];
    }
    return out;
}

bool is_word(char c) { return isalnum(static_cast<unsigned char>(c)) || c == '_'; }

std::string last_word(const std::string &text)
{
    size_t end = text.size();
    while (end > 0 && !is_word(text[end - 1]))
        end--;
    size_t start = end;
    while (start > 0 && is_word(text[start - 1]))
        start--;
    return text.substr(start, end - start);
}

std::vector<std::string> statements(const std::string &code)
{
    std::vector<std::string> out;
    std::istringstream in(code);
    for (std::string piece; std::getline(in, piece, ';');)
        out.push_back(piece);
    return out;
}

/* Functions and objects that a header declares, those with `mark` in their declaration. */
Names declared_in(const std::string &path, const std::string &mark)
{
    Names out;
    for (std::string text : statements(code_of(path))) {
        if (size_t block = text.find("extern \"C\" {"); block != text.npos)
            text.erase(0, block + strlen("extern \"C\" {"));
        const bool object = text.find("extern ") != text.npos, function = text.find('(') != text.npos;
        if (text.find("typedef") != text.npos || (!object && !function) || text.find(mark) == text.npos)
            continue;
        out.insert(last_word(text.substr(0, std::min({text.find('('), text.find("__attribute__"), text.find('[')}))));
    }
    return out;
}

Names declared(const std::string &header, const std::string &mark = "")
{
    return declared_in(std::string(FMON_TEST_SOURCE) + "/include/" + header, mark);
}

/* Of every header of the module. */
Names marked_for_export()
{
    Names out;
    for (const char *directory : {"/include", "/src", "/src/linux", "/src/linux/probe"})
        for (const auto &entry : std::filesystem::directory_iterator(std::string(FMON_TEST_SOURCE) + directory))
            if (entry.path().extension() == ".h")
                out.merge(declared_in(entry.path(), "FMON_API"));
    return out;
}

/* The names in the first column of the table below that heading, directories' names left out. */
Names table_of(const std::string &document, const std::string &heading)
{
    Names out;
    std::string text = "\n" + file_text(document);
    text.erase(0, text.find("\n" + heading + "\n") + 1 + heading.size());
    std::istringstream lines(text.substr(0, text.find("\n## ")));
    for (std::string line; std::getline(lines, line);) {
        if (!line.starts_with("| `"))
            continue;
        std::istringstream words(line.substr(0, line.find(" | ")));
        for (std::string word; std::getline(words, word, '`');)
            if (std::all_of(word.begin(), word.end(), is_word) && !out.insert(word).second)
                ADD_FAILURE() << word << " stands there twice";
    }
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
    Names want;
    std::string list = code_of(FMON_TEST_EXPORTS);
    for (const std::string &row : statements(list.substr(0, list.find("local:"))))
        want.insert(last_word(row));
    want.erase("");
    EXPECT_GT(want.size(), 60U);
    EXPECT_EQ(want, module_symbols("--defined-only"));
}

TEST(Exports, AreWhatTheHeadersMark)
{
    EXPECT_EQ(module_symbols("--defined-only"), marked_for_export());
    EXPECT_GE(declared("orx_fmon.h", "FMON_API").size(), 17U);
}

TEST(Exports, AreTheTableOfTheDocument)
{
    EXPECT_EQ(module_symbols("--defined-only"),
              table_of(std::string(FMON_TEST_SOURCE) + "/docs/exports.md", "# What the module exports"));
}

TEST(Exports, OfTheHostAreItsHeaders)
{
    Names want;
    for (const char *header : {"orx_base.h", "orx_event_loop.h", "orx_autolog.h"})
        want.merge(declared(header));
    Names have = symbols(std::string(FMON_TEST_LIB) + "/liborx_base.so", "--defined-only");
    Names missing = difference(want, have);
    missing.erase("cJSON_AddItemToObject"); /* the JSON library's, which the base library brings along */
    EXPECT_EQ(Names(), missing);
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
    EXPECT_EQ(Names(), rest);
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
    EXPECT_EQ("U", kind["error_output"]);
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
    EXPECT_EQ(Names(), difference(want, seen));
    agent.close_input();
    EXPECT_EQ(0, agent.wait());
    EXPECT_EQ(agent.errors().find("captured"), std::string::npos) << agent.errors();
}

}  // namespace
