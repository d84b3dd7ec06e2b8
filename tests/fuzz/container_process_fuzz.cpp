/* /proc/PID/stat and mountinfo: process names and mount points are chosen by whoever runs there. */
#include <string>
#include <vector>

#include "container/process_directory.h"
#include "fuzz.h"

namespace
{

using Numbers = std::vector<uint64_t>;

Numbers numbers_in_pieces_of(size_t length, std::string_view text)
{
    Numbers numbers;
    container::MountNumbers parser;
    for (size_t i = 0; i < text.size(); i += length)
        parser.feed(text.substr(i, length), [&](uint64_t number) { numbers.push_back(number); });
    return numbers;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    FUZZ_CHECK(container::parse_start_time(text) > 0);
    const Numbers whole = numbers_in_pieces_of(size + 1, text);
    FUZZ_CHECK(whole.size() <= 1 + static_cast<size_t>(std::count(text.begin(), text.end(), '\n')));
    for (const size_t length : {1, 2, 7, 64})
        FUZZ_CHECK(numbers_in_pieces_of(length, text) == whole);
    return 0;
}
