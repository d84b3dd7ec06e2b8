/* Tests of the output "socket": readers that come, go, and do not read. */

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "common/fd.h"
#include "unit/agent/agent_testing.h"
#include "unit/output/sink_testing.h"

using namespace output;
using namespace sink_testing;
using agent_testing::Directory;

namespace
{

common::Fd connected(const std::string &path)
{
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.data(), path.size());
    common::Fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (connect(socket.get(), reinterpret_cast<struct sockaddr *>(&address), sizeof address) != 0)
        socket.reset();
    return socket;
}

std::string read_bytes(const common::Fd &fd, size_t length)
{
    std::string text(length, '\0');
    size_t held = 0;
    for (ssize_t n = 1; held < length && n > 0; held += n > 0 ? static_cast<size_t>(n) : 0)
        n = read(fd.get(), text.data() + held, length - held);
    return text.substr(0, held);
}

class SinkSocket : public testing::Test
{
protected:
    Made make(std::map<std::string, Settings::Value> said = {})
    {
        said.insert({{"path", path},
                     {"readers", uint64_t{3}},
                     {"reader_buffer", uint64_t{100'000}},
                     {"reader_patience", uint64_t{600'000}}});
        return Made("socket", said);
    }
    void open(const std::map<std::string, Settings::Value> &said = {})
    {
        sink = std::make_unique<Made>(make(said));
        ASSERT_TRUE(sink->open());
    }
    /* A reader that the output has noticed: it gets what comes from now on. */
    common::Fd join()
    {
        common::Fd reader = connected(path);
        EXPECT_TRUE(reader);
        EXPECT_TRUE(becomes([&]() {
            give(**sink, std::vector{record_of(1, "hello\n")});
            char byte;
            return recv(reader.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 1;
        }));
        EXPECT_TRUE(becomes([&]() { return (*sink)->figures().waiting == 0; }));
        std::string rest(1 << 20, '\0');
        recv(reader.get(), rest.data(), rest.size(), MSG_DONTWAIT);
        return reader;
    }
    uint64_t dropped() const { return (*sink)->figures().dropped; }

    const Directory directory;
    std::string path = directory.path("socket");
    std::unique_ptr<Made> sink;
};

}  // namespace

TEST_F(SinkSocket, ReadersGetWhatComesWhileTheyAreThere)
{
    open();
    const common::Fd first = join();
    give(**sink, Records(1, 2));
    EXPECT_EQ(Records(1, 2).text(), read_bytes(first, Records(1, 2).text().size()));
    const common::Fd second = join();
    give(**sink, Records(3, 2));
    EXPECT_EQ(Records(3, 2).text(), read_bytes(second, Records(3, 2).text().size()));
    std::string text;
    EXPECT_TRUE(becomes([&]() {
        char byte;
        while (recv(first.get(), &byte, 1, MSG_DONTWAIT) == 1)
            text += byte;
        return text.ends_with("hello\n" + Records(3, 2).text());
    })) << text;
    EXPECT_TRUE((*sink)->drain(kPatienceMs));
}

TEST_F(SinkSocket, WithoutReadersRecordsAreDroppedAndCounted)
{
    open();
    give(**sink, Records(1, 5));
    EXPECT_TRUE(becomes([&]() { return dropped() == 5; }));
    EXPECT_EQ(5u, (*sink)->safe());
    EXPECT_TRUE(sink->says("no reader is connected"));
    EXPECT_FALSE((*sink)->condition().stuck);
    const common::Fd reader = join();
    EXPECT_TRUE(becomes([&]() { return (*sink)->condition().text.empty(); }));
}

TEST_F(SinkSocket, NobodyElseMayConnect)
{
    open();
    struct stat st = {};
    ASSERT_EQ(0, lstat(path.c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 0777);
    sink.reset();
    EXPECT_EQ(-1, lstat(path.c_str(), &st)) << "left behind";
}

TEST_F(SinkSocket, ASlowReaderHoldsUpAndLosesNothing)
{
    open();
    const common::Fd reader = join();
    const Records records(1, 20'000, 99);
    EXPECT_TRUE(becomes([&]() { return (*sink)->accept(std::span<const Record>(records)) == 20'000; }));
    (*sink)->flush();
    EXPECT_TRUE(sink->says("a reader does not keep up: process " + std::to_string(getpid())));
    EXPECT_TRUE((*sink)->condition().stuck);
    EXPECT_TRUE(records.text() == read_bytes(reader, records.text().size()));
    EXPECT_TRUE((*sink)->drain(kPatienceMs));
    EXPECT_EQ(20'000u, (*sink)->safe());
}

TEST_F(SinkSocket, OneThatNeverReadsIsDroppedAndTold)
{
    open({{"reader_patience", uint64_t{50}}});
    const common::Fd lazy = join(), good = connected(path);
    const uint64_t before = dropped();
    std::string text;
    uint64_t number = 1;
    EXPECT_TRUE(becomes([&]() { /* the good one reads along */
                                (*sink)->accept(Records(number, 100, 999));
                                (*sink)->flush();
                                number += 100;
                                char bytes[200'000];
                                while (recv(good.get(), bytes, sizeof bytes, MSG_DONTWAIT) > 0) {
                                }
                                return (*sink)->condition().text.find("read nothing for 0 s: process") !=
                                       std::string::npos;
    }));
    EXPECT_GT(dropped(), before);
    EXPECT_TRUE(becomes([&]() { return connected(path).get() >= 0; })) << "others may still come";
}

TEST_F(SinkSocket, SoIsOneThatLeaves)
{
    open();
    common::Fd reader = join();
    const uint64_t before = dropped();
    (*sink)->accept(Records(1, 10'000, 99));
    (*sink)->flush();
    EXPECT_TRUE(becomes([&]() { return (*sink)->figures().waiting < 10'000; }));
    reader.reset();
    EXPECT_TRUE(becomes([&]() { return (*sink)->figures().waiting == 0; }));
    EXPECT_GT(dropped(), before);
}

TEST_F(SinkSocket, AReaderMayCloseItsOwnSide)
{
    open();
    const common::Fd reader = join();
    ASSERT_EQ(0, shutdown(reader.get(), SHUT_WR));
    for (uint64_t number = 1; number <= 3; number++) {
        give(**sink, Records(number, 1));
        EXPECT_EQ(line_of(number), read_bytes(reader, line_of(number).size()));
    }
}

TEST_F(SinkSocket, ThereIsALimitOfReaders)
{
    open({{"readers", uint64_t{1}}});
    const common::Fd first = join(), second = connected(path);
    EXPECT_TRUE(sink->says("a reader was turned away: there are 1 already"));
    EXPECT_EQ("", read_bytes(second, 1));
    give(**sink, Records(1, 1));
    EXPECT_EQ(line_of(1), read_bytes(first, line_of(1).size()));
}

TEST_F(SinkSocket, TheEndWaitsForReaders)
{
    open();
    const common::Fd reader = join();
    const Records records(1, 5000, 99);
    give(**sink, records);
    EXPECT_FALSE((*sink)->drain(50));
    EXPECT_TRUE(becomes([&]() {
        char bytes[4096];
        while (recv(reader.get(), bytes, sizeof bytes, MSG_DONTWAIT) > 0) {
        }
        return (*sink)->safe() == 5000;
    }));
}

TEST_F(SinkSocket, WhatAProcessLeftIsReplaced)
{
    open();
    ASSERT_EQ(0, rename(path.c_str(), directory.path("kept").c_str()));
    sink.reset();
    ASSERT_EQ(0, rename(directory.path("kept").c_str(), path.c_str()));
    open();
    join();
}

TEST_F(SinkSocket, TwoOfThemTakeTurns)
{
    open();
    Made other = make();
    ASSERT_TRUE(other->open(other.error));
    EXPECT_TRUE(other.says("listens at " + path));
    sink.reset();
    EXPECT_TRUE(becomes([&]() { return static_cast<bool>(connected(path)); }));
}

TEST_F(SinkSocket, PlacesThatWillNotDo)
{
    const auto open_error = [&]() {
        Made made = make();
        EXPECT_FALSE(made && made->open(made.error));
        return made.error;
    };
    path = directory.file("file");
    EXPECT_NE(open_error().find("Address already in use"), std::string::npos);
    EXPECT_TRUE(std::filesystem::exists(path)) << "no file of others is removed";
    path = directory.path(std::string(200, 'x'));
    EXPECT_NE(open_error().find("107 bytes at most"), std::string::npos);
    for (const mode_t mode : {0777, 01777, 0775}) {
        path = directory.dir("shared") + "/socket";
        chmod(directory.path("shared").c_str(), mode);
        EXPECT_NE(open_error().find("others than root may write to"), std::string::npos) << mode;
    }
    path = "relative";
    EXPECT_EQ("path: the absolute path of a socket is needed", open_error());
    EXPECT_EQ("readers: 1 to 1000", make({{"path", "/x"s}, {"readers", uint64_t{0}}}).error);
}
