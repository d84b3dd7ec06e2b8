#include "agent_library.h"

#include <cerrno>

#include "dll.h"
#include "log.h"

namespace
{

/* All functions or none: what is found of a library that is closed again must not stay behind. */
bool find_entries(void *handle, const struct agent_library *library, void **found)
{
    for (int i = 0; i < AGENT_LIBRARY_ENTRIES && library->names[i]; i++) {
        found[i] = dlsym(handle, library->names[i]);
        if (!found[i]) {
            FMON_LOG(1, library->log_file, "load %s failed, errno: %d\n", library->symbol, errno);
            return false;
        }
    }
    return true;
}

/* The handle comes last: who sees it finds the entries. A thread that was faster had the same entries. */
void keep(struct agent_library *library, void *handle, void *const *found)
{
    for (int i = 0; i < AGENT_LIBRARY_ENTRIES; i++)
        library->entries[i].store(found[i], std::memory_order_relaxed);
    void *none = nullptr;
    if (!library->handle.compare_exchange_strong(none, handle, std::memory_order_acq_rel))
        orx_dll_close(handle);
}

bool load(struct agent_library *library)
{
    void *handle = dll_open(library->path);
    if (!handle) {
        FMON_LOG(1, library->log_file, "load %s failed, errno: %d\n", library->module, errno);
        return false;
    }
    void *found[AGENT_LIBRARY_ENTRIES] = {};
    if (!find_entries(handle, library, found)) {
        orx_dll_close(handle);
        return false;
    }
    keep(library, handle, found);
    return true;
}

}  // namespace

void *agent_library_entry(struct agent_library *library, int index)
{
    if (!library->handle.load(std::memory_order_acquire) && !load(library))
        return nullptr;
    return library->entries[index].load(std::memory_order_relaxed);
}
