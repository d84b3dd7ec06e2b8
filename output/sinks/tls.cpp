/* TLS by OpenSSL, which is loaded when an output needs it. */

#include "connection.h"

#ifdef FMON_HAS_OPENSSL

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <cerrno>
#include <memory>

#include "library.h"

/* Functions of the two libraries; what else is named here is a macro around these. */
/* clang-format off */
#define OPENSSL_FUNCTIONS(X) \
    X(TLS_client_method) X(SSL_CTX_new) X(SSL_CTX_free) X(SSL_CTX_ctrl) X(SSL_CTX_set_verify) \
    X(SSL_CTX_load_verify_file) X(SSL_CTX_set_default_verify_paths) X(SSL_CTX_use_certificate_chain_file) \
    X(SSL_CTX_use_PrivateKey_file) X(SSL_CTX_check_private_key) X(SSL_CTX_set_default_passwd_cb) \
    X(SSL_new) X(SSL_free) X(SSL_ctrl) X(SSL_set_fd) X(SSL_set1_host) X(SSL_get0_param) X(SSL_connect) \
    X(SSL_get_error) X(SSL_write) X(SSL_read) X(SSL_shutdown) X(SSL_get_verify_result) \
    X(X509_VERIFY_PARAM_set1_ip_asc) X(X509_verify_cert_error_string) \
    X(ERR_get_error) X(ERR_clear_error) X(ERR_reason_error_string)
/* clang-format on */

namespace output
{

namespace
{

constexpr uint64_t kHandshakeMs = 10'000;

#define AS_TEXT_(x) #x
#define AS_TEXT(x) AS_TEXT_(x)
constexpr char kLibrary[] = "libssl.so." AS_TEXT(OPENSSL_SHLIB_VERSION);

struct OpenSsl {
#define X(name) decltype(::name) *name;
    OPENSSL_FUNCTIONS(X)
#undef X
    std::string error; /* empty: all are there */
};

OpenSsl load()
{
    OpenSsl all = {};
    void *const library = load_library(kLibrary, "libssl3", all.error);
    bool found = library != nullptr;
#define X(name) found = found && find_function(library, #name, all.name);
    OPENSSL_FUNCTIONS(X)
#undef X
    if (!found && all.error.empty())
        all.error = std::string(kLibrary) + " lacks functions";
    return all;
}

const OpenSsl &ssl()
{
    static const OpenSsl all = load();
    return all;
}

struct Free {
    void operator()(SSL_CTX *context) const { ssl().SSL_CTX_free(context); }
    void operator()(SSL *session) const { ssl().SSL_free(session); }
};
using Context = std::unique_ptr<SSL_CTX, Free>;
using Session = std::unique_ptr<SSL, Free>;

// What the library says went wrong, the last thing first.
std::string reason()
{
    const char *text = nullptr;
    for (unsigned long code = ssl().ERR_get_error(); code != 0; code = ssl().ERR_get_error())
        if (const char *one = ssl().ERR_reason_error_string(code))
            text = one;
    return text ? text : "the far side has ended the connection";
}

// A key with a password would be asked for at a terminal.
int no_password(char *, int, int, void *) { return 0; }

// False: the reason is the library's.
bool set_up(SSL_CTX *context, const TlsOptions &options)
{
    ssl().SSL_CTX_ctrl(context, SSL_CTRL_SET_MIN_PROTO_VERSION, TLS1_2_VERSION, nullptr);
    ssl().SSL_CTX_ctrl(context, SSL_CTRL_MODE, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER,
                       nullptr);
    ssl().SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    ssl().SSL_CTX_set_default_passwd_cb(context, no_password);
    const int trusts = options.ca.empty() ? ssl().SSL_CTX_set_default_verify_paths(context)
                                          : ssl().SSL_CTX_load_verify_file(context, options.ca.c_str());
    if (trusts != 1 || options.certificate.empty())
        return trusts == 1;
    return ssl().SSL_CTX_use_certificate_chain_file(context, options.certificate.c_str()) == 1 &&
           ssl().SSL_CTX_use_PrivateKey_file(context, options.key.c_str(), SSL_FILETYPE_PEM) == 1 &&
           ssl().SSL_CTX_check_private_key(context) == 1;
}

bool is_number(const std::string &name)
{
    unsigned char bytes[sizeof(struct in6_addr)];
    return inet_pton(AF_INET, name.c_str(), bytes) == 1 || inet_pton(AF_INET6, name.c_str(), bytes) == 1;
}

bool expect_name(SSL *session, const std::string &name)
{
    if (is_number(name))
        return ssl().X509_VERIFY_PARAM_set1_ip_asc(ssl().SSL_get0_param(session), name.c_str()) == 1;
    std::string copy = name;
    ssl().SSL_ctrl(session, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name, copy.data());
    return ssl().SSL_set1_host(session, name.c_str()) == 1;
}

// What the session waits for; 0: it has failed.
short awaited_after(SSL *session, int result)
{
    const int error = ssl().SSL_get_error(session, result);
    return error == SSL_ERROR_WANT_READ ? POLLIN : error == SSL_ERROR_WANT_WRITE ? POLLOUT : 0;
}

bool shake_hands(SSL *session, int fd, const Patience &patience, std::string &why)
{
    while (true) {
        ssl().ERR_clear_error();
        const int result = ssl().SSL_connect(session);
        if (result == 1)
            return true;
        const short awaited = awaited_after(session, result);
        if (awaited != 0 && patience.wait(fd, awaited, kHandshakeMs))
            continue;
        const long verified = ssl().SSL_get_verify_result(session);
        if (awaited != 0)
            why = "it does not answer";
        else
            why = verified == X509_V_OK ? reason() : ssl().X509_verify_cert_error_string(verified);
        return false;
    }
}

class TlsConnection : public Connection
{
public:
    TlsConnection(common::Fd socket, Context context, Session session)
        : Connection(std::move(socket)), context_(std::move(context)), session_(std::move(session))
    {
    }
    ~TlsConnection() override { ssl().SSL_shutdown(session_.get()); }

    ssize_t write(std::string_view bytes, short &awaited) override
    {
        ssl().ERR_clear_error();
        const int n =
            ssl().SSL_write(session_.get(), bytes.data(), static_cast<int>(std::min<size_t>(bytes.size(), 1 << 20)));
        awaited = n > 0 ? short{0} : awaited_after(session_.get(), n);
        if (n > 0)
            return n;
        errno = awaited != 0 ? EAGAIN : EPIPE;
        return -1;
    }

    // Refusals of our certificate come here, after the handshake.
    bool hear(std::string &why) override
    {
        char bytes[4096];
        ssl().ERR_clear_error();
        int n = 1;
        while (n > 0)
            n = ssl().SSL_read(session_.get(), bytes, sizeof bytes);
        if (awaited_after(session_.get(), n) != 0)
            return true;
        why = ssl().SSL_get_error(session_.get(), n) == SSL_ERROR_ZERO_RETURN ? "" : reason();
        return false;
    }

private:
    Context context_;
    Session session_;
};

}  // namespace

bool has_tls(std::string &error)
{
    error = ssl().error;
    return error.empty();
}

std::unique_ptr<Connection> connect_tls(common::Fd socket, const TlsOptions &options, const Patience &patience,
                                        std::string &error)
{
    ssl().ERR_clear_error();
    Context context(ssl().SSL_CTX_new(ssl().TLS_client_method()));
    Session session(context && set_up(context.get(), options) ? ssl().SSL_new(context.get()) : nullptr);
    if (!session || !expect_name(session.get(), options.name) || ssl().SSL_set_fd(session.get(), socket.get()) != 1) {
        error = "TLS cannot be set up: " + reason();
        return nullptr;
    }
    std::string why;
    if (shake_hands(session.get(), socket.get(), patience, why))
        return std::make_unique<TlsConnection>(std::move(socket), std::move(context), std::move(session));
    error = "TLS with " + options.name + " failed: " + why;
    return nullptr;
}

}  // namespace output

#else

namespace output
{

bool has_tls(std::string &error)
{
    error = "this build has no TLS: it was made without OpenSSL";
    return false;
}

std::unique_ptr<Connection> connect_tls(common::Fd, const TlsOptions &, const Patience &, std::string &error)
{
    has_tls(error);
    return nullptr;
}

}  // namespace output

#endif
