#include "testlib/kernel_double/fake_files.h"

#include <cstring>
#include <filesystem>
#include <fstream>

namespace testlib
{

namespace
{

constexpr char kTracing[] = "/sys/kernel/tracing";
constexpr char kOldTracing[] = "/sys/kernel/debug/tracing";

void write_text(const std::string &path, const std::string &text)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

}  // namespace

bool FakeFiles::is_tracing(const std::string &path) { return path.starts_with(kTracing); }

std::string FakeFiles::place(const std::string &path) const
{
    return tree_.path("tracing" + path.substr(strlen(kTracing)));
}

void FakeFiles::put(const std::string &path, const std::string &text)
{
    const std::lock_guard lock(lock_);
    if (is_tracing(path)) {
        write_text(place(path), text);
        return;
    }
    std::string &real = files_[path];
    if (real.empty())
        real = tree_.path("file" + std::to_string(next_++));
    write_text(real, text);
}

void FakeFiles::remove(const std::string &path)
{
    const std::string real = real_path(path);
    const std::lock_guard lock(lock_);
    files_[path] = tree_.path("missing");
    if (real.starts_with(tree_.root()))
        std::filesystem::remove_all(real);
}

std::string FakeFiles::real_path(const std::string &path)
{
    const std::lock_guard lock(lock_);
    if (is_tracing(path))
        return place(path);
    if (path.starts_with(kOldTracing))
        return tree_.path("missing");
    const auto found = files_.find(path);
    return found == files_.end() ? path : found->second;
}

}  // namespace testlib
