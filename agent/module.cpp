#include "module.h"

#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>

#include "orx_base.h"

namespace agent
{

namespace
{

template <typename Fn>
bool bind(void *library, const char *name, Fn &function, std::string &error)
{
    function = reinterpret_cast<Fn>(dlsym(library, name));
    if (!function)
        error = std::string("libfmon.so lacks ") + name + ": it belongs to another version; install both anew";
    return function;
}

}  // namespace

std::string library_directory()
{
    const char *home = secure_getenv("FMON_HOME");
    if (home && *home)
        return std::string(home) + "/lib";
    char directory[PATH_MAX];
    return orx_dirutils_path_transform("@/../lib", directory, sizeof directory) == 0 ? directory : ".";
}

bool load_module(const std::string &directory, Module &module, std::string &error)
{
    const std::string path = directory + "/libfmon.so";
    void *library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        error =
            std::string("cannot load the monitor: ") + dlerror() +
            " (it is installed as lib/libfmon.so beside bin/fmon, as /usr/lib/fmon/libfmon.so, or in $FMON_HOME/lib)";
        return false;
    }
    return bind(library, "orx_fmon_init", module.init, error) &&
           bind(library, "_orx_fmon_create_instance", module.create_instance, error) &&
           bind(library, "_orx_fmon_del_instance", module.del_instance, error) &&
           bind(library, "_orx_fmon_add_watch", module.add_watch, error) &&
           bind(library, "_orx_fmon_del_watch", module.del_watch, error) &&
           bind(library, "_orx_fmon_spare", module.spare, error) &&
           bind(library, "_orx_fmon_resync", module.resync, error) &&
           bind(library, "_orx_fmon_global_watch", module.global_watch, error) &&
           bind(library, "_orx_fmon_global_update", module.global_update, error) &&
           bind(library, "_orx_fmon_status", module.status, error) &&
           bind(library, "_orx_fmon_on_mark", module.on_mark, error) &&
           bind(library, "_orx_fmon_dump", module.dump, error) &&
           bind(library, "_orx_fmon_event_details", module.event_details, error) &&
           bind(library, "g_container_flag", module.container_flag, error);
}

common::Mutex &placing_lock()
{
    static common::Mutex lock;
    return lock;
}

int make_instance(const Module &module, const char *name, fmon_client_cb callback,
                  const std::vector<std::string> &spared)
{
    const int id = module.create_instance(name, callback);
    int code = 0;
    for (size_t i = 0; id >= 0 && code == 0 && i < spared.size(); i++)
        code = module.spare(static_cast<uint32_t>(id), spared[i].c_str());
    if (code < 0)
        module.del_instance(static_cast<uint32_t>(id));
    return code < 0 ? code : id;
}

// The kernel reports a watch that goes. Nobody else watches this file, whose watch would stay.
void wake_monitor(const Module &module)
{
    static const int instance = module.create_instance("watch-wake", nullptr);
    const std::string path = "/proc/" + std::to_string(getpid()) + "/comm";
    if (instance >= 0 &&
        module.add_watch(static_cast<uint32_t>(instance), path.c_str(), FMON_ATTRIB, FMON_FILE, 0, 0) == 0)
        module.del_watch(static_cast<uint32_t>(instance), path.c_str());
}

}  // namespace agent
