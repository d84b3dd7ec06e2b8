/* The service's configuration: what is taken can be run, and what is not is said with a place that the text has. */
#include <algorithm>
#include <set>
#include <string>
#include <string_view>

#include "cli/run/config_read.h"
#include "fuzz.h"

using namespace cli;

namespace
{

void check_place(std::string_view text, const Place &place)
{
    const auto newlines = static_cast<uint32_t>(std::count(text.begin(), text.end(), '\n'));
    FUZZ_CHECK(place.line <= newlines + 1);
    FUZZ_CHECK(place.column <= text.size() + 1);
    FUZZ_CHECK((place.line == 0) == (place.column == 0));
}

void check_value(std::string_view text, const TomlValue &value)
{
    check_place(text, value.place);
    for (const TomlValue &item : value.items)
        check_value(text, item);
    for (const TomlMember &member : value.members) {
        check_place(text, member.place);
        FUZZ_CHECK(value.find(member.key));
        check_value(text, member.value);
    }
}

void check_instances(const Config &config)
{
    std::set<std::string> names;
    FUZZ_CHECK(!config.instances.empty());
    for (const InstanceConfig &instance : config.instances) {
        FUZZ_CHECK(!instance.name.empty() && names.insert(instance.name).second);
        FUZZ_CHECK(!instance.watches.empty() && !instance.outputs.empty());
        FUZZ_CHECK(monitor_instances(instance) >= 1);
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    TomlValue document;
    Place place;
    std::string error;
    if (parse_toml(text, document, place, error))
        check_value(text, document);
    else
        check_place(text, place);

    Config config;
    Faults faults;
    read_config(text, config, faults);
    FUZZ_CHECK(faults.lines("f").empty() == faults.empty());
    if (faults.empty()) {
        check_instances(config);
        config_warnings(config);
    }
    return 0;
}
