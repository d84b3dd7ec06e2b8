/* The thread that reads the group: its start and its end, and descriptors that fail. */
#include "linux/fs/fs_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>

#include "testlib/fault.h"

namespace
{

/* A group that is a pipe, and a thread that reads it. */
class FsReader : public ::testing::Test
{
protected:
    FsReader()
    {
        EXPECT_EQ(0, pipe2(pipe_, O_NONBLOCK | O_CLOEXEC));
        sem_init(&read_, 0, 0);
    }
    ~FsReader() override
    {
        fs_reader_stop(&reader_);
        close(pipe_[0]);
        close(pipe_[1]);
        sem_destroy(&read_);
    }

    int start()
    {
        const struct fs_reader_work work = {this, pipe_[0], -1, pass, nullptr};
        return fs_reader_start(&reader_, &work);
    }
    void feed(char c) { EXPECT_EQ(1, write(pipe_[1], &c, 1)); }
    bool await()
    {
        struct timespec until;
        clock_gettime(CLOCK_REALTIME, &until);
        until.tv_sec += 10;
        return sem_timedwait(&read_, &until) == 0;
    }

    static bool pass(void *arg)
    {
        auto *self = static_cast<FsReader *>(arg);
        char c;
        if (read(self->pipe_[0], &c, 1) != 1)
            return false;
        self->last_ = c;
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        self->blocked_ = sigismember(&mask, SIGTERM) && sigismember(&mask, SIGUSR1);
        std::ifstream("/proc/thread-self/comm") >> self->name_;
        sem_post(&self->read_);
        return true;
    }

    struct fs_reader reader_ = {{}, {}, -1};
    int pipe_[2];
    sem_t read_;
    std::atomic<char> last_{0};
    std::atomic<bool> blocked_{false};
    std::string name_; /* read when the thread has posted */
};

TEST_F(FsReader, ReadsWhatComes)
{
    ASSERT_EQ(0, start());
    feed('a');
    ASSERT_TRUE(await());
    EXPECT_EQ('a', last_);
    feed('b');
    feed('c');
    ASSERT_TRUE(await() && await());
    EXPECT_EQ('c', last_);
}

TEST_F(FsReader, HasANameAndLeavesSignalsToTheAgent)
{
    sigset_t before = {}, after = {};
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    ASSERT_EQ(0, start());
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    EXPECT_EQ(0, memcmp(&before, &after, sizeof before));
    feed('a');
    ASSERT_TRUE(await());
    EXPECT_TRUE(blocked_);
    EXPECT_EQ("fmon-fs", name_);
}

TEST_F(FsReader, ReadsNothingWhenItHasStopped)
{
    ASSERT_EQ(0, start());
    fs_reader_stop(&reader_);
    fs_reader_stop(&reader_);
    feed('a');
    EXPECT_EQ(0, last_);
    ASSERT_EQ(0, start());
    EXPECT_TRUE(await());
}

TEST_F(FsReader, WithoutADescriptorOrAThreadItDoesNotStart)
{
    {
        testlib::Fault fault("eventfd", 1, EMFILE);
        EXPECT_EQ(-1, start());
        EXPECT_EQ(EMFILE, errno);
    }
    testlib::Fault fault("pthread_create", 1, EAGAIN);
    EXPECT_EQ(-1, start());
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_EQ(-1, reader_.stop_fd);
}

}  // namespace
