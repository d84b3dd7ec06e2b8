// probe_driver [CASE...]: the kernel-probe library alone, loaded as the monitor loads it, with the monitor's own
// definitions; what it hands on is held against what was done.
#include <cstdlib>
#include <cstring>

#include "driver.h"

namespace
{

struct Case {
    const char *name;
    void (*run)();
    bool by_default = true;
};
constexpr Case kCases[] = {
    {"ends", case_ends},     {"files", case_files},         {"names", case_names},
    {"mounts", case_mounts}, {"inotify", case_inotify},     {"many", case_many},
    {"clean", case_clean},   {"disturbed", case_disturbed}, {"latency", case_latency},
    {"forks", case_forks},   {"bad", case_bad_input},       {"watched", case_watched_tracefs},
    {"cycles", case_cycles}, {"cost", case_cost},           {"cost_parts", case_cost_parts, false},
};

}  // namespace

int main(int argc, char **argv)
{
    load_library();
    if (argc == 3 && strcmp(argv[1], "hold") == 0)
        return hold(atoi(argv[2]));
    for (const Case &one : kCases) {
        bool wanted = argc < 2 && one.by_default;
        for (int i = 1; i < argc; i++)
            wanted |= strcmp(argv[i], one.name) == 0;
        const double began = seconds();
        if (wanted) {
            one.run();
            printf("# %s: %.1f s\n", one.name, seconds() - began);
        }
    }
    return any_failed;
}
