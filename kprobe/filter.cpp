#include "filter.h"

#include <sys/inotify.h>

#include <algorithm>
#include <cctype>
#include <charconv>

namespace kprobe
{

namespace
{

constexpr uint32_t kWatchEnds = IN_DELETE_SELF | IN_IGNORED;

bool is_word_char(char c) { return c == '_' || isalnum(static_cast<unsigned char>(c)); }

// Calls `replace` with each number that "mnt" is compared with (-1: too large for any mount) and puts its text there.
template <typename Replace>
std::string each_mount(std::string_view filter, Replace &&replace)
{
    constexpr int64_t kNoId = int64_t{INT32_MAX} + 1;
    std::string out;
    for (size_t i = 0; i < filter.size();) {
        const bool begins = i == 0 || !is_word_char(filter[i - 1]);
        size_t at = i + 3;
        if (!begins || filter.substr(i, 3) != "mnt" || at >= filter.size() || is_word_char(filter[at])) {
            out += filter[i++];
            continue;
        }
        while (at < filter.size() && !isdigit(static_cast<unsigned char>(filter[at])) && !is_word_char(filter[at]))
            at++;
        out += filter.substr(i, at - i);
        size_t end = at;
        int64_t id = 0;
        for (; end < filter.size() && isdigit(static_cast<unsigned char>(filter[end])); end++)
            id = std::min<int64_t>(id * 10 + (filter[end] - '0'), kNoId);
        if (end > at)
            out += replace(id == kNoId ? -1 : static_cast<int32_t>(id));
        i = end;
    }
    return out;
}

}  // namespace

std::vector<int32_t> mount_ids(std::string_view filter)
{
    std::vector<int32_t> ids;
    each_mount(filter, [&](int32_t id) {
        ids.push_back(id);
        return std::string();
    });
    return ids;
}

std::string whole_filter(const Definition &def, std::string_view filter)
{
    constexpr std::string_view kEnd = "&&m==8&&f>=32768&&f<=36863";
    const size_t mounts_end = filter.rfind(')');
    if (def.point != "__fsnotify_parent" || mounts_end == std::string_view::npos)
        return std::string(filter);
    const std::string_view end = filter.substr(mounts_end + 1);
    return std::string(filter) + std::string(kEnd.substr(0, end.size()) == end ? kEnd.substr(end.size()) : "");
}

std::string filter_with_ends(std::string_view filter)
{
    return filter.empty() ? "" : "(" + std::string(filter) + ")||m&" + std::to_string(kWatchEnds);
}

std::vector<uint32_t> threads_left_out(std::string_view filter)
{
    constexpr std::string_view kTest = "common_pid!=";
    std::vector<uint32_t> threads;
    for (size_t at = 0; (at = filter.find(kTest, at)) != std::string_view::npos;) {
        at += kTest.size();
        uint32_t thread = 0;
        if (std::from_chars(filter.data() + at, filter.data() + filter.size(), thread).ec == std::errc())
            threads.push_back(thread);
    }
    return threads;
}

std::string filter_by_device(std::string_view filter, const MountMap &mounts)
{
    return each_mount(filter, [&](int32_t id) {
        constexpr uint32_t kNoDevice = UINT32_MAX;
        const uint32_t device = id == 0 ? 0 : mounts.device_of(id);
        return std::to_string(id != 0 && device == 0 ? kNoDevice : device);
    });
}

}  // namespace kprobe
