/* The manual page of the configuration has each key of each table, and the shipped configuration is right. */
#include "cli/run/config_page.h"

#include <gtest/gtest.h>

#include "cli/run/config_read.h"
#include "cli/run/config_tables.h"
#include "output/sinks.h"
#include "source_tree.h"

namespace
{

std::string page() { return cli::config_page(cli_testing::text_of("packaging/manual/fmon.toml.5.in")); }

void expect_keys(std::span<const output::Setting> rows)
{
    for (const output::Setting &row : rows)
        EXPECT_NE(std::string::npos, page().find("\n.It Ic " + std::string(row.key) + "\n")) << row.key;
}

}  // namespace

TEST(ConfigPage, HasEachKey)
{
    expect_keys(cli::service_keys());
    expect_keys(cli::monitor_keys());
    expect_keys(cli::instance_keys());
    expect_keys(cli::watch_keys());
    expect_keys(cli::output_keys());
    for (const output::SinkRow &sink : output::sinks()) {
        EXPECT_NE(std::string::npos, page().find(".Ss Outputs of type " + std::string(sink.type) + "\n"));
        expect_keys(sink.settings);
    }
}

TEST(ConfigPage, AFrameWithoutAPlaceForATableMakesNone) { EXPECT_EQ("", cli::config_page(".Sh NAME\n@service@\n")); }

TEST(ConfigPage, NoLineIsTakenForACommand)
{
    std::istringstream lines(page());
    for (std::string line; std::getline(lines, line);) {
        EXPECT_FALSE(line.starts_with('\'')) << line;
        EXPECT_FALSE(line.starts_with('@')) << line;
    }
}

/* The example of the page, and what is shipped, with its examples taken in. */
TEST(ConfigPage, WhatIsShippedIsRight)
{
    const std::string shipped = cli_testing::text_of("config/fmon.toml");
    for (const bool all : {false, true}) {
        std::istringstream lines(shipped);
        std::string text;
        for (std::string line; std::getline(lines, line);) {
            const bool is_example = line.size() > 2 && line[0] == '#' && (line[1] != ' ' || line[2] == ' ');
            text += (all && is_example ? line.substr(1) : line) + "\n";
        }
        cli::Config config;
        cli::Faults faults;
        cli::read_config(text, config, faults);
        EXPECT_EQ(std::vector<std::string>{}, faults.lines("fmon.toml"));
        EXPECT_EQ(all ? 4u : 1u, config.instances.size());
    }
}
