/* Syslog as RFC 5424 has it: to the machine's own socket, by UDP (RFC 5426), TCP (RFC 6587) and TLS (RFC 5425). */

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "address.h"
#include "connection.h"
#include "datagrams.h"
#include "output/secret.h"
#include "queued_sink.h"
#include "rows.h"
#include "syslog_form.h"

namespace output
{

namespace
{

constexpr size_t kStreamBatch = 1 << 20; /* what may be on its way without having been acknowledged */

struct SyslogOptions {
    std::string socket; /* empty: the address */
    Address address;
    bool has_tls = false;
    TlsOptions tls;
};

class SyslogDatagrams : public DatagramTransport
{
public:
    SyslogDatagrams(SyslogOptions options, SyslogForm form) : options_(std::move(options)), form_(std::move(form)) {}

    bool encode(const Record &record, std::string &out) override
    {
        form_.append(record, out);
        return true;
    }

private:
    common::Fd connect(const Patience &patience, std::string &error) override
    {
        return options_.socket.empty() ? connect_to(options_.address, SOCK_DGRAM, patience, error)
                                       : connect_to_path(options_.socket, SOCK_DGRAM, error);
    }
    std::string far_side() const override
    {
        return options_.socket.empty() ? options_.address.text() : options_.socket;
    }

    const SyslogOptions options_;
    SyslogForm form_;
};

class SyslogStream : public Transport
{
public:
    SyslogStream(SyslogOptions options, SyslogForm form) : options_(std::move(options)), form_(std::move(form)) {}

    bool open(std::string &error) override;
    bool encode(const Record &record, std::string &out) override;
    Carried carry(const Packets &packets, const Patience &patience) override;
    int idle() override;
    void descriptors(std::vector<struct pollfd> &polled) override;

private:
    bool connect(const Patience &patience, std::string &error);
    void disconnect();
    std::string end_text(const std::string &why) const;

    SyslogOptions options_;
    SyslogForm form_;
    std::string message_; /* of encode() */
    std::unique_ptr<Connection> connection_;
    PacketWriter writer_;
};

bool SyslogStream::open(std::string &error)
{
    const bool has_key = options_.has_tls && !options_.tls.key.empty();
    const std::string name = options_.tls.key;
    return !has_key || secret_path(name, options_.tls.key, error);
}

// Each message is preceded by its length.
bool SyslogStream::encode(const Record &record, std::string &out)
{
    message_.clear();
    form_.append(record, message_);
    out += std::to_string(message_.size());
    out += ' ';
    out += message_;
    return true;
}

bool SyslogStream::connect(const Patience &patience, std::string &error)
{
    common::Fd socket = connect_to(options_.address, SOCK_STREAM, patience, error);
    if (!socket)
        return false;
    if (options_.has_tls)
        connection_ = connect_tls(std::move(socket), options_.tls, patience, error);
    else
        connection_ = std::make_unique<Connection>(std::move(socket));
    return static_cast<bool>(connection_);
}

// What the far side's kernel has not acknowledged goes to the next connection.
void SyslogStream::disconnect()
{
    writer_.restart(connection_->unread());
    connection_.reset();
}

Carried SyslogStream::carry(const Packets &packets, const Patience &patience)
{
    std::string why;
    if (writer_.is_settling())
        return writer_.settle(packets);
    if (!connection_ && !connect(patience, why))
        return {.trouble = why};
    int failed;
    Carried carried = writer_.write(*connection_, packets, patience, failed);
    if (!connection_->hear(why) || (failed != 0 && failed != EAGAIN)) {
        disconnect();
        carried.trouble = end_text(why.empty() && failed != EAGAIN && failed != 0 ? strerror(failed) : why);
    } else if (failed == EAGAIN) {
        carried.trouble = options_.address.text() + " takes nothing";
        carried.pause_ms = carried.again_ms;
    }
    return carried;
}

std::string SyslogStream::end_text(const std::string &why) const
{
    return options_.address.text() + " has ended the connection" + (why.empty() ? "" : ": " + why);
}

int SyslogStream::idle()
{
    std::string why;
    if (connection_ && !connection_->hear(why)) {
        disconnect();
        say(end_text(why) + "; there is another with the next record");
    }
    return -1;
}

void SyslogStream::descriptors(std::vector<struct pollfd> &polled)
{
    if (connection_)
        polled.push_back({connection_->fd(), POLLIN, 0});
}

// ---- settings ----

constexpr Setting kSettings[] = {
    {"address", SettingType::kText,
     "where messages go: the path of a socket, or udp://HOST:PORT, tcp://HOST:PORT, tls://HOST:PORT (ports 514, 514 "
     "and "
     "6514 unless said)",
     "/dev/log"},
    {"form", SettingType::kText,
     "rfc5424; or rfc3164, as the C library writes it, which is what journald and rsyslog understand at /dev/log",
     "rfc5424"},
    {"facility", SettingType::kText, "kern, user, daemon, auth, authpriv, local0 and so on", "daemon"},
    {"program", SettingType::kText, "the program that is named", "fmon"},
    {"ca", SettingType::kText, "TLS: file of the certificates that are trusted; else those of the system", nullptr},
    {"name", SettingType::kText, "TLS: the name that the far side's certificate must be for; else the host", nullptr},
    {"certificate", SettingType::kText, "TLS: file of our own certificate, where the far side asks for it", nullptr},
    {"key", SettingType::kSecret, "TLS: file of its key", nullptr},
    kBufferSetting,
};

// The first thing that is wrong; empty: nothing.
std::string read_address(const std::string &text, SyslogOptions &options)
{
    const size_t scheme = text.find("://");
    const std::string kind = scheme == std::string::npos ? "" : text.substr(0, scheme);
    if (kind.empty() && text.starts_with('/') && text.size() <= kLongestSocketPath) {
        options.socket = text;
        return "";
    }
    options.has_tls = kind == "tls";
    const bool is_known = kind == "udp" || kind == "tcp" || kind == "tls";
    if (is_known && parse_address(text.substr(scheme + 3), kind == "tls" ? "6514" : "514", options.address))
        return "";
    return "address: the path of a socket, udp://HOST:PORT, tcp://HOST:PORT or tls://HOST:PORT is needed";
}

std::string read_tls(const Settings &settings, SyslogOptions &options)
{
    options.tls = {settings.text("ca"), settings.text("certificate"), settings.text("key"), settings.text("name")};
    const bool says_tls =
        settings.has("ca") || settings.has("certificate") || settings.has("key") || settings.has("name");
    if (says_tls && !options.has_tls)
        return "ca, name, certificate and key are for tls://";
    if (options.tls.certificate.empty() != options.tls.key.empty())
        return "certificate and key go together";
    if (options.tls.name.empty())
        options.tls.name = options.address.host;
    std::string error;
    if (options.has_tls)
        has_tls(error);
    return error;
}

std::unique_ptr<Sink> make(const Settings &settings, const Origin &origin, std::string &error)
{
    SyslogOptions options;
    error = read_address(settings.text("address"), options);
    if (error.empty())
        error = read_tls(settings, options);
    const int facility = facility_of(settings.text("facility"));
    if (error.empty() && facility < 0)
        error = "facility: kern, user, daemon, auth, authpriv, local0 to local7 ...";
    const std::string form_name = settings.text("form");
    if (error.empty() && form_name != "rfc5424" && form_name != "rfc3164")
        error = "form: rfc5424 or rfc3164";
    if (!error.empty())
        return nullptr;
    const auto kind = form_name == "rfc3164" ? SyslogForm::Kind::kRfc3164 : SyslogForm::Kind::kRfc5424;
    const SyslogForm form(kind, facility, settings.text("program"), origin);
    QueueLimits limits = limits_of(settings);
    const bool is_stream = settings.text("address").starts_with("t");
    if (!is_stream)
        return std::make_unique<QueuedSink>(std::make_unique<SyslogDatagrams>(options, form), limits);
    limits.batch_bytes = std::min(limits.capacity, kStreamBatch);
    return std::make_unique<QueuedSink>(std::make_unique<SyslogStream>(options, form), limits);
}

}  // namespace

constinit const SinkRow kSyslogRow = {"syslog", "syslog, to the machine's own or another", kSettings, make};

}  // namespace output
