/* Preloaded by a test: uname with the release that FMON_TEST_RELEASE says. */
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

__attribute__((visibility("default"))) int uname(struct utsname *name)
{
    const char *release = getenv("FMON_TEST_RELEASE");
    const int result = (int)syscall(SYS_uname, name);
    if (result == 0 && release)
        snprintf(name->release, sizeof name->release, "%s", release);
    return result;
}
