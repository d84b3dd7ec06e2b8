/* /proc/PID/cgroup, whose names whoever may make control groups chooses. */
#include <algorithm>
#include <string>

#include "container/cgroup.h"
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    const container::Chain chain = container::parse_cgroup(text);
    FUZZ_CHECK(chain.size() <= 8);
    for (const std::string &id : chain) {
        FUZZ_CHECK(container::is_id(id));
        FUZZ_CHECK(text.find(id) != std::string_view::npos);
    }
    FUZZ_CHECK(std::adjacent_find(chain.begin(), chain.end()) == chain.end());
    const std::string_view id = container::id_of_name(text);
    FUZZ_CHECK(id.empty() || container::is_id(id));
    return 0;
}
