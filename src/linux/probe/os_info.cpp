/* The running kernel's release, and where its structures keep what the probes fetch. */

#include <sys/utsname.h>

#include <cstdlib>
#include <cstring>

#include "fmon_status.h"
#include "linux/probe/clt_file.h"
#include "log.h"
#include "text.h"

/* Last, and in every build: a null argument is a caller's mistake that stops the process. */
#undef NDEBUG
#include <cassert>

namespace
{

constexpr char kFile[] = "linux/clt_file.c";
constexpr char kConfig[] = "@/../config/fmon.ini";

enum { PLATFORMS = 3 };
const char *const x86_plat[PLATFORMS] = {"x86_64", "i386", "i686"};

/* Where a kernel without a section of its own keeps them. */
struct offsets {
    int32_t s_mounts, mnt_id;
};
constexpr offsets kDefault64 = {192, 172};
constexpr offsets kDefault32 = {108, 88};

int find_platform(const char *uname_machine, struct os_info *dst_str)
{
    assert(uname_machine && dst_str);
    for (uint8_t i = 0; i < PLATFORMS; i++) {
        if (strcmp(uname_machine, x86_plat[i]) == 0) {
            dst_str->platform = i;
            return 0;
        }
    }
    FMON_LOG(1, kFile, "not support [%s] platform", uname_machine);
    account_trouble(&fmon_account.file_probes, FMON_WHY_MACHINE, -1, 0, uname_machine);
    return -1;
}

/* Reads a number and the separator behind it (0: none is asked for) and moves *pos past both. */
bool take_number(const char **pos, char separator, long *out)
{
    char *end;
    *out = strtol(*pos, &end, 10);
    if (end == *pos || (separator && *end != separator))
        return false;
    *pos = separator ? end + 1 : end;
    return true;
}

/* MAJOR.MINOR.PATCH-BUILD and anything after it; numbers too large for their field are cut off. */
int parse_release(const char *release, struct os_info *out)
{
    long major, minor, patch, build;
    const char *pos = release;
    if (!take_number(&pos, '.', &major) || !take_number(&pos, '.', &minor) || !take_number(&pos, '-', &patch) ||
        !take_number(&pos, '\0', &build)) {
        FMON_LOG(1, kFile, "kernel version get failed, uname.release:[%s]", release);
        account_trouble(&fmon_account.file_probes, FMON_WHY_RELEASE, -1, 0, release);
        return -1;
    }
    out->major = static_cast<uint8_t>(major);
    out->minor = static_cast<uint8_t>(minor);
    out->patch = static_cast<uint8_t>(patch);
    out->build = static_cast<uint32_t>(build);
    return 0;
}

/* Both keys of the section, or nothing. */
bool read_offsets(void *ini, const char *section, offsets *out)
{
    const char *s_mounts = orx_ini_file_get(ini, section, "s_mounts_offset");
    if (!s_mounts)
        return false;
    out->s_mounts = text_to_int(s_mounts);
    const char *mnt_id = orx_ini_file_get(ini, section, "mnt_id_offset");
    if (!mnt_id)
        return false;
    out->mnt_id = text_to_int(mnt_id);
    return true;
}

}  // namespace

int get_os_info(struct os_info *out)
{
    struct utsname name;
    if (uname(&name) < 0) {
        FMON_LOG(1, kFile, "get hw plat error");
        account_trouble(&fmon_account.file_probes, FMON_WHY_OTHER, -1, 0, "get hw plat error");
        return -1;
    }
    if (find_platform(name.machine, out) < 0)
        return -1;
    return parse_release(name.release, out);
}

int init_file_offset_conf(struct os_info info)
{
    const char *platform = info.platform < PLATFORMS ? x86_plat[info.platform] : "";
    char section[64] = "";
    orx_str_snprintf(section, sizeof(section), "%d.%d.%d-%d-%s", info.major, info.minor, info.patch,
                     static_cast<int>(info.build), platform);
    FMON_LOG(3, kFile, "vm_info:%s", section);

    char path[512] = "";
    orx_dirutils_path_transform(kConfig, path, sizeof(path));
    void *ini = orx_ini_file_load(path);
    if (!ini) {
        FMON_LOG(2, kFile, "clt_net conf file load failed!");
        return -1;
    }
    offsets found;
    if (read_offsets(ini, section, &found)) {
        FMON_LOG(4, kFile, "s_mounts_offset:%d, mnt_id_offset:%d\n", found.s_mounts, found.mnt_id);
    } else {
        FMON_LOG(1, kFile, "fmon conf file prase error, no version!");
        found = info.platform == 0 ? kDefault64 : kDefault32; /* half a section counts for nothing */
    }
    orx_ini_file_free(ini);
    clt_file.s_mounts_offset = found.s_mounts;
    clt_file.mnt_id_offset = found.mnt_id;
    return 0;
}
