#include "open_files.h"

#include <unistd.h>

namespace kprobe
{

bool leads_to(const std::string &link, std::string_view target)
{
    char found[64];
    const ssize_t length = readlink(link.c_str(), found, sizeof(found));
    return length > 0 && std::string_view(found, static_cast<size_t>(length)) == target;
}

}  // namespace kprobe
