/* The thread that reads the group: its start and its end, and descriptors that fail. */
#include "linux/fs/fs_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <semaphore.h>
#include <sys/socket.h>
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

/* A connection within this process; what is sent out of band is an exception, as a change of the mount table is. */
class Connection
{
public:
    Connection()
    {
        struct sockaddr_in at = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t size = sizeof at;
        auto *address = reinterpret_cast<struct sockaddr *>(&at);
        const int listening = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        from_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(0, bind(listening, address, size));
        EXPECT_EQ(0, listen(listening, 1));
        EXPECT_EQ(0, getsockname(listening, address, &size));
        EXPECT_EQ(0, connect(from_, address, size));
        to_ = accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
        close(listening);
    }
    ~Connection()
    {
        close(from_);
        close(to_);
    }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    int fd() const { return to_; }
    void except() { EXPECT_EQ(1, send(from_, "!", 1, MSG_OOB)); }
    void settle()
    {
        char c;
        EXPECT_EQ(1, recv(to_, &c, 1, MSG_OOB));
    }

private:
    int from_, to_;
};

/* A group that is a pipe, a mount table that is a connection, and a thread that reads them. */
class FsReader : public ::testing::Test
{
protected:
    FsReader()
    {
        EXPECT_EQ(0, pipe2(pipe_, O_NONBLOCK | O_CLOEXEC));
        sem_init(&read_, 0, 0);
        sem_init(&changed_, 0, 0);
    }
    ~FsReader() override
    {
        fs_reader_stop(&reader_);
        close(pipe_[0]);
        close(pipe_[1]);
        sem_destroy(&read_);
        sem_destroy(&changed_);
    }

    int start()
    {
        const struct fs_reader_work work = {this, pipe_[0], mounts_.fd(), pass, mounts, rest_ms_};
        return fs_reader_start(&reader_, &work);
    }
    void feed(char c) { EXPECT_EQ(1, write(pipe_[1], &c, 1)); }
    bool await() { return await(read_); }
    static bool await(sem_t &what)
    {
        struct timespec until;
        clock_gettime(CLOCK_REALTIME, &until);
        until.tv_sec += 10;
        return sem_timedwait(&what, &until) == 0;
    }

    static bool pass(void *arg)
    {
        auto *self = static_cast<FsReader *>(arg);
        char c;
        if (read(self->pipe_[0], &c, 1) != 1)
            return self->endless_;
        self->last_ = c;
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        self->blocked_ = sigismember(&mask, SIGTERM) && sigismember(&mask, SIGUSR1);
        std::ifstream("/proc/thread-self/comm") >> self->name_;
        sem_post(&self->read_);
        return true;
    }

    static void mounts(void *arg)
    {
        auto *self = static_cast<FsReader *>(arg);
        self->mounts_.settle();
        sem_post(&self->changed_);
    }

    struct fs_reader reader_ = {{}, {}, -1};
    int pipe_[2];
    Connection mounts_;
    sem_t read_, changed_;
    int rest_ms_ = 2;
    std::atomic<bool> endless_{false}; /* there is always something to read */
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

TEST_F(FsReader, RestsAsLongAsItIsToldAndNoLongerThanItIsWanted)
{
    rest_ms_ = 3'600'000;
    ASSERT_EQ(0, start());
    feed('a');
    ASSERT_TRUE(await());
    feed('b');
    fs_reader_stop(&reader_);
    EXPECT_EQ('a', last_);
}

TEST_F(FsReader, SaysThatMountsChanged)
{
    ASSERT_EQ(0, start());
    for (int i = 0; i < 3; i++) {
        mounts_.except();
        ASSERT_TRUE(await(changed_)) << i;
    }
}

TEST_F(FsReader, SaysThatMountsChangedWhileRecordsKeepComing)
{
    endless_ = true;
    ASSERT_EQ(0, start());
    feed('a');
    ASSERT_TRUE(await());
    for (int i = 0; i < 3; i++) {
        mounts_.except();
        ASSERT_TRUE(await(changed_)) << i;
    }
    feed('b');
    ASSERT_TRUE(await());
    EXPECT_EQ('b', last_);
    fs_reader_stop(&reader_);
}

TEST_F(FsReader, GoesOnWhereWaitingFails)
{
    const testlib::Fault fault("poll", 1, ENOMEM, 100, testlib::ThreadScope::kAll);
    ASSERT_EQ(0, start());
    feed('a');
    ASSERT_TRUE(await());
    EXPECT_TRUE(fault.hit());
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
