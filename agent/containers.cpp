#include "containers.h"

#include <dlfcn.h>

#include <memory>

#include "module.h"

namespace agent
{

namespace
{

template <typename Fn>
void bind(void *library, const char *name, Fn &function)
{
    function = reinterpret_cast<Fn>(dlsym(library, name));
}

std::string image_of(const struct orx_container_info &info)
{
    const auto text = [](const char *value) { return std::string(value ? value : ""); };
    std::string image = text(info.image_name);
    if (image.empty())
        return text(info.image_id);
    const std::string repository = text(info.repository), tag = text(info.image_tag);
    return (repository.empty() ? "" : repository + "/") + image + (tag.empty() ? "" : ":" + tag);
}

}  // namespace

bool load_container_library(const std::string &directory, ContainerLibrary &library, std::string &error)
{
    const std::string path = directory + "/liborx_sensitive_dir.6.so";
    void *handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        error = dlerror();
        return false;
    }
    bind(handle, "_orx_get_container_info", library.info);
    bind(handle, "_orx_free_container_info", library.free_info);
    bind(handle, "orx_container_survey", library.survey);
    if (!library)
        error = path + " lacks a function: it belongs to another version";
    return error.empty();
}

// "host" is what mounts of no container have.
ContainerName ContainerNames::read(const std::string &id) const
{
    const std::unique_ptr<struct orx_container_info, decltype(library_.free_info)> info(
        library_ && id != "host" ? library_.info(id.c_str()) : nullptr, library_.free_info);
    if (!info)
        return {};
    return {info->container_name ? info->container_name : "", image_of(*info)};
}

const ContainerName &ContainerNames::find(std::string_view id, uint64_t now_ms)
{
    const auto known = rows_.find(id);
    if (known != rows_.end() && now_ms - known->second.read_ms < kKeepMs)
        return known->second.name;
    if (!loaded_) { /* without it there are no names, which is no error */
        std::string error;
        load_container_library(library_directory(), library_, error);
        loaded_ = true;
    }
    if (known == rows_.end() && rows_.size() >= kMost)
        rows_.clear();
    Row &row = rows_[std::string(id)];
    row = {read(std::string(id)), now_ms};
    return row.name;
}

}  // namespace agent
