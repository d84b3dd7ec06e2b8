#include "fallback.h"

#include <cerrno>
#include <cstring>

#include "mounts.h"
#include "paths.h"

namespace agent
{

namespace
{

std::string with_error(const std::string &what, int error)
{
    return error ? what + " (" + strerror(error) + ")" : what;
}

// Root that is refused has a machine that is not wholly its own.
std::string admin_remedy(bool root)
{
    return root ? "run fmon on the host itself, or give it CAP_SYS_ADMIN" : "run as root";
}

FallbackWords group_words(int error, bool root)
{
    const std::string text = with_error("the kernel does not report directories and names", error);
    const bool too_old = error == EINVAL || error == ENOSYS;
    return {text, too_old ? "" : error == EMFILE ? "raise fs.fanotify.max_user_groups" : admin_remedy(root)};
}

const char *handle_remedy(const std::string &type)
{
    return type == "overlay" ? "mount it with nfs_export=on,index=on, where its layers allow that" : "";
}

FallbackWords mark_words(int error, const std::string &type, bool root)
{
    switch (error) {
        case EPERM:
        case EACCES:
            return {with_error("a whole file system may not be marked", error), admin_remedy(root)};
        case EXDEV:
            return {with_error("a sub-volume takes no mark of its own", error),
                    "watch the mount of the file system's top, which reports sub-volumes, too"};
        case ENODEV:
            return {with_error(type + " has no id that events could name it by", error),
                    type == "tmpfs" ? "later kernels, such as 6.1, give it one" : ""};
        case EOPNOTSUPP:
            return {with_error(type + " has no file handles that could be opened", error), handle_remedy(type)};
        case ENOSPC:
            return {with_error("no mark is left", error), "raise fs.fanotify.max_user_marks"};
        default:
            return {with_error("the kernel refuses the mark of its file system", error), ""};
    }
}

FallbackWords open_words(int error, bool root)
{
    const bool denied = error == EPERM || error == EACCES;
    const std::string remedy = root ? "give fmon CAP_DAC_READ_SEARCH on the host" : "run as root";
    return {with_error("a file handle cannot be opened", error), denied ? remedy : ""};
}

std::string type_at(const std::string &path)
{
    const uint64_t mount = identify(path).mount_id;
    for (const Mount &row : read_mounts())
        if (row.id == mount)
            return row.type;
    return {};
}

}  // namespace

FallbackWords explain_fallback(uint32_t reason, int error, const std::string &type, bool root)
{
    const std::string system = type.empty() ? "its file system" : type;
    switch (reason) {
        case FMON_FALLBACK_INIT:
            return group_words(error, root);
        case FMON_FALLBACK_KIND:
            return {"only directories are, without --mount and --max-depth", ""};
        case FMON_FALLBACK_MARK:
            return mark_words(error, system, root);
        case FMON_FALLBACK_HANDLE:
            return {with_error(system + " has no file handles", error), handle_remedy(system)};
        case FMON_FALLBACK_OPEN:
            return open_words(error, root);
        case FMON_FALLBACK_FSID:
            return {"another file system that is watched has the same id, as copied images have",
                    "give one of both a new id, such as with tune2fs -U random"};
        case FMON_FALLBACK_ROOT:
            return {with_error("the directory itself takes no mark", error), ""};
        case FMON_FALLBACK_MEMORY:
            return {"memory ran out", ""};
        case FMON_FALLBACK_CONTAINER:
            return {"inside a container only directories are marked", "run fmon on the host itself"};
        default:
            return {"the monitor does not say why", ""};
    }
}

FallbackWords explain_fallback(const struct fmon_fallback &fallback, bool root)
{
    return explain_fallback(fallback.reason, fallback.error, type_at(fallback.path), root);
}

}  // namespace agent
