/* What the command does when memory runs out: it ends in a sentence. */
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <stdexcept>
#include <thread>

#include "agent/intake.h"
#include "agent/message.h"
#include "agent/queue.h"
#include "testlib/failing_new.h"

using namespace agent;

namespace
{

thread_local int left_until_failure = -1; /* -1: none fails */

/* What a process wrote to stderr, and its status. */
std::pair<std::string, int> end_of(void (*body)())
{
    int ends[2];
    EXPECT_EQ(0, pipe(ends));
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDERR_FILENO);
        end_in_a_sentence();
        body();
        _exit(0);
    }
    close(ends[1]);
    char text[256];
    const ssize_t n = read(ends[0], text, sizeof text);
    close(ends[0]);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return {std::string(text, n > 0 ? static_cast<size_t>(n) : 0), status};
}

bool is_exit(int status, int code) { return WIFEXITED(status) && WEXITSTATUS(status) == code; }

/* As the module calls it: nothing on the way takes an exception. */
void deliver() noexcept
{
    EventQueue queue(100, 10000);
    Intake intake(queue);
    struct event event = {};
    std::string path(300, 'x');
    event.path = path.data();
    event.mask = FMON_CREATE;
    const fmon_client_cb callback = intake.add_source(FMON_CREATE);
    left_until_failure = 0;
    callback(&event);
}

}  // namespace

bool testlib::allocation_fails() { return left_until_failure >= 0 && left_until_failure-- == 0; }

TEST(CliOutOfMemory, ACallbackEndsInASentence)
{
    const auto [text, status] = end_of([] { deliver(); });
    EXPECT_EQ("fmon: out of memory\n", text);
    EXPECT_TRUE(is_exit(status, kError)) << status;
}

TEST(CliOutOfMemory, AThreadEndsInASentence)
{
    const auto [text, status] = end_of([] { std::thread([] { throw std::bad_alloc(); }).join(); });
    EXPECT_EQ("fmon: out of memory\n", text);
    EXPECT_TRUE(is_exit(status, kError)) << status;
}

TEST(CliOutOfMemory, OtherFaultsLeaveTheirTraces)
{
    const auto [text, status] = end_of([] { std::thread([] { throw std::runtime_error("x"); }).join(); });
    EXPECT_EQ("fmon: ended by a fault of its own\n", text);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
}

/* A batch that found no memory is as it was. */
TEST(CliOutOfMemory, ABatchStaysWhole)
{
    Batch batch;
    const std::string path(100, 'p'), container(50, 'c');
    int failed = 0;
    for (size_t n = 0; n < 200; n++) {
        const Event event = {n, FMON_CREATE, 1, 0, path, container, nullptr};
        for (bool done = false; !done;) {
            const size_t before = batch.size();
            left_until_failure = static_cast<int>(n % 3) - 1;
            try {
                batch.append(event, nullptr);
                done = true;
            } catch (const std::bad_alloc &) {
                failed++;
                EXPECT_EQ(batch.size(), before);
            }
            left_until_failure = -1;
            if (!done)
                batch.append(event, nullptr), done = true;
        }
    }
    EXPECT_GT(failed, 3);
    ASSERT_EQ(200u, batch.size());
    for (size_t n = 0; n < batch.size(); n++) {
        EXPECT_EQ(batch.event(n).time_ns, n);
        EXPECT_EQ(batch.event(n).path, path);
        EXPECT_EQ(batch.event(n).container, container);
    }
}
