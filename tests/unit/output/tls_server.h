/*
 * tls_server.h: certificates, and a far side that speaks TLS, made up by a test.
 */
#ifndef UNIT_OUTPUT_TLS_SERVER_H
#define UNIT_OUTPUT_TLS_SERVER_H

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <sys/stat.h>

#include <memory>
#include <string>

#include "unit/agent/agent_testing.h"
#include "unit/output/net_testing.h"

namespace sink_testing
{

struct FreeTls {
    void operator()(EVP_PKEY *key) const { EVP_PKEY_free(key); }
    void operator()(X509 *certificate) const { X509_free(certificate); }
    void operator()(SSL_CTX *context) const { SSL_CTX_free(context); }
    void operator()(SSL *session) const { SSL_free(session); }
};

/* A certificate with its key, signed by another or by itself, as files: name.pem, name.key. */
class Certificate
{
public:
    /* `names` as "DNS:host,IP:127.0.0.1"; valid from `from` to `to` seconds after now. */
    Certificate(const agent_testing::Directory &directory, const std::string &name, const Certificate *issuer,
                const std::string &names, long from = -3600, long to = 3600)
        : file(directory.path(name + ".pem")),
          key_file(directory.path(name + ".key")),
          key_(EVP_EC_gen("P-256")),
          certificate_(X509_new())
    {
        X509 *const made = certificate_.get();
        X509_set_version(made, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(made), std::hash<std::string>()(name) & 0xffffff);
        X509_gmtime_adj(X509_getm_notBefore(made), from);
        X509_gmtime_adj(X509_getm_notAfter(made), to);
        X509_set_pubkey(made, key_.get());
        X509_NAME_add_entry_by_txt(X509_get_subject_name(made), "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char *>(name.c_str()), -1, -1, 0);
        const Certificate &signer = issuer ? *issuer : *this;
        X509_set_issuer_name(made, X509_get_subject_name(signer.certificate_.get()));
        if (!issuer)
            extend(NID_basic_constraints, "critical,CA:TRUE");
        if (!names.empty())
            extend(NID_subject_alt_name, names);
        X509_sign(made, signer.key_.get(), EVP_sha256());
        save();
    }

    const std::string file, key_file;

private:
    void extend(int kind, const std::string &value)
    {
        X509_EXTENSION *extension = X509V3_EXT_conf_nid(nullptr, nullptr, kind, value.c_str());
        ASSERT_NE(nullptr, extension) << value;
        X509_add_ext(certificate_.get(), extension, -1);
        X509_EXTENSION_free(extension);
    }
    void save() const
    {
        FILE *out = fopen(file.c_str(), "w");
        PEM_write_X509(out, certificate_.get());
        fclose(out);
        out = fopen(key_file.c_str(), "w");
        chmod(key_file.c_str(), 0600);
        PEM_write_PrivateKey(out, key_.get(), nullptr, nullptr, 0, nullptr, nullptr);
        fclose(out);
    }

    std::unique_ptr<EVP_PKEY, FreeTls> key_;
    std::unique_ptr<X509, FreeTls> certificate_;
};

/* One connection after another, each by the test's own thread. */
class TlsServer
{
public:
    /* `clients`: whose certificates it asks for; null: nobody's. */
    explicit TlsServer(const Certificate &own, const Certificate *clients = nullptr)
        : context_(SSL_CTX_new(TLS_server_method()))
    {
        SSL_CTX_use_certificate_file(context_.get(), own.file.c_str(), SSL_FILETYPE_PEM);
        SSL_CTX_use_PrivateKey_file(context_.get(), own.key_file.c_str(), SSL_FILETYPE_PEM);
        if (clients) {
            SSL_CTX_load_verify_file(context_.get(), clients->file.c_str());
            SSL_CTX_set_verify(context_.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
        }
    }

    uint16_t port() const { return port_of(listener_); }
    /* Whether the next to connect shakes hands. */
    bool accept()
    {
        session_.reset();
        socket_ = accepted(listener_);
        const struct timeval patience = {kPatienceMs / 1000, 0};
        setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        session_.reset(SSL_new(context_.get()));
        SSL_set_fd(session_.get(), socket_.get());
        return socket_ && SSL_accept(session_.get()) == 1;
    }
    std::string read(size_t length)
    {
        std::string text(length, '\0');
        size_t held = 0;
        int n = 1;
        for (; held < length && n > 0; held += n > 0 ? static_cast<size_t>(n) : 0)
            n = SSL_read(session_.get(), text.data() + held, static_cast<int>(length - held));
        return text.substr(0, held);
    }
    void write(const std::string &text) { SSL_write(session_.get(), text.data(), static_cast<int>(text.size())); }
    void close()
    {
        SSL_shutdown(session_.get());
        session_.reset();
        socket_.reset();
    }

private:
    std::unique_ptr<SSL_CTX, FreeTls> context_;
    const common::Fd listener_ = bound(SOCK_STREAM);
    common::Fd socket_;
    std::unique_ptr<SSL, FreeTls> session_;
};

}  // namespace sink_testing

#endif
