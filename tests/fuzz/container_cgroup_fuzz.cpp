/* /proc/PID/cgroup, whose names whoever may make control groups chooses. */
#include <algorithm>
#include <string>

#include "container/cgroup.h"
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    const container::Group group = container::parse_cgroup(text);
    const container::Chain &chain = group.chain;
    FUZZ_CHECK(group.ends.size() == chain.size());
    FUZZ_CHECK(chain.size() <= 8);
    for (size_t i = 0; i < chain.size(); i++) {
        FUZZ_CHECK(container::is_id(chain[i]));
        FUZZ_CHECK(group.ends[i] <= group.path.size());
        FUZZ_CHECK(group.place(i).find(chain[i]) != std::string::npos);
    }
    FUZZ_CHECK(std::adjacent_find(chain.begin(), chain.end()) == chain.end());
    const std::string_view id = container::id_of_name(text);
    FUZZ_CHECK(id.empty() || container::is_id(id));
    return 0;
}
