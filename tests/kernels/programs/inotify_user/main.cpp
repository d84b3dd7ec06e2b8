// inotify_user DIRECTORY...: watches each for everything, says "ready", and reads until it is killed: any program that
// uses inotify.
#include <sys/inotify.h>
#include <unistd.h>

#include <cstdio>

int main(int argc, char **argv)
{
    const int fd = inotify_init1(IN_CLOEXEC);
    for (int i = 1; i < argc; i++)
        if (inotify_add_watch(fd, argv[i], IN_ALL_EVENTS) < 0) {
            perror(argv[i]);
            return 1;
        }
    puts("ready");
    fflush(stdout);
    char events[4096];
    while (read(fd, events, sizeof(events)) > 0) {
    }
    return 1;
}
