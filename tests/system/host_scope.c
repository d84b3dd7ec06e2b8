/*
 * host_scope.c: a program that is linked with liborx_base.so. Checks that what a plug-in imports (the arguments) is in
 * the global scope, and that the library goes by this program's view of its variables. 0 when all is well.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include "orx_base.h"

/* Bytes that one error line leaves in a pipe put in the place of stderr. */
static long logged_at(int level)
{
    char text[512];
    int saved = dup(STDERR_FILENO), ends[2];
    if (saved < 0 || pipe2(ends, O_NONBLOCK) != 0)
        return -1;
    dup2(ends[1], STDERR_FILENO);
    error_output_level = level;
    error_output(ORX_LOG_ERROR, "scope.c", 1, "a line");
    dup2(saved, STDERR_FILENO);
    long got = (long)read(ends[0], text, sizeof text);
    close(saved);
    close(ends[0]);
    close(ends[1]);
    return got;
}

int main(int argc, char **argv)
{
    int missing = argc < 2;
    for (int i = 1; i < argc; i++) {
        if (!dlsym(RTLD_DEFAULT, argv[i])) {
            fprintf(stderr, "not in the global scope: %s\n", argv[i]);
            missing = 1;
        }
    }
    if (logged_at(0) > 0 || logged_at(1) <= 0) {
        fprintf(stderr, "the library does not read this program's error_output_level\n");
        missing = 1;
    }
    return missing;
}
