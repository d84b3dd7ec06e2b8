/* What is written of a time in which a service did not run; ECS and OCSF: format_schemas_test.cpp. */
#include "output/formats.h"
#include "unit/agent/agent_testing.h"

using namespace output;
using agent_testing::kTime;

TEST(FormatUnwatched, SaysFromWhenUntilWhenAndWhy)
{
    const Unwatched gap = {kTime - 2'000'000'000, kTime, "stopped"};
    const std::string text = "stopped, from 2024-02-29T12:34:54.789012345Z until 2024-02-29T12:34:56.789012345Z\n";
    std::string out;
    make_json_formatter(FormatStyle())->unwatched(kTime, gap, out);
    EXPECT_EQ(
        "{\"type\":\"unwatched\",\"time\":\"2024-02-29T12:34:56.789012345Z\","
        "\"from\":\"2024-02-29T12:34:54.789012345Z\",\"until\":\"2024-02-29T12:34:56.789012345Z\","
        "\"reason\":\"stopped\"}\n",
        out);
    out.clear();
    make_text_formatter(FormatStyle())->unwatched(kTime, gap, out);
    EXPECT_NE(out.find(" unwatched                " + text), std::string::npos) << out;
    out.clear();
    make_csv_formatter(FormatStyle())->unwatched(kTime, gap, out);
    EXPECT_NE(out.find(",unwatched,,0,\"" + text.substr(0, text.size() - 1)), std::string::npos) << out;
}
