#include "details.h"

#include "docker.h"
#include "engines.h"

namespace container
{

void fill(std::string &text, std::string_view value)
{
    if (text.empty())
        text = value;
}

bool read_json(const Tree &directory, const std::string &path, JsonDocument &out)
{
    std::string text;
    return directory && directory.read(path, kMaxJson, text) && parse_json(text, out);
}

// The tag is what follows the last ":", unless that belongs to the registry's port.
void take_image(std::string_view reference, Details &out)
{
    constexpr std::string_view kDigest = "sha256:";
    if (reference.starts_with(kDigest)) {
        fill(out.image_id, reference);
        return;
    }
    const size_t digest = reference.find('@');
    if (digest != std::string_view::npos)
        reference = reference.substr(0, digest);
    const size_t slash = reference.rfind('/'), colon = reference.rfind(':');
    const bool tagged = colon != std::string_view::npos && (slash == std::string_view::npos || colon > slash);
    const size_t name = slash == std::string_view::npos ? 0 : slash + 1;
    if (!out.image_name.empty() || name >= reference.size())
        return;
    out.image_name = reference.substr(name, tagged ? colon - name : std::string_view::npos);
    fill(out.repository, slash == std::string_view::npos ? std::string_view() : reference.substr(0, slash));
    fill(out.image_tag, tagged ? reference.substr(colon + 1) : std::string_view());
}

Details read_details(const std::string &root, const std::string &id)
{
    Details details;
    const Tree files(root);
    if (!files)
        return details;
    read_docker(files, id, details);
    read_storage(files, id, details);
    read_containerd(files, id, details);
    read_runtimes(files, id, details);
    return details;
}

}  // namespace container
