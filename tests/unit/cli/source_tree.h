/*
 * source_tree.h: files of the source tree, for tests that hold them against the program.
 */
#ifndef SOURCE_TREE_H
#define SOURCE_TREE_H

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace cli_testing
{

/* The text of a file, by its path in the tree. */
inline std::string text_of(const std::string &path)
{
    std::ostringstream text;
    text << std::ifstream(std::string(FMON_TEST_SOURCE "/") + path).rdbuf();
    EXPECT_FALSE(text.str().empty()) << path;
    return text.str();
}

inline std::vector<std::string> lines_of(const std::string &path)
{
    std::vector<std::string> lines;
    std::istringstream text(text_of(path));
    for (std::string line; std::getline(text, line);)
        lines.push_back(line);
    return lines;
}

}  // namespace cli_testing

#endif
