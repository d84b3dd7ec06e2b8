#include "mounts.h"

#include <algorithm>
#include <cstdio>

#include "tracefs.h"

namespace kprobe
{

namespace
{

constexpr std::ptrdiff_t kRemembered = 1024;  // mounts that are gone

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

std::string_view take_word(std::string_view *line)
{
    const size_t end = std::min(line->find(' '), line->size());
    const std::string_view word = line->substr(0, end);
    line->remove_prefix(std::min(end + 1, line->size()));
    return word;
}

bool parse_line(std::string_view line, Mount *out)
{
    unsigned major, minor;
    int id;
    if (sscanf(std::string(line).c_str(), "%d %*d %u:%u", &id, &major, &minor) != 3)
        return false;
    for (int i = 0; i < 3; i++)
        take_word(&line);
    out->id = id;
    out->device = major << 20 | minor;
    out->whole = take_word(&line) == "/";
    out->point = unescape(take_word(&line));
    return !out->point.empty();
}

const Mount *find_id(const std::vector<Mount> &mounts, int32_t id)
{
    const auto found = std::find_if(mounts.begin(), mounts.end(), [&](const Mount &m) { return m.id == id; });
    return found == mounts.end() ? nullptr : &*found;
}

}  // namespace

std::vector<Mount> parse_mounts(std::string_view text)
{
    std::vector<Mount> mounts;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        Mount mount;
        if (parse_line(text.substr(0, end), &mount))
            mounts.push_back(std::move(mount));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return mounts;
}

std::vector<Mount> read_mounts() { return parse_mounts(read_file("/proc/self/mountinfo")); }

void MountMap::refresh(std::vector<Mount> mounts)
{
    for (Mount &gone : now_)
        if (!find_id(mounts, gone.id) && !find_id(before_, gone.id))
            before_.push_back(std::move(gone));
    if (std::ssize(before_) > kRemembered)
        before_.erase(before_.begin(), before_.end() - kRemembered);
    now_ = std::move(mounts);
    for (Wanted &wanted : wanted_)
        wanted.device = device_of(wanted.id);
}

uint32_t MountMap::device_of(int32_t id) const
{
    if (const Mount *mount = find_id(now_, id))
        return mount->device;
    const Mount *old = find_id(before_, id);
    // The last line of a mount point is the mount that is on top.
    for (auto it = now_.rbegin(); old && it != now_.rend(); ++it)
        if (it->point == old->point)
            return it->device;
    return 0;
}

int32_t MountMap::id_of(uint32_t device) const
{
    int32_t wanted = 0, whole = 0, any = 0;
    const auto lower = [](int32_t *best, int32_t id) { *best = *best == 0 ? id : std::min(*best, id); };
    for (const Wanted &w : wanted_)
        if (w.device == device && device != 0)  // 0: the wanted mount is not there
            lower(&wanted, w.id);
    for (const Mount &mount : now_) {
        if (mount.device != device)
            continue;
        lower(&any, mount.id);
        if (mount.whole)
            lower(&whole, mount.id);
    }
    return wanted != 0 ? wanted : whole != 0 ? whole : any;
}

void MountMap::want(const std::vector<int32_t> &ids)
{
    wanted_.clear();
    for (const int32_t id : ids)
        if (id != 0)
            wanted_.push_back({id, device_of(id)});
}

const char *MountMap::point_of(uint32_t device) const
{
    for (const Mount &mount : now_)
        if (mount.device == device)
            return mount.point.c_str();
    return nullptr;
}

}  // namespace kprobe
