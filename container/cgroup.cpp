#include "cgroup.h"

#include <sys/stat.h>

#include <algorithm>
#include <charconv>

namespace container
{

namespace
{

constexpr size_t kIdLength = 64;
constexpr size_t kMaxLines = 64, kMaxDepth = 8;

/* What stands before an id. Groups of an engine's own helpers ("libpod-conmon-ID.scope") are in no row: those are
 * processes of the host. */
constexpr std::string_view kEngines[] = {"docker", "cri-containerd", "crio", "libpod", "nerdctl", "containerd"};

bool is_engine(std::string_view name)
{
    return std::find(std::begin(kEngines), std::end(kEngines), name) != std::end(kEngines);
}

void cut_suffix(std::string_view &text, std::string_view suffix)
{
    if (text.ends_with(suffix))
        text.remove_suffix(suffix.size());
}

// Takes what ends at the next `end`, which goes too.
std::string_view take(std::string_view &text, char end)
{
    const size_t at = text.find(end);
    const std::string_view part = text.substr(0, at);
    text.remove_prefix(at == std::string_view::npos ? text.size() : at + 1);
    return part;
}

// Fills in the chain of a path and where its names end.
void follow(std::string_view path, Group &group)
{
    const char *const start = path.data();
    cut_suffix(path, " (deleted)");
    while (!path.empty() && group.chain.size() < kMaxDepth) {
        const std::string_view name = take(path, '/');
        const std::string_view id = id_of_name(name);
        // Some engines repeat the id for a group of their own below the container's.
        if (id.empty() || (!group.chain.empty() && group.chain.back() == id))
            continue;
        group.chain.emplace_back(id);
        group.ends.push_back(static_cast<size_t>(name.data() + name.size() - start));
    }
}

// The user of "user@UID.service"; 0: it is no manager's group, or root's.
uint32_t user_of_manager(std::string_view name)
{
    constexpr std::string_view kStart = "user@", kEnd = ".service";
    if (!name.starts_with(kStart) || !name.ends_with(kEnd))
        return 0;
    uint32_t user = 0;
    std::from_chars(name.data() + kStart.size(), name.data() + name.size() - kEnd.size(), user);
    return user;
}

// 0 also where there is no such directory.
uint32_t owner_of_directory(const std::string &path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0 ? st.st_uid : 0;
}

// Beside version 1, version 2 has a directory of its own.
uint32_t owner_of_group(const std::string &cgroups, const Group &group, const std::string &path)
{
    if (!group.hierarchy.empty())
        return owner_of_directory(cgroups + group.hierarchy + path);
    const uint32_t owner = owner_of_directory(cgroups + path);
    return owner ? owner : owner_of_directory(cgroups + "unified" + path);
}

// Calls `look` with each group on the way, the outermost first, and its name, until one is not 0.
template <typename Look>
uint32_t first_on_the_way(const std::string &path, Look look)
{
    for (size_t start = 0; start < path.size();) {
        const size_t end = std::min(path.find('/', start + 1), path.size());
        if (const uint32_t user = look(path.substr(0, end), path.substr(start + 1, end - start - 1)))
            return user;
        start = end;
    }
    return 0;
}

}  // namespace

bool is_id(std::string_view text)
{
    return text.size() == kIdLength && std::all_of(text.begin(), text.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
           });
}

std::string label_of(std::string_view id, uint32_t owner)
{
    return std::string(id) + (owner ? "@" + std::to_string(owner) : "");
}

bool is_label(std::string_view text)
{
    const std::string_view owner = text.substr(std::min(text.size(), kIdLength));
    uint32_t user = 0;
    std::from_chars(owner.data() + (owner.empty() ? 0 : 1), owner.data() + owner.size(), user);
    return is_id(text.substr(0, kIdLength)) && (owner.empty() || owner == "@" + std::to_string(user));
}

// "ID" and "ENGINE-ID" of the cgroupfs driver, "ENGINE-ID.scope" of systemd's, and "SLICE:ENGINE:ID" where the runtime
// was given systemd's form but made the group itself.
std::string_view id_of_name(std::string_view name)
{
    cut_suffix(name, ".scope");
    if (name.size() < kIdLength)
        return {};
    const std::string_view id = name.substr(name.size() - kIdLength);
    if (!is_id(id))
        return {};
    name.remove_suffix(kIdLength);
    if (name.empty())
        return id;
    const char mark = name.back();
    name.remove_suffix(1);
    if (mark == ':') {
        const size_t colon = name.rfind(':');
        name.remove_prefix(colon == std::string_view::npos ? 0 : colon + 1);
    } else if (mark != '-') {
        return {};
    }
    return is_engine(name) ? id : std::string_view();
}

Chain chain_of_path(std::string_view path)
{
    Group group;
    follow(path, group);
    return group.chain;
}

Group parse_cgroup(std::string_view text)
{
    Group group;
    for (size_t i = 0; i < kMaxLines && !text.empty(); i++) {
        std::string_view line = take(text, '\n');
        take(line, ':');  // the hierarchy's number
        std::string_view controllers = take(line, ':');
        follow(line, group);
        if (group.chain.empty())
            continue;
        if (controllers.starts_with("name="))
            controllers.remove_prefix(5);
        group.hierarchy = controllers;
        group.path = line;
        return group;
    }
    return group;
}

// A path with ".." leads out of what this process sees of the groups: only the names can be asked.
uint32_t maker_of(const Group &group, const std::string &files)
{
    if (group.chain.empty())
        return 0;
    const std::string place = group.place(0), cgroups = files + "/sys/fs/cgroup/";
    const bool is_in_sight = place.find("/..") == std::string::npos;
    return first_on_the_way(place, [&](const std::string &path, const std::string &name) {
        const uint32_t user = user_of_manager(name);
        return user || !is_in_sight ? user : owner_of_group(cgroups, group, path);
    });
}

}  // namespace container
