#include "cgroup.h"

#include <algorithm>

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

}  // namespace

bool is_id(std::string_view text)
{
    return text.size() == kIdLength && std::all_of(text.begin(), text.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
           });
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
    Chain chain;
    cut_suffix(path, " (deleted)");
    while (!path.empty() && chain.size() < kMaxDepth) {
        const std::string_view id = id_of_name(take(path, '/'));
        // Some engines repeat the id for a group of their own below the container's.
        if (!id.empty() && (chain.empty() || chain.back() != id))
            chain.emplace_back(id);
    }
    return chain;
}

Chain parse_cgroup(std::string_view text)
{
    for (size_t i = 0; i < kMaxLines && !text.empty(); i++) {
        std::string_view line = take(text, '\n');
        take(line, ':');  // the hierarchy's number
        take(line, ':');  // its controllers
        Chain chain = chain_of_path(line);
        if (!chain.empty())
            return chain;
    }
    return {};
}

}  // namespace container
