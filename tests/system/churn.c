/*
 * Ten thousand processes that come and go, 250 at a time, each for 50 ms at least. Never with a sanitizer, in whose
 * processes a fork takes 5 ms.
 */
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { ROUNDS = 40, AT_A_TIME = 250 };

static void live(void)
{
    const struct timespec life = {0, 50000000};
    nanosleep(&life, NULL);
}

int main(void)
{
    for (int round = 0; round < ROUNDS; round++) {
        for (int i = 0; i < AT_A_TIME; i++) {
            const pid_t child = fork();
            if (child < 0)
                return 1;
            if (child == 0) {
                live();
                _exit(0);
            }
        }
        live();
        while (waitpid(-1, NULL, WNOHANG) > 0) {
        }
    }
    while (wait(NULL) > 0) {
    }
    return 0;
}
