/* Requests of HTTP and HTTPS, with a batch of records each. */

#include <strings.h>

#include <algorithm>

#include "body.h"
#include "output/secret.h"
#include "queued_sink.h"
#include "request.h"
#include "rows.h"

namespace output
{

namespace
{

constexpr size_t kLargestBatch = 64 << 20;

struct HttpOptions {
    RequestOptions request;
    std::vector<std::string> headers;
    std::string token, token_header; /* token: a secret's name */
    bool has_array = false;
    Squeeze squeeze = Squeeze::kNone;
};

// What may be shown of an address: neither a query nor what follows, which may hold a secret.
std::string shown(const std::string &url) { return url.substr(0, url.find_first_of("?#")); }

class HttpTransport : public Transport
{
public:
    explicit HttpTransport(HttpOptions options) : options_(std::move(options)), shown_(shown(options_.request.url)) {}

    bool open(std::string &error) override;
    Carried carry(const Packets &packets, const Patience &patience) override;

private:
    bool read_token(std::string &error);
    std::vector<std::string> headers() const;
    Carried judge(const Packets &packets, const Answer &answer);
    Carried refused(const Packets &packets, long status);

    HttpOptions options_;
    const std::string shown_;
    std::unique_ptr<Requests> requests_;
    std::string token_;
    size_t most_ = SIZE_MAX; /* records in a request, where the far side wants fewer */
};

bool HttpTransport::open(std::string &error)
{
    const std::string key = options_.request.key;
    if (!key.empty() && !secret_path(key, options_.request.key, error))
        return false;
    requests_ = std::make_unique<Requests>(options_.request);
    return read_token(error);
}

// No line end may make a header of its own.
bool HttpTransport::read_token(std::string &error)
{
    std::string token;
    if (options_.token.empty())
        return true;
    if (!read_secret(options_.token, token, error))
        return false;
    for (const char byte : token)
        if (byte < ' ' || byte > '~') {
            error = "the token in " + options_.token + " holds bytes that no header may";
            return false;
        }
    token_ = token;
    return true;
}

std::vector<std::string> HttpTransport::headers() const
{
    std::vector<std::string> all = options_.headers;
    all.emplace_back(options_.has_array ? "Content-Type: application/json" : "Content-Type: application/x-ndjson");
    if (options_.squeeze != Squeeze::kNone)
        all.emplace_back(options_.squeeze == Squeeze::kGzip ? "Content-Encoding: gzip" : "Content-Encoding: zstd");
    if (!token_.empty())
        all.push_back(options_.token_header + " " + token_);
    return all;
}

Carried HttpTransport::carry(const Packets &packets, const Patience &patience)
{
    const Packets batch = packets.first(std::min(most_, packets.size()));
    std::string body;
    const bool squeezed = options_.has_array ? squeeze(json_array(batch), options_.squeeze, body)
                                             : squeeze(batch.bytes(), options_.squeeze, body);
    if (!squeezed)
        return {.trouble = "no memory to compress a request"};
    const Answer answer = requests_->post(body, headers(), patience);
    if (answer.status == 0)
        return {.trouble = "cannot reach " + shown_ + ": " + answer.trouble};
    return judge(batch, answer);
}

// What a person has to mend is waited for; what is wrong with these very records will be wrong the next time.
Carried HttpTransport::judge(const Packets &packets, const Answer &answer)
{
    const long status = answer.status;
    if (status >= 200 && status < 300) {
        most_ = most_ > SIZE_MAX / 2 ? SIZE_MAX : most_ * 2;
        return {packets.size()};
    }
    if (status == 413 && packets.size() > 1) {
        most_ = packets.size() / 2;
        return {};
    }
    const bool for_now = status >= 500 || status == 408 || status == 425 || status == 429;
    const bool for_a_person = status < 400 || status == 401 || status == 403 || status == 407;
    if (!for_now && !for_a_person)
        return refused(packets, status);
    std::string trouble = shown_ + " answers " + std::to_string(status), error;
    if (status >= 300 && status < 400)
        trouble += ": the address where it leads to is needed";
    if ((status == 401 || status == 403) && !read_token(error))
        trouble += "; " + error;
    return {.trouble = trouble, .pause_ms = answer.retry_ms != 0 ? answer.retry_ms : Carried::kBackOff};
}

Carried HttpTransport::refused(const Packets &packets, long status)
{
    say(shown_ + " answered " + std::to_string(status) + " to " + std::to_string(packets.size()) +
        " records, which were dropped");
    return {.dropped = packets.size()};
}

// ---- settings ----

constexpr Setting kSettings[] = {
    {"url", SettingType::kText, "where requests are sent by POST: http:// or https://", nullptr, true},
    {"body", SettingType::kText, "ndjson (a record a line) or array (of JSON)", "ndjson"},
    {"compress", SettingType::kText, "none, gzip or zstd", "none"},
    {"headers", SettingType::kTexts, "further headers, as \"Name: value\"", nullptr},
    {"token", SettingType::kSecret, "file of a token; read again when it is refused", nullptr},
    {"token_header", SettingType::kText, "what precedes the token", "Authorization: Bearer"},
    {"batch_records", SettingType::kNumber, "records in a request at most", "1000"},
    {"batch_bytes", SettingType::kBytes, "their bytes at most, before compression", "1 MiB"},
    {"batch_time", SettingType::kTime, "how long fewer wait for more", "1 s"},
    {"timeout", SettingType::kTime, "how long an answer may take", "30 s"},
    {"ca", SettingType::kText, "file of the certificates that are trusted; else those of the system", nullptr},
    {"certificate", SettingType::kText, "file of our own certificate, where the far side asks for it", nullptr},
    {"key", SettingType::kSecret, "file of its key", nullptr},
    kBufferSetting,
};

std::string check_headers(const std::vector<std::string> &headers)
{
    for (const std::string &header : headers) {
        if (header.find(':') == std::string::npos || header.find_first_of("\r\n") != std::string::npos)
            return "headers: \"Name: value\" is needed";
        if (header.size() >= 14 && strncasecmp(header.c_str(), "authorization:", 14) == 0)
            return "headers: what authorizes belongs into a file: token, token_header";
    }
    return "";
}

std::string check_url(const std::string &url)
{
    const size_t scheme = url.starts_with("http://") ? 7 : url.starts_with("https://") ? 8 : 0;
    const std::string host = url.substr(scheme, url.find_first_of("/?#", scheme) - scheme);
    if (scheme == 0 || host.empty())
        return "url: http:// or https:// and a host are needed";
    if (host.find('@') != std::string::npos)
        return "url: no user and password in there: token, token_header";
    return "";
}

// The first thing that is wrong; empty: nothing.
std::string read_options(const Settings &settings, HttpOptions &options)
{
    const std::string body = settings.text("body"), compress = settings.text("compress");
    options.request = {settings.text("url"), settings.text("ca"), settings.text("certificate"), settings.text("key"),
                       settings.number("timeout")};
    if (options.request.timeout_ms == 0)
        options.request.timeout_ms = RequestOptions{}.timeout_ms;
    options.headers = settings.texts("headers");
    options.token = settings.text("token");
    options.token_header = settings.text("token_header");
    options.has_array = body == "array";
    options.squeeze = compress == "gzip" ? Squeeze::kGzip : compress == "zstd" ? Squeeze::kZstd : Squeeze::kNone;
    if (body != "array" && body != "ndjson")
        return "body: ndjson or array";
    if (compress != "none" && compress != "gzip" && compress != "zstd")
        return "compress: none, gzip or zstd";
    if (options.request.certificate.empty() != options.request.key.empty())
        return "certificate and key go together";
    if (options.token_header.find(':') == std::string::npos)
        return "token_header: a header's name with its colon is needed";
    const std::string wrong = check_url(options.request.url);
    return wrong.empty() ? check_headers(options.headers) : wrong;
}

std::unique_ptr<Sink> make(const Settings &settings, const Origin &, std::string &error)
{
    HttpOptions options;
    error = read_options(settings, options);
    if (!error.empty() || !has_http(error))
        return nullptr;
    QueueLimits limits = limits_of(settings);
    const auto at_least = [](uint64_t number) { return std::max<uint64_t>(number, 1); };
    limits.batch_records = static_cast<size_t>(at_least(settings.number("batch_records")));
    limits.batch_bytes = static_cast<size_t>(
        std::min<uint64_t>({at_least(settings.number("batch_bytes")), limits.capacity, kLargestBatch}));
    limits.linger_ms = settings.number("batch_time");
    return std::make_unique<QueuedSink>(std::make_unique<HttpTransport>(options), limits);
}

}  // namespace

constinit const SinkRow kHttpRow = {"http", "requests of HTTP or HTTPS, a batch of records each", kSettings, make};

}  // namespace output
