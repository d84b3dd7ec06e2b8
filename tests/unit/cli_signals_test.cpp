#include "signals.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <mutex>
#include <thread>

#include "cli_testing.h"
#include "output.h"

using namespace cli;

namespace
{

constexpr int kSoonMs = 200;

int64_t now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

struct End {
    int status; /* 128 + signal; -1: not within the time */
    int64_t ms; /* from the signal on */
    std::string said;
};

/* What a child says that has caught the signals and does `body`, to which the pipe's end and the eventfd are handed. */
class Child
{
public:
    using Body = std::function<void(int out, int wake)>;
    explicit Child(const Body &body)
    {
        EXPECT_EQ(pipe2(ends_, O_CLOEXEC), 0);
        pid_ = fork();
        if (pid_ == 0)
            run(body);
        close(ends_[1]);
        await("ready");
    }
    ~Child()
    {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        close(ends_[0]);
    }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    End end(int signal)
    {
        const int64_t start = now_ms();
        kill(pid_, signal);
        int status = 0;
        while (waitpid(pid_, &status, WNOHANG) == 0 && now_ms() < start + 5000)
            poll(nullptr, 0, 1);
        const int64_t took = now_ms() - start;
        char text[256];
        const ssize_t n = read(ends_[0], text, sizeof text);
        return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), took,
                std::string(text, n > 0 ? static_cast<size_t>(n) : 0)};
    }
    void await(const std::string &word) const
    {
        std::string got(word.size(), ' ');
        EXPECT_EQ(read(ends_[0], got.data(), got.size()), static_cast<ssize_t>(got.size()));
        EXPECT_EQ(got, word);
    }

private:
    [[noreturn]] void run(const Body &body) const
    {
        const int wake = eventfd(0, EFD_CLOEXEC), out = ends_[1];
        if (!catch_signals(wake, [out] { (void)!write(out, "last words", 10); }))
            _exit(9);
        (void)!write(out, "ready", 5);
        body(out, wake);
        _exit(7);
    }
    int ends_[2] = {-1, -1};
    pid_t pid_ = -1;
};

/* The best of some tries: the machine may be busy. */
End soonest(const Child::Body &body, int signal)
{
    End best = {-1, INT64_MAX, ""};
    for (int i = 0; i < 5 && best.ms >= kSoonMs; i++) {
        const End end = Child(body).end(signal);
        if (end.ms < best.ms)
            best = end;
    }
    return best;
}

}  // namespace

TEST(CliSignals, wake_the_main_thread)
{
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        const End end = soonest(
            [](int, int wake) {
                uint64_t count = 0;
                (void)!read(wake, &count, sizeof count);
                _exit(stop_requested() ? 5 : 6);
            },
            number);
        EXPECT_EQ(end.status, 5) << number;
        EXPECT_LT(end.ms, kSoonMs);
    }
}

// A pipe that is full and blocks: the write is left, and the records that did not fit are counted.
TEST(CliSignals, end_a_write_that_nobody_reads)
{
    const End end = soonest(
        [](int out, int) {
            int ends[2];
            Output output;
            std::string error;
            if (pipe(ends) != 0 || !output.open("/dev/fd/" + std::to_string(ends[1]), false, error))
                _exit(9);
            for (int i = 0; i < 100000; i++)
                output.buffer() += "record\n";
            output.flush(patience_ms);
            const std::string said = output.gave_up() && output.given_up() > 80000 ? "gave up" : "no";
            (void)!write(out, said.data(), said.size());
            _exit(5);
        },
        SIGTERM);
    EXPECT_EQ(end.said, "gave up");
    EXPECT_EQ(end.status, 5);
    EXPECT_LT(end.ms, kSoonMs);
}

TEST(CliSignals, end_what_waits_for_a_lock)
{
    const End end = soonest(
        [](int, int) {
            std::mutex lock;
            lock.lock();
            std::thread([&] { lock.lock(); }).join();
        },
        SIGTERM);
    EXPECT_EQ(end.said, "last words");
    EXPECT_EQ(end.status, 0);
    EXPECT_LT(end.ms, kSoonMs);
}

TEST(CliSignals, end_long_calls_at_once)
{
    const End end = soonest(
        [](int, int) {
            const StopAtOnce at_once;
            std::mutex lock;
            lock.lock();
            std::thread([&] { lock.lock(); }).join();
        },
        SIGINT);
    EXPECT_EQ(end.said, "");
    EXPECT_EQ(end.status, 0);
    EXPECT_LT(end.ms, kSoonMs);
}

// A little after the last progress, and two seconds after the signal at most.
TEST(CliSignals, patience_goes_with_progress)
{
    Child child([](int out, int wake) {
        if (patience_ms() != -1 || patience_ms(true) != -1)
            _exit(6);
        uint64_t count = 0;
        (void)!read(wake, &count, sizeof count);
        const int64_t start = now_ms();
        while (patience_ms(now_ms() < start + 500) > 0)
            poll(nullptr, 0, 1);
        const int64_t some = now_ms() - start;
        while (patience_ms(true) > 0)
            poll(nullptr, 0, 1);
        const std::string said = some >= 500 && some < 1500 ? "went on" : std::to_string(some);
        (void)!write(out, said.data(), said.size());
        _exit(5);
    });
    const End end = child.end(SIGTERM);
    EXPECT_EQ(end.said, "went on");
    EXPECT_EQ(end.status, 5);
    EXPECT_LT(end.ms, 3000);
}

TEST(CliSignals, hangup_stays_ignored)
{
    signal(SIGHUP, SIG_IGN);
    Child child([](int out, int) {
        raise(SIGHUP);
        (void)!write(out, "ignored", 7);
        for (;;)
            poll(nullptr, 0, 1000);
    });
    child.await("ignored");
    EXPECT_EQ(child.end(SIGTERM).said, "last words");
    signal(SIGHUP, SIG_DFL);
}
