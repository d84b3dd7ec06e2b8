/*
 * sink_testing.h: what the tests of outputs share.
 */
#ifndef UNIT_OUTPUT_SINK_TESTING_H
#define UNIT_OUTPUT_SINK_TESTING_H

#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "output/sinks.h"

namespace sink_testing
{

inline constexpr uint64_t kPatienceMs = 10'000; /* a machine under load is slow, not wrong */

/* Whether it becomes true in time. */
inline bool becomes(const std::function<bool()> &what)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatienceMs);
    while (!what()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::yield();
    }
    return true;
}

inline std::string content(const std::string &path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

inline std::string line_of(uint64_t number, size_t length = 0)
{
    std::string line = "record " + std::to_string(number);
    line.resize(std::max(line.size(), length), '.');
    return line + "\n";
}

inline output::Record record_of(uint64_t number, std::string_view text, const char *type = "event",
                                const agent::Event *event = nullptr)
{
    return {number, 1'700'000'000'123'456'789, type, text, event};
}

/* Records first, first + 1, ... with their texts. */
class Records
{
public:
    Records(uint64_t first, uint64_t count, size_t length = 0)
    {
        for (uint64_t number = first; number < first + count; number++) {
            texts_.push_back(line_of(number, length));
            records_.push_back(record_of(number, texts_.back()));
        }
    }
    operator std::span<const output::Record>() const { return records_; }
    std::string text() const
    {
        std::string all;
        for (const std::string &one : texts_)
            all += one;
        return all;
    }

private:
    std::deque<std::string> texts_;
    std::vector<output::Record> records_;
};

/* Hands all over, however often the sink has to be asked. */
inline void give(output::Sink &sink, std::span<const output::Record> records)
{
    ASSERT_TRUE(becomes([&]() {
        records = records.subspan(sink.accept(records));
        return records.empty();
    }));
    sink.flush();
}

/* A sink by its row's name, with what was said in place of the row's defaults; numbers are numbers of the unit. */
class Made
{
public:
    Made(const std::string &type, const std::map<std::string, output::Settings::Value> &said,
         const output::Origin &origin = {"host1", "boot1", "web"})
    {
        const output::SinkRow *row = output::find_sink(type);
        if (!row) {
            error = "no such row";
            return;
        }
        output::Settings settings;
        for (const output::Setting &setting : row->settings)
            if (setting.type == output::SettingType::kText && setting.fallback)
                settings.set(setting.key, std::string(setting.fallback));
        for (const auto &[key, value] : said)
            settings.set(key, value);
        sink = row->make(settings, origin, error);
    }

    output::Sink *operator->() const { return sink.get(); }
    output::Sink &operator*() const { return *sink; }
    explicit operator bool() const { return sink != nullptr; }

    bool open()
    {
        const bool opened = sink && sink->open(error);
        EXPECT_EQ(opened, error.empty()) << error;
        return opened;
    }
    bool becomes_stuck() const
    {
        return becomes([this]() { return sink->condition().stuck; });
    }
    bool becomes_well() const
    {
        return becomes([this]() { return !sink->condition().stuck; });
    }
    bool says(const std::string &what) const
    {
        return becomes([&]() { return sink->condition().text.find(what) != std::string::npos; });
    }

    std::unique_ptr<output::Sink> sink;
    std::string error;
};

using namespace std::string_literals;

}  // namespace sink_testing

#endif
