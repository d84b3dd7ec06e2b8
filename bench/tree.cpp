#include "tree.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>

namespace
{

constexpr int kFanOut = 10;

std::string make_root(const char *base)
{
    if (!base)
        base = getenv("TMPDIR");
    std::string path = std::string(base && *base ? base : "/tmp") + "/fmon-bench-XXXXXX";
    if (!mkdtemp(path.data())) {
        perror(path.c_str());
        exit(2);
    }
    chmod(path.c_str(), 0777);
    return std::filesystem::canonical(path);
}

void make_directory(const std::string &path)
{
    if (mkdir(path.c_str(), 0777) < 0) {
        perror(path.c_str());
        exit(2);
    }
    chmod(path.c_str(), 0777);
}

}  // namespace

BenchTree::BenchTree(int directories, const char *base) : root_(make_root(base))
{
    std::deque<std::string> open = {root_};
    for (int made = 1; made < directories; open.pop_front()) {
        for (int i = 0; i < kFanOut && made < directories; i++, made++) {
            open.push_back(open.front() + "/branch" + std::to_string(i));
            make_directory(open.back());
        }
    }
}

BenchTree::~BenchTree()
{
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
}
