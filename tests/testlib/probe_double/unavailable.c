/* The library's words for a kernel that it does not work on: see probe_double.c. */
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>

#include "kp_thread_utils.h"

__attribute__((visibility("default"))) const char *kp_unavailable(void)
{
    static char text[256];
    char path[PATH_MAX];
    const char *folder = getenv("FMON_PROBE_DOUBLE");
    snprintf(path, sizeof path, "%s/unavailable", folder ? folder : "/nonexistent");
    FILE *file = fopen(path, "re");
    const int found = file && fgets(text, sizeof text, file);
    if (file)
        fclose(file);
    return found ? text : "";
}
