#include "mounts.h"

#include <algorithm>
#include <cstdio>

#include "tracefs.h"

namespace kprobe
{

namespace
{

constexpr size_t kRemembered = 1024;  // mounts that are gone

bool is_octal(char c) { return c >= '0' && c <= '7'; }

// "\040" is a blank: the table writes white space and backslashes so.
std::string unescape(std::string_view text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] == '\\' && i + 3 < text.size() && is_octal(text[i + 1]) && is_octal(text[i + 2]) &&
            is_octal(text[i + 3])) {
            out += static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0'));
            i += 3;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::string_view take_word(std::string_view &line)
{
    const size_t end = std::min(line.find(' '), line.size());
    const std::string_view word = line.substr(0, end);
    line.remove_prefix(std::min(end + 1, line.size()));
    return word;
}

bool parse_line(std::string_view line, Mount &out)
{
    unsigned major, minor;
    int id;
    if (sscanf(std::string(line).c_str(), "%d %*d %u:%u", &id, &major, &minor) != 3)
        return false;
    for (int i = 0; i < 3; i++)
        take_word(line);
    out.id = id;
    out.device = major << 20 | minor;
    out.whole = take_word(line) == "/";
    out.point = unescape(take_word(line));
    return !out.point.empty();
}

void lower(int32_t &best, int32_t id) { best = best == 0 ? id : std::min(best, id); }

}  // namespace

std::vector<Mount> parse_mounts(std::string_view text)
{
    std::vector<Mount> mounts;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        Mount mount;
        if (parse_line(text.substr(0, end), mount))
            mounts.push_back(std::move(mount));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return mounts;
}

std::vector<Mount> read_mounts() { return parse_mounts(read_file("/proc/self/mountinfo")); }

void MountMap::refresh(const std::vector<Mount> &mounts)
{
    Tables next;
    for (const Mount &mount : mounts) {
        next.ids[mount.id] = {mount.device, mount.point};
        next.points[mount.point] = mount.device;  // the last line of a mount point is the mount that is on top
        Device &device = next.devices[mount.device];
        if (device.any == 0)
            device.point = mount.point;
        lower(device.any, mount.id);
        if (mount.whole)
            lower(device.whole, mount.id);
    }
    remember(next);
    now_ = std::move(next);
    want(std::vector<int32_t>(wanted_));
}

void MountMap::remember(const Tables &next)
{
    for (const auto &[id, mount] : now_.ids)
        if (next.ids.count(id) == 0 && before_.emplace(id, mount.point).second)
            went_.push_back(id);
    while (went_.size() > kRemembered) {
        before_.erase(went_.front());
        went_.pop_front();
    }
}

uint32_t MountMap::device_of(int32_t id) const
{
    if (const auto mount = now_.ids.find(id); mount != now_.ids.end())
        return mount->second.device;
    const auto old = before_.find(id);
    const auto top = old == before_.end() ? now_.points.end() : now_.points.find(old->second);
    return top == now_.points.end() ? 0 : top->second;
}

int32_t MountMap::id_of(uint32_t device) const
{
    if (const auto wanted = wanted_of_.find(device); wanted != wanted_of_.end())
        return wanted->second;
    const auto found = now_.devices.find(device);
    if (found == now_.devices.end())
        return 0;
    return found->second.whole != 0 ? found->second.whole : found->second.any;
}

void MountMap::want(const std::vector<int32_t> &ids)
{
    wanted_ = ids;
    wanted_of_.clear();
    for (const int32_t id : ids)
        if (const uint32_t device = id == 0 ? 0 : device_of(id); device != 0)  // 0: the wanted mount is not there
            lower(wanted_of_[device], id);
}

const char *MountMap::point_of(uint32_t device) const
{
    const auto found = now_.devices.find(device);
    return found == now_.devices.end() ? nullptr : found->second.point.c_str();
}

}  // namespace kprobe
