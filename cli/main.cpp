/* The entry of `fmon`: standard descriptors, then the verb. */

#include <fcntl.h>
#include <unistd.h>

#include "front/verbs.h"

namespace
{

// A program may be started with its standard streams closed. Their numbers must not go to other files, and writing to a
// closed stdout must still fail.
void fill_standard_descriptors()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++)
        if (fcntl(fd, F_GETFD) < 0)
            open("/dev/null", fd == STDOUT_FILENO ? O_RDONLY : O_RDWR);
}

}  // namespace

int main(int argc, char **argv)
{
    fill_standard_descriptors();
    return cli::run_command(argc, argv);
}
