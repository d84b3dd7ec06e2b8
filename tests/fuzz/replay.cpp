/*
 * Gives a fuzz target the files and directories that its command line names, each whole and cut off at every length up
 * to kCuts; without a fuzzer, this is what keeps the targets and what they once found tested.
 */
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz.h"

namespace fs = std::filesystem;

namespace
{

constexpr size_t kCuts = 256;

int inputs = 0;

void give(const std::string &bytes)
{
    const std::vector<uint8_t> copy(bytes.begin(), bytes.end()); /* of its exact size: nothing behind it is ours */
    LLVMFuzzerTestOneInput(copy.data(), copy.size());
    inputs++;
}

void give_file(const fs::path &path)
{
    std::ifstream file(path, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), {});
    give(bytes);
    const size_t step = bytes.size() / kCuts + 1;
    for (size_t length = 0; length < bytes.size(); length += step)
        give(bytes.substr(0, length));
}

}  // namespace

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; i++) {
        if (fs::is_regular_file(argv[i]))
            give_file(argv[i]);
        else if (fs::is_directory(argv[i]))
            for (const fs::directory_entry &entry : fs::recursive_directory_iterator(argv[i]))
                if (entry.is_regular_file())
                    give_file(entry.path());
    }
    printf("%d inputs\n", inputs);
    return inputs > 0 ? 0 : 1;
}
