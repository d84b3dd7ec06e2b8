/*
 * sinks.cpp: what the output into a file costs beside a bare loop of write(2): a million records of 200 bytes, by each,
 * three times; the best of each.
 *
 *   fmon_sinks [DIRECTORY]    default: the current one
 */
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "common/fd.h"
#include "output/sinks.h"

namespace
{

constexpr size_t kRecords = 1'000'000, kLength = 200, kBatch = 256, kBlock = 64 << 10;
constexpr uint64_t kPatienceMs = 60'000;

double now() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }

[[noreturn]] void fail(const std::string &why)
{
    fprintf(stderr, "fmon_sinks: %s\n", why.c_str());
    exit(1);
}

double bare(const std::string &path, const std::string &record)
{
    const double before = now();
    const common::Fd file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    std::string block;
    for (size_t i = 0; i < kRecords; i++) {
        block += record;
        if (block.size() < kBlock && i + 1 < kRecords)
            continue;
        if (write(file.get(), block.data(), block.size()) != static_cast<ssize_t>(block.size()))
            fail("cannot write");
        block.clear();
    }
    return now() - before;
}

void give(output::Sink &sink, std::vector<output::Record> &records, uint64_t &number)
{
    for (output::Record &record : records)
        record.number = ++number;
    for (std::span<const output::Record> rest = records; !rest.empty();)
        rest = rest.subspan(sink.accept(rest));
    sink.flush();
}

double by_sink(const std::string &path, const std::string &record)
{
    const output::SinkRow *const row = output::find_sink("file");
    output::Settings settings;
    for (const output::Setting &setting : row->settings)
        if (setting.type == output::SettingType::kText && setting.fallback)
            settings.set(setting.key, std::string(setting.fallback));
    settings.set("path", path);
    std::string error;
    const std::unique_ptr<output::Sink> sink = row->make(settings, {}, error);
    if (!sink || !sink->open(error))
        fail(error);
    std::vector<output::Record> records(kBatch, {0, 0, "event", record, nullptr});
    uint64_t number = 0;
    const double before = now();
    while (number < kRecords)
        give(*sink, records, number);
    if (!sink->drain(kPatienceMs))
        fail("not all was written in time");
    return now() - before;
}

}  // namespace

int main(int argc, char **argv)
{
    const std::string directory = argc > 1 ? argv[1] : ".", record = std::string(kLength - 1, 'x') + "\n";
    char full[PATH_MAX];
    if (!realpath(directory.c_str(), full))
        fail("no directory " + directory);
    const std::string path = std::string(full) + "/fmon-sinks.out";
    double best_bare = 1e9, best_sink = 1e9;
    for (int round = 0; round < 3; round++) {
        best_bare = std::min(best_bare, bare(path, record));
        unlink(path.c_str());
        best_sink = std::min(best_sink, by_sink(path, record));
        unlink(path.c_str());
    }
    const double megabytes = kRecords * kLength / 1e6;
    printf("write(2)     %8.0f MB/s %10.0f records/s\n", megabytes / best_bare, kRecords / best_bare);
    printf("output file  %8.0f MB/s %10.0f records/s  %.2f of it\n", megabytes / best_sink, kRecords / best_sink,
           best_bare / best_sink);
}
