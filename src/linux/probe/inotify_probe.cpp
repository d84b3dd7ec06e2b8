#include "linux/probe/inotify_probe.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "log.h"

namespace
{

constexpr char kFile[] = "linux/clt_inotify.c";

enum { ANY = -1, BACKPORT_BUILD = 328 }; /* from this build on, a distribution's 3.10 queues events as 4.19 does */

/* ---- tables ---- */

struct version_row {
    int mode;
    int major, minor_from, minor_to; /* ANY: all of them */
    int patch_below;
    struct inotify_probe probe64, probe32;
};

/* The first row that matches. */
constexpr version_row kVersions[] = {
    {INOTIFY_MODE_OLDEST,
     2,
     6,
     6,
     36,
     {"fsnotify_add_notify_event", "i=+64(+32(%si)):u64 w=+24(%dx):u32 m=+64(%si):u32", "+72(%si)", 0},
     {"fsnotify_add_notify_event", "i=+32(+16(%dx)):u32 w=+12(%cx) m=+36(%dx)", "+44(%dx)", 0}},
    {INOTIFY_MODE_2_6,
     2,
     6,
     255,
     256,
     {"inotify_handle_event", "i=+168(+32(%cx)):u64 w=+128(%si):u32 m=+64(%cx):u32", "+72(%cx)", 0},
     {"fsnotify_add_notify_event", "i=+96(+16(%dx)):u32 w=+12(%cx) m=+36(%dx)", "+44(%dx)", 0}},
    {INOTIFY_MODE_3,
     3,
     0,
     14,
     256,
     {"inotify_handle_event", "i=+64(+32(%cx)):u64 w=+112(%si):u32 m=+64(%cx):u32", "+72(%cx)", 0},
     {"inotify_handle_event", "i=+40(+16(+4(%sp))):u32 w=+64(%dx):u32 m=+36(+4(%sp)):u32", "+44(+4(%sp))", 0}},
    {INOTIFY_MODE_NEWER,
     ANY,
     0,
     255,
     256,
     {"inotify_handle_event", "i=+64(%si):u64 w=+72(%dx):u32 m=%r8:u32", "+16(%sp)", 0},
     {"inotify_handle_event", "i=+40(%dx):u32 w=+44(%cx):u32 m=+8(%sp):u32", "+20(%sp)", 0}},
};

constexpr struct inotify_probe kAddEvent64 = {"fsnotify_add_event", "i=+64(+16(%si)):u64 w=+32(%si):u32 m=+24(%si):u32",
                                              "%si", 44};
constexpr struct inotify_probe kAddEvent32 = {"fsnotify_add_event", "i=+40(+8(%dx)):u32 w=+16(%dx):u32 m=+12(%dx):u32",
                                              "%dx", 28};

/* Kernels of a version whose structures, or whose function, are others than the version's row says. */
struct distribution_row {
    int mode, major, minor; /* ANY: the build decides */
    const char *log;
    struct inotify_probe probe64, probe32;
};

constexpr struct inotify_probe k44_64 = {"inotify_handle_event", "i=+64(%si):u64 w=+80(%dx):u32 m=%r8:u32", "+16(%sp)",
                                         0};
constexpr struct inotify_probe k44_32 = {"inotify_handle_event", "i=+40(%dx):u32 w=+48(%cx):u32 m=+8(%sp):u32",
                                         "+20(%sp)", 0};
constexpr char k44Log[] = "use ubuntu 17,16 version/debian 9";

constexpr distribution_row kDistributions[] = {
    {INOTIFY_MODE_3, ANY, ANY, "use centos 7 update version", kAddEvent64, kAddEvent32},
    {INOTIFY_MODE_NEWER,
     3,
     16,
     "use debian 8",
     {"inotify_handle_event", "i=+64(%si):u64 w=+112(%dx):u32 m=%r8:u32", "+16(%sp)", 0},
     {"inotify_handle_event", "i=+40(%dx):u32 w=+64(%cx):u32 m=+8(%sp):u32", "+20(%sp)", 0}},
    {INOTIFY_MODE_NEWER, 4, 4, k44Log, k44_64, k44_32},
    {INOTIFY_MODE_NEWER, 4, 9, k44Log, k44_64, k44_32},
    {INOTIFY_MODE_NEWER, 4, 10, k44Log, k44_64, k44_32},
    {INOTIFY_MODE_NEWER, 4, 19, "use debian 10", kAddEvent64, kAddEvent32},
};

/* ---- the running kernel ---- */

const version_row *find_version(const struct kp_os_info *kernel)
{
    const version_row *row = kVersions;
    while ((row->major != ANY && row->major != kernel->major) || kernel->minor < row->minor_from ||
           kernel->minor > row->minor_to || kernel->patch >= row->patch_below)
        row++; /* the last one takes everything */
    return row;
}

constexpr long kUnreadable = -1, kEmpty = -2, kOther = -3; /* instead of a build number */

/* The beginning of /proc/version. 0 or one of those. */
long read_version(char *out, size_t size)
{
    const int fd = open("/proc/version", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return kUnreadable;
    const ssize_t got = read(fd, out, size - 1);
    close(fd);
    if (got <= 0)
        return kEmpty;
    out[got] = '\0';
    return 0;
}

/* The number behind "3.10.0-", or one of those. */
long distribution_build()
{
    char text[256 + 1];
    const long ret = read_version(text, sizeof(text));
    if (ret < 0)
        return ret;
    char version[32] = "";
    orx_str_snprintf(version, sizeof(version), "%d.%d.%d-", 3, 10, 0);
    const char *found = strstr(text, version);
    return found ? strtol(found + strlen(version), nullptr, 0) : kOther;
}

bool is_distribution(const distribution_row &row, const struct kp_os_info *kernel, int mode)
{
    if (row.mode != mode)
        return false;
    if (row.major == ANY)
        return distribution_build() >= BACKPORT_BUILD;
    return row.major == kernel->major && row.minor == kernel->minor;
}

}  // namespace

struct inotify_probe inotify_probe_choose(const struct kp_os_info *kernel, int *mode)
{
    /* Only the code for 32 bits means that; the file probes take only the one for 64 bits for that. Kept: a library
     * that reports anything else gets the 64-bit text here and the 32-bit ones there. */
    const bool is_32 = kernel->arch == KP_ARCH_X86_32;
    const version_row *version = find_version(kernel);
    *mode = version->mode;
    for (const distribution_row &row : kDistributions) {
        if (!is_distribution(row, kernel, version->mode))
            continue;
        FMON_LOG(3, kFile, "%s", row.log);
        return is_32 ? row.probe32 : row.probe64;
    }
    return is_32 ? version->probe32 : version->probe64;
}

void inotify_probe_fetch(const struct inotify_probe *probe, int mode, char out[INOTIFY_FETCH_SIZE])
{
    orx_str_snprintf(out, INOTIFY_FETCH_SIZE, "%s", probe->head);
    const int words = inotify_mode_name_size(mode) / 8;
    for (int i = 0; i < words; i++) {
        const size_t length = strlen(out);
        orx_str_snprintf(out + length, INOTIFY_FETCH_SIZE - length, " f%x=+%d(%s):u64", static_cast<unsigned>(i),
                         probe->first_word + 8 * i, probe->base);
    }
}
