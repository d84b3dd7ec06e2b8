#include "bus_library.h"

#include <dlfcn.h>
#include <unistd.h>

#include "agent/module.h"

namespace output
{

namespace
{

const struct fmon_bus_plugin *plugin_of(void *library, const std::string &path, std::string &error)
{
    const auto entry = reinterpret_cast<fmon_bus_entry>(dlsym(library, FMON_BUS_ENTRY));
    if (!entry) {
        error = path + ": exports no " FMON_BUS_ENTRY;
        return nullptr;
    }
    const struct fmon_bus_plugin *plugin = entry();
    if (plugin->version == FMON_BUS_VERSION && plugin->size >= sizeof *plugin)
        return plugin;
    error = path + ": is of version " + std::to_string(plugin->version) + " of the plug-ins, and " +
            std::to_string(FMON_BUS_VERSION) + " is needed: install those of this fmon";
    return nullptr;
}

}  // namespace

const struct fmon_bus_plugin *load_bus_from(const std::string &path, const std::string &bus, std::string &error)
{
    if (access(path.c_str(), F_OK) != 0) {
        error = "the library for " + bus + " is not installed: apt install fmon-" + bus + " (" + path + ")";
        return nullptr;
    }
    void *library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        const char *why = dlerror();
        error = why ? why : path;
        return nullptr;
    }
    return plugin_of(library, path, error);
}

const struct fmon_bus_plugin *load_bus(const std::string &bus, std::string &error)
{
    return load_bus_from(agent::library_directory() + "/libfmon-" + bus + ".so", bus, error);
}

}  // namespace output
