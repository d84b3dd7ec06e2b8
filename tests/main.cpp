/*
 * main.cpp: the main function of every test program, in place of GoogleTest's. The status says what CTest shows:
 * 0: all cases passed; 77 ("Skipped"): none failed, and some could not run on this machine; another: some failed, or
 * none was selected, or two have one name.
 *
 *   --source=NAME        runs the cases of NAME_test.cpp
 *   --sources=NAME,...   runs nothing; 0: each case is in one of these, and each of these has one
 */
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <set>
#include <sstream>
#include <string>

namespace
{

/* By the name of their source: "Suite.Case:Suite.Case". */
using Filters = std::map<std::string, std::string>;

/* "NAME" of ".../NAME_test.cpp". */
std::string source_of(const testing::TestInfo &info)
{
    const std::string file = info.file(), base = file.substr(file.rfind('/') + 1);
    return base.substr(0, base.find("_test.cpp"));
}

/* False: two cases have one name. */
bool find_cases(Filters &filters)
{
    std::set<std::string> names;
    const testing::UnitTest &all = *testing::UnitTest::GetInstance();
    for (int i = 0; i < all.total_test_suite_count(); i++) {
        const testing::TestSuite &suite = *all.GetTestSuite(i);
        for (int k = 0; k < suite.total_test_count(); k++) {
            const testing::TestInfo &info = *suite.GetTestInfo(k);
            const std::string name = std::string(suite.name()) + "." + info.name();
            if (!names.insert(name).second) {
                fprintf(stderr, "two cases are called %s\n", name.c_str());
                return false;
            }
            filters[source_of(info)] += name + ":";
        }
    }
    return true;
}

/* A filter that was given says more: what is left out stays so, and a death test's own process is given its only case.
 */
bool choose(const Filters &filters, const std::string &source)
{
    const auto found = filters.find(source);
    if (found == filters.end())
        return false;
    std::string &filter = testing::GTEST_FLAG(filter);
    const std::string given = filter.substr(0, filter.find('-'));
    if (given.empty() || given == "*")
        filter = found->second + filter.substr(given.size());
    return true;
}

std::set<std::string> split(const std::string &names)
{
    std::set<std::string> out;
    std::istringstream in(names);
    for (std::string name; std::getline(in, name, ',');)
        out.insert(name);
    return out;
}

int compare(const Filters &filters, const std::set<std::string> &wanted)
{
    size_t found = 0;
    for (const auto &[source, filter] : filters) {
        found += wanted.count(source);
        if (!wanted.count(source))
            fprintf(stderr, "nobody runs the cases of %s\n", source.c_str());
    }
    for (const std::string &source : wanted)
        if (!filters.count(source))
            fprintf(stderr, "%s_test.cpp has no case\n", source.c_str());
    return found == filters.size() && found == wanted.size() ? 0 : 1;
}

int run()
{
    const int status = RUN_ALL_TESTS();
    if (status != 0 || testing::GTEST_FLAG(list_tests))
        return status;
    const testing::UnitTest &all = *testing::UnitTest::GetInstance();
    if (all.test_to_run_count() == 0) {
        fprintf(stderr, "no case was selected\n");
        return 1;
    }
    return all.skipped_test_count() > 0 ? 77 : 0;
}

}  // namespace

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    Filters filters;
    if (!find_cases(filters))
        return 1;
    const std::string option = argc > 1 ? argv[1] : "", value = option.substr(option.find('=') + 1);
    if (option.starts_with("--sources="))
        return compare(filters, split(value));
    if (option.starts_with("--source=") && !choose(filters, value)) {
        fprintf(stderr, "no case is in %s_test.cpp\n", value.c_str());
        return 1;
    }
    return run();
}
