/* Tests of signals.h: what signals end, and how fast. */

#include "agent/signals.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <mutex>
#include <thread>

#include "output/output.h"
#include "unit/agent/agent_testing.h"

using namespace agent;

namespace
{

#ifdef __SANITIZE_THREAD__ /* which waits for a second at an exit */
constexpr int kSoonMs = 3000;
#else
constexpr int kSoonMs = 200;
#endif

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
        EXPECT_EQ(0, pipe2(ends_, O_CLOEXEC));
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
        struct pollfd hung_up = {ends_[0], 0, 0}; /* by its end */
        const bool has_ended = poll(&hung_up, 1, 5000) == 1;
        int status = 0;
        waitpid(pid_, &status, has_ended ? 0 : WNOHANG);
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
        if (patience_ms() != -1 || patience_ms(true) != -1)
            _exit(8);
        (void)!write(out, "ready", 5);
        body(out, wake);
        _exit(7);
    }
    int ends_[2] = {-1, -1};
    pid_t pid_ = -1;
};

/* Of some tries the first that is as it should be, for the machine may be busy: in time, with this status and text. */
void expect_end(const Child::Body &body, int signal, int status, const std::string &said, int ms = kSoonMs)
{
    constexpr int kTries = 5;
    for (int i = 0; i < kTries; i++) {
        const End end = Child(body).end(signal);
        if (end.status == status && end.said == said && end.ms < ms)
            return;
        EXPECT_LT(i, kTries - 1) << end.status << " '" << end.said << "' after " << end.ms << " ms";
    }
}

}  // namespace

TEST(CliSignals, WakeTheMainThread)
{
    const auto body = [](int, int wake) {
        uint64_t count = 0;
        (void)!read(wake, &count, sizeof count);
        _exit(stop_requested() ? 5 : 6);
    };
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        expect_end(body, number, 5, "");
}

// A pipe that is full and blocks: the write is left, and the records that did not fit are counted.
TEST(CliSignals, EndAWriteThatNobodyReads)
{
    std::string records;
    for (int i = 0; i < 100000; i++)
        records += "record\n";
    const auto body = [&](int out, int) {
        int ends[2];
        output::Output output;
        std::string error;
        if (pipe(ends) != 0 || !output.open("/dev/fd/" + std::to_string(ends[1]), false, error))
            _exit(9);
        output.buffer() = records;
        output.flush(patience_ms);
        const std::string said = output.gave_up() && output.given_up() > 80000 ? "gave up" : "no";
        (void)!write(out, said.data(), said.size());
        _exit(5);
    };
    expect_end(body, SIGTERM, 5, "gave up");
}

TEST(CliSignals, EndWhatWaitsForALock)
{
    const auto body = [](int, int) {
        std::mutex lock;
        lock.lock();
        std::thread([&] { lock.lock(); }).join();
    };
    expect_end(body, SIGTERM, 0, "last words");
}

TEST(CliSignals, EndLongCallsAtOnce)
{
    const auto body = [](int, int) {
        const StopAtOnce at_once;
        std::mutex lock;
        lock.lock();
        std::thread([&] { lock.lock(); }).join();
    };
    expect_end(body, SIGINT, 0, "");
}

// A little after the last progress.
TEST(CliSignals, PatienceGoesWithProgress)
{
    const auto body = [](int out, int wake) {
        uint64_t count = 0;
        (void)!read(wake, &count, sizeof count);
        const int64_t start = now_ms();
        while (patience_ms(now_ms() < start + 500) > 0)
            pause(); /* interrupted again and again */
        const int64_t took = now_ms() - start;
        const std::string said = took >= 500 && took < 1000 ? "went on" : std::to_string(took);
        (void)!write(out, said.data(), said.size());
        _exit(5);
    };
    expect_end(body, SIGTERM, 5, "went on", 500 + kSoonMs);
}

TEST(CliSignals, PatienceHasAnEnd)
{
    const auto body = [](int, int wake) {
        uint64_t count = 0;
        (void)!read(wake, &count, sizeof count);
        for (;;) {
            patience_ms(true);
            pause();
        }
    };
    expect_end(body, SIGTERM, 0, "last words", 2000 + kSoonMs);
}

TEST(CliSignals, HangupStaysIgnored)
{
    signal(SIGHUP, SIG_IGN);
    Child child([](int out, int) {
        raise(SIGHUP);
        (void)!write(out, "ignored", 7);
        for (;;)
            pause();
    });
    child.await("ignored");
    EXPECT_EQ("last words", child.end(SIGTERM).said);
    signal(SIGHUP, SIG_DFL);
}
