/* A process that lives for a moment: writes one file and ends. */
#include <fcntl.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    const int fd = argc == 2 ? open(argv[1], O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644) : -1;
    return fd >= 0 && write(fd, "x", 1) == 1 && close(fd) == 0 ? 0 : 1;
}
