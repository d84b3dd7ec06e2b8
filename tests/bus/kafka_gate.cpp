#include "kafka_gate.h"

#include <signal.h>
#include <sys/socket.h>

#include <algorithm>

#include "bus_testing.h"

namespace bus_testing
{

namespace
{

/* Requests by their numbers. A request: key, version (2 bytes each), number, name (2 bytes of length) of the client. */
constexpr int kHandshake = 17, kVersions = 18, kAuthenticate = 36;
constexpr uint16_t kUnsupportedMechanism = 33, kAuthenticationFailed = 58;
constexpr size_t kNumberAt = 4, kNameAt = 8;

template <typename Number>
std::string big(Number number)
{
    std::string out;
    for (size_t i = sizeof number; i-- > 0;)
        out += static_cast<char>(number >> (8 * i));
    return out;
}

uint32_t number_at(const std::string &text, size_t at, size_t size)
{
    uint32_t number = 0;
    for (size_t i = 0; i < size && at + i < text.size(); i++)
        number = number << 8 | static_cast<uint8_t>(text[at + i]);
    return number;
}

std::string text_of(std::string_view text) { return big(static_cast<uint16_t>(text.size())).append(text); }

/* Where the request's own fields begin: in the versions that have no tags. */
size_t body_at(const std::string &request) { return kNameAt + 2 + number_at(request, kNameAt, 2); }

/* `size` bytes, or fewer at the end of the connection. */
template <typename Read>
std::string read_bytes(size_t size, Read read)
{
    std::string out(size, '\0');
    size_t got = 0;
    for (int some = 1; got < size && some > 0; got += static_cast<size_t>(std::max(some, 0)))
        some = read(out.data() + got, static_cast<int>(size - got));
    out.resize(got);
    return out;
}

/* What comes next on a connection, without its length; empty: it has ended. */
template <typename Read>
std::string read_frame(Read read)
{
    const std::string size = read_bytes(4, read);
    return size.size() < 4 ? "" : read_bytes(number_at(size, 0, 4), read);
}

/* The requests that a broker knows, after a result of two bytes: how many, then six bytes each. The mock broker answers
 * in versions in which this is so, others with a result that says so. */
void add_requests(std::string &answer)
{
    constexpr size_t kResult = 4, kCount = 6, kFirst = 10, kEach = 6;
    if (number_at(answer, kResult, 2) != 0)
        return;
    const uint32_t count = number_at(answer, kCount, 4);
    const std::string more = big(uint16_t{kHandshake}) + big(uint16_t{0}) + big(uint16_t{1}) +
                             big(uint16_t{kAuthenticate}) + big(uint16_t{0}) + big(uint16_t{0});
    answer.replace(kCount, 4, big(count + 2));
    answer.insert(kFirst + count * kEach, more);
}

}  // namespace

KafkaGate::KafkaGate(int to, const Plan &plan)
    : to_(to), plan_(plan), listener_(listen_locally(port_)), context_(SSL_CTX_new(TLS_server_method()))
{
    SSL_CTX_use_certificate_chain_file(context_.get(), plan.certificate.c_str());
    SSL_CTX_use_PrivateKey_file(context_.get(), plan.key.c_str(), SSL_FILETYPE_PEM);
    signal(SIGPIPE, SIG_IGN); /* OpenSSL writes to clients that have gone */
    thread_ = std::thread([this] { run(); });
}

KafkaGate::~KafkaGate()
{
    shutdown(listener_.get(), SHUT_RDWR);
    thread_.join();
    for (Connection &connection : connections_) {
        shutdown(connection.client.get(), SHUT_RDWR);
        connection.thread.join();
    }
}

std::string KafkaGate::asked_for() const
{
    const common::Lock lock(lock_);
    return asked_for_;
}

void KafkaGate::run()
{
    for (;;) {
        common::Fd client(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!client)
            return;
        Connection &made = connections_.emplace_back();
        made.client = std::move(client);
        made.session.reset(SSL_new(context_.get()));
        SSL_set_fd(made.session.get(), made.client.get());
        made.thread = std::thread([this, &made] {
            serve(made.session.get());
            shutdown(made.client.get(), SHUT_RDWR);
        });
    }
}

void KafkaGate::serve(SSL *session)
{
    const common::Fd broker = connect_locally(to_);
    bool logged_in = plan_.mechanism.empty();
    if (!broker || SSL_accept(session) != 1)
        return;
    for (;;) {
        const std::string request = read_frame([&](char *bytes, int size) { return SSL_read(session, bytes, size); });
        const std::string answered = request.empty() ? "" : answer(broker.get(), request, logged_in);
        const std::string bytes = big(static_cast<uint32_t>(answered.size())) + answered;
        if (answered.empty() || SSL_write(session, bytes.data(), static_cast<int>(bytes.size())) <= 0)
            return;
    }
}

std::string KafkaGate::handshake(const std::string &request)
{
    const size_t at = body_at(request);
    const std::string wanted = request.substr(at + 2, number_at(request, at, 2));
    const common::Lock lock(lock_);
    asked_for_ = wanted;
    return big(wanted == plan_.mechanism ? uint16_t{0} : kUnsupportedMechanism) + big(uint32_t{1}) +
           text_of(plan_.mechanism);
}

/* Empty: the connection is to be closed. */
std::string KafkaGate::answer(int broker, const std::string &request, bool &logged_in)
{
    const uint32_t kind = number_at(request, 0, 2);
    const std::string number = request.substr(kNumberAt, 4);
    if (kind == kHandshake)
        return number + handshake(request);
    if (kind == kAuthenticate) {
        logged_in = request.substr(body_at(request) + 4) == plan_.login;
        return number +
               (logged_in ? big(uint16_t{0}) + big(uint16_t{0xffff})
                          : big(kAuthenticationFailed) + text_of("Authentication failed")) +
               big(uint32_t{0});
    }
    if (kind != kVersions && !logged_in)
        return "";
    const std::string bytes = big(static_cast<uint32_t>(request.size())) + request;
    if (::send(broker, bytes.data(), bytes.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(bytes.size()))
        return "";
    std::string answered = read_frame(
        [&](char *at, int size) { return static_cast<int>(recv(broker, at, static_cast<size_t>(size), MSG_WAITALL)); });
    if (kind == kVersions && !answered.empty() && !plan_.mechanism.empty())
        add_requests(answered);
    move_address(answered);
    return answered;
}

/* The broker says where it is, and clients go there: it is said to be here. */
void KafkaGate::move_address(std::string &answer) const
{
    const std::string host = "127.0.0.1", there = host + big(static_cast<uint32_t>(to_));
    for (size_t at = 0; (at = answer.find(there, at)) != std::string::npos; at += there.size())
        answer.replace(at + host.size(), 4, big(static_cast<uint32_t>(port_)));
}

}  // namespace bus_testing
