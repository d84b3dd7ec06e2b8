/*
 * spool_testing.h: a spool in a directory of the test's, filled and read back.
 */
#ifndef UNIT_OUTPUT_DISK_SPOOL_TESTING_H
#define UNIT_OUTPUT_DISK_SPOOL_TESTING_H

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "output/spool/spool.h"
#include "testlib/tree.h"

namespace spool_testing
{

inline const std::string kOrigin = "boot:web";

class SpoolTest : public testing::Test
{
protected:
    std::string directory() const { return tree.path("spool"); }

    /* Ends the spool and opens it anew. */
    bool open(const std::string &origin = kOrigin)
    {
        spool.reset();
        spool = std::make_unique<output::Spool>(directory(), origin, limits);
        error.clear();
        return spool->open(error);
    }

    /* The next `count` records; how many were taken. */
    size_t put(uint64_t count, size_t length = 10)
    {
        std::vector<std::string> texts;
        std::vector<output::SpoolRecord> records;
        for (uint64_t i = 0; i < count; i++) {
            texts.push_back(std::to_string(next_number + i) + " ");
            texts.back().resize(std::max(length, texts.back().size()), 'x');
        }
        for (uint64_t i = 0; i < count; i++)
            records.push_back({next_number + i, false, "create", "/key", texts[i]});
        const size_t done = spool->append(records, error);
        next_number += done;
        return done;
    }

    /* The numbers of all that can be read now. */
    std::vector<uint64_t> get(size_t bytes = 1 << 20)
    {
        std::vector<uint64_t> numbers;
        std::deque<output::SpoolEntry> entries;
        while (spool->read(bytes, entries)) {
            for (const output::SpoolEntry &entry : entries) {
                EXPECT_EQ(std::to_string(entry.number) + " ", entry.text().substr(0, entry.text().find(' ') + 1));
                EXPECT_EQ("create", entry.kind());
                EXPECT_EQ("/key", entry.key());
                EXPECT_LT(last_ordinal, entry.ordinal);
                last_ordinal = entry.ordinal;
                numbers.push_back(entry.number);
            }
            entries.clear();
        }
        return numbers;
    }

    static std::vector<uint64_t> range(uint64_t first, uint64_t last)
    {
        std::vector<uint64_t> numbers;
        for (; first <= last; first++)
            numbers.push_back(first);
        return numbers;
    }

    std::vector<std::string> segments() const
    {
        std::vector<std::string> paths;
        for (const auto &entry : std::filesystem::directory_iterator(directory()))
            if (entry.path().extension() == ".segment")
                paths.push_back(entry.path());
        std::sort(paths.begin(), paths.end());
        return paths;
    }

    static std::string content(const std::string &path)
    {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    static void change(const std::string &path, const std::string &text)
    {
        std::ofstream(path, std::ios::trunc) << text;
    }

    testlib::TempTree tree;
    output::SpoolLimits limits;
    std::unique_ptr<output::Spool> spool;
    uint64_t next_number = 1, last_ordinal = 0;
    std::string error;
};

}  // namespace spool_testing

#endif
