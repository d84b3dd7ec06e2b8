/* Tests of the output "http": requests, answers, and far sides that do not behave. */

#include <gtest/gtest.h>

#ifdef FMON_TEST_CURL

#include <zlib.h>
#include <zstd.h>

#include "output/sinks/body.h"
#include "unit/agent/agent_testing.h"
#include "unit/output/net_testing.h"

using namespace output;
using namespace sink_testing;
using agent_testing::Directory;

namespace
{

std::string gunzipped(const std::string &bytes)
{
    std::string text(1 << 20, '\0');
    z_stream stream = {};
    EXPECT_EQ(Z_OK, inflateInit2(&stream, 15 + 16));
    stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(bytes.data()));
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = reinterpret_cast<Bytef *>(text.data());
    stream.avail_out = static_cast<uInt>(text.size());
    EXPECT_EQ(Z_STREAM_END, inflate(&stream, Z_FINISH));
    text.resize(stream.total_out);
    inflateEnd(&stream);
    return text;
}

std::string unzstd(const std::string &bytes)
{
    std::string text(1 << 20, '\0');
    const size_t size = ZSTD_decompress(text.data(), text.size(), bytes.data(), bytes.size());
    return text.substr(0, ZSTD_isError(size) ? 0 : size);
}

struct Request {
    std::string head, body;
    bool has(const std::string &header) const { return head.find("\r\n" + header + "\r\n") != std::string::npos; }
};

/* Reads requests of one connection after another, and answers as the test says. */
class HttpServer
{
public:
    uint16_t port() const { return port_of(listener_); }
    void stop() { listener_.reset(), far_.reset(); }

    /* The next request, of the connection there is or of a new one. */
    Request next()
    {
        Request request;
        for (size_t end = std::string::npos; end == std::string::npos; end = held_.find("\r\n\r\n"))
            if (!more())
                return request;
        const size_t end = held_.find("\r\n\r\n") + 4;
        request.head = held_.substr(0, end - 2);
        const size_t field = request.head.find("Content-Length: ");
        EXPECT_NE(std::string::npos, field) << request.head;
        const size_t length = std::stoul(request.head.substr(field + 16));
        while (held_.size() < end + length && more()) {
        }
        request.body = held_.substr(end, length);
        held_.erase(0, end + length);
        return request;
    }
    void answer(const std::string &status, const std::string &headers = "")
    {
        const std::string text = "HTTP/1.1 " + status + "\r\nContent-Length: 0\r\n" + headers + "\r\n";
        ASSERT_EQ(static_cast<ssize_t>(text.size()), send(far_.get(), text.data(), text.size(), MSG_NOSIGNAL));
    }
    Request next_answered(const std::string &status)
    {
        Request request = next();
        answer(status);
        return request;
    }
    bool has_ended() const { return received(far_).empty(); }
    void hang_up()
    {
        far_.reset();
        held_.clear();
    }

private:
    bool more()
    {
        for (int attempt = 0; attempt < 2; attempt++) {
            if (!far_)
                far_ = accepted(listener_);
            const std::string bytes = far_ ? received(far_) : "";
            held_ += bytes;
            if (!bytes.empty())
                return true;
            far_.reset();
        }
        return false;
    }

    common::Fd listener_ = bound(SOCK_STREAM);
    common::Fd far_;
    std::string held_;
};

class SinkHttp : public testing::Test
{
protected:
    Made made(std::map<std::string, Settings::Value> said = {})
    {
        said.insert({{"url", url("http", server.port()) + "/in?key=hush"},
                     {"timeout", uint64_t{kPatienceMs}},
                     {"batch_records", uint64_t{1000}},
                     {"batch_bytes", uint64_t{1 << 20}}});
        return Made("http", said);
    }
    void open(const std::map<std::string, Settings::Value> &said = {})
    {
        sink = std::make_unique<Made>(made(said));
        ASSERT_TRUE(sink->open());
    }
    bool is_safe(uint64_t number) const
    {
        return becomes([=, this]() { return (*sink)->safe() == number; });
    }
    /* Said, and the secret in the address is not. */
    void expect_said(const std::string &text) const
    {
        EXPECT_TRUE(sink->says(text)) << (*sink)->condition().text;
        EXPECT_EQ((*sink)->condition().text.find("hush"), std::string::npos) << (*sink)->condition().text;
    }

    const Directory directory;
    HttpServer server;
    std::unique_ptr<Made> sink;
};

}  // namespace

TEST_F(SinkHttp, ABatchIsARequest)
{
    open();
    give(**sink, Records(1, 3));
    const Request request = server.next();
    EXPECT_TRUE(request.head.starts_with("POST /in?key=hush HTTP/1.1\r\n")) << request.head;
    EXPECT_TRUE(request.has("Content-Type: application/x-ndjson"));
    EXPECT_EQ(std::string::npos, request.head.find("Expect"));
    EXPECT_EQ(Records(1, 3).text(), request.body);
    EXPECT_EQ(0u, (*sink)->safe());
    server.answer("200 OK");
    EXPECT_TRUE(is_safe(3));
    give(**sink, Records(4, 2));
    EXPECT_EQ(Records(4, 2).text(), server.next_answered("204 No Content").body);
    EXPECT_TRUE(is_safe(5));
    EXPECT_TRUE((*sink)->drain(kPatienceMs));
}

TEST_F(SinkHttp, BatchesHaveTheirSize)
{
    open({{"batch_records", uint64_t{2}}});
    give(**sink, Records(1, 5));
    EXPECT_EQ(Records(1, 2).text(), server.next_answered("200 OK").body);
    EXPECT_EQ(Records(3, 2).text(), server.next_answered("200 OK").body);
    EXPECT_EQ(Records(5, 1).text(), server.next_answered("200 OK").body);
    EXPECT_TRUE(is_safe(5));
}

TEST_F(SinkHttp, BodiesMayBeArraysAndCompressed)
{
    open({{"body", "array"s}, {"compress", "gzip"s}});
    give(**sink, std::vector{record_of(1, "{\"a\":1}\n"), record_of(2, "{\"b\":2}\n")});
    Request request = server.next_answered("200 OK");
    EXPECT_TRUE(request.has("Content-Type: application/json"));
    EXPECT_TRUE(request.has("Content-Encoding: gzip"));
    EXPECT_EQ("[{\"a\":1},{\"b\":2}]", gunzipped(request.body));
    server.hang_up();
    open({{"compress", "zstd"s}});
    give(**sink, Records(1, 1000));
    request = server.next_answered("200 OK");
    EXPECT_TRUE(request.has("Content-Encoding: zstd"));
    EXPECT_EQ(Records(1, 1000).text(), unzstd(request.body));
}

TEST_F(SinkHttp, HeadersAndTheTokenOfAFile)
{
    const std::string token = directory.file("token", "hush-1\n");
    chmod(token.c_str(), 0600);
    open({{"token", token}, {"headers", std::vector<std::string>{"X-Team: security"}}});
    give(**sink, Records(1, 1));
    Request request = server.next();
    EXPECT_TRUE(request.has("Authorization: Bearer hush-1")) << request.head;
    EXPECT_TRUE(request.has("X-Team: security"));
    directory.file("token", "hush-2\n");
    server.answer("401 Unauthorized");
    expect_said("/in answers 401");
    EXPECT_TRUE(server.next_answered("200 OK").has("Authorization: Bearer hush-2")) << "read again";
    EXPECT_TRUE(is_safe(1));
    server.hang_up();
    open({{"token", token}, {"token_header", "X-Api-Key:"s}});
    give(**sink, Records(1, 1));
    EXPECT_TRUE(server.next_answered("200 OK").has("X-Api-Key: hush-2"));
}

TEST_F(SinkHttp, WhatFailsForNowIsTriedAgain)
{
    open();
    uint64_t number = 0;
    for (const char *status : {"503 Busy", "500 Error", "429 Too Many", "408 Late", "301 Moved", "403 Forbidden"}) {
        give(**sink, Records(++number, 1));
        EXPECT_EQ(line_of(number), server.next_answered(status).body) << status;
        expect_said("/in answers "s + std::string(status).substr(0, 3));
        EXPECT_TRUE((*sink)->condition().stuck);
        EXPECT_EQ(line_of(number), server.next_answered("200 OK").body);
        EXPECT_TRUE(is_safe(number));
        EXPECT_EQ(number, (*sink)->figures().retries);
    }
    EXPECT_EQ(0u, (*sink)->figures().dropped);
}

TEST_F(SinkHttp, AndNotBeforeTheFarSideWants)
{
    open();
    give(**sink, Records(1, 1));
    server.next();
    server.answer("429 Too Many", "Retry-After: 200\r\n");
    expect_said("answers 429");
    EXPECT_FALSE((*sink)->drain(0)) << "the end tries at once";
    server.next_answered("200 OK");
    EXPECT_TRUE(is_safe(1));
}

TEST_F(SinkHttp, WhatIsWrongWithTheRecordsIsDroppedAndCounted)
{
    open();
    give(**sink, Records(1, 2));
    server.next_answered("400 Bad Request");
    expect_said("/in answered 400 to 2 records, which were dropped");
    EXPECT_FALSE((*sink)->condition().stuck);
    EXPECT_EQ(2u, (*sink)->figures().dropped);
    EXPECT_EQ(2u, (*sink)->safe());
    give(**sink, Records(3, 1));
    server.next_answered("200 OK");
    EXPECT_TRUE(is_safe(3));
}

TEST_F(SinkHttp, WhatIsTooMuchIsHalved)
{
    open();
    give(**sink, Records(1, 4));
    EXPECT_EQ(Records(1, 4).text(), server.next_answered("413 Too Large").body);
    EXPECT_EQ(Records(1, 2).text(), server.next_answered("413 Too Large").body);
    EXPECT_EQ(Records(1, 1).text(), server.next_answered("413 Too Large").body);
    EXPECT_EQ(Records(2, 1).text(), server.next_answered("200 OK").body);
    EXPECT_EQ(Records(3, 2).text(), server.next_answered("200 OK").body);
    EXPECT_TRUE(is_safe(4));
    EXPECT_EQ(1u, (*sink)->figures().dropped);
}

TEST_F(SinkHttp, AConnectionThatEndsIsMadeAnew)
{
    open();
    give(**sink, Records(1, 1));
    server.next();
    server.hang_up();
    expect_said("cannot reach http://127.0.0.1:" + std::to_string(server.port()) + "/in: ");
    EXPECT_EQ(line_of(1), server.next_answered("200 OK").body);
    EXPECT_TRUE(is_safe(1));
}

TEST_F(SinkHttp, NobodyThere)
{
    open();
    server.stop();
    give(**sink, Records(1, 1));
    expect_said("/in: Failed to connect");
}

TEST_F(SinkHttp, OneThatDoesNotAnswerIsGivenUpInTime)
{
    open({{"timeout", uint64_t{50}}});
    give(**sink, Records(1, 1));
    server.next();
    expect_said("/in: Operation timed out");
    server.hang_up();
    server.next_answered("200 OK");
    EXPECT_TRUE(is_safe(1));
}

TEST_F(SinkHttp, TheEndIsNotHeldUp)
{
    open({{"timeout", uint64_t{600'000}}});
    give(**sink, Records(1, 1));
    server.next();
    EXPECT_FALSE((*sink)->drain(10));
    sink.reset();
    EXPECT_TRUE(server.has_ended());
}

TEST_F(SinkHttp, SettingsThatMakeNoSense)
{
    const auto error_of = [&](const std::string &key, const Settings::Value &value) {
        return made({{key, value}}).error;
    };
    for (const char *wrong : {"", "ftp://x", "http://", "https:///x", "host"})
        EXPECT_EQ("url: http:// or https:// and a host are needed", error_of("url", std::string(wrong))) << wrong;
    EXPECT_EQ("url: no user and password in there: token, token_header", error_of("url", "http://a:b@c/"s));
    EXPECT_EQ("body: ndjson or array", error_of("body", "x"s));
    EXPECT_EQ("compress: none, gzip or zstd", error_of("compress", "lz4"s));
    EXPECT_EQ("certificate and key go together", error_of("certificate", "/x"s));
    EXPECT_EQ("token_header: a header's name with its colon is needed", error_of("token_header", "Bearer"s));
    using Texts = std::vector<std::string>;
    EXPECT_EQ("headers: \"Name: value\" is needed", error_of("headers", Texts{"x"}));
    EXPECT_EQ("headers: \"Name: value\" is needed", error_of("headers", Texts{"x: y\r\nz: a"}));
    EXPECT_NE(error_of("headers", Texts{"authorization: x"}).find("belongs into a file"), std::string::npos);
    const std::string token = directory.file("token", "two\nlines");
    chmod(token.c_str(), 0600);
    Made sink_of_token = made({{"token", token}});
    EXPECT_FALSE(sink_of_token->open(sink_of_token.error));
    EXPECT_NE(sink_of_token.error.find("holds bytes that no header may"), std::string::npos);
}

#else

TEST(SinkHttp, IsTestedWithLibcurl) { GTEST_SKIP() << "this build was made without libcurl"; }

#endif
