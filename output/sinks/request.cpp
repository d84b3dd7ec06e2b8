#include "request.h"

#ifdef FMON_HAS_CURL

#include <curl/curl.h>

#include "library.h"

/* clang-format off */
#define CURL_FUNCTIONS(X) \
    X(curl_global_init) X(curl_easy_init) X(curl_easy_cleanup) X(curl_easy_setopt) X(curl_easy_getinfo) \
    X(curl_easy_strerror) X(curl_slist_append) X(curl_slist_free_all) X(curl_multi_init) X(curl_multi_cleanup) \
    X(curl_multi_add_handle) X(curl_multi_remove_handle) X(curl_multi_perform) X(curl_multi_poll) \
    X(curl_multi_info_read)
/* clang-format on */

namespace output
{

namespace
{

constexpr long kConnectMs = 10'000;
constexpr int kWaitMs = 1000;
constexpr uint64_t kLongestRetryS = 300;

struct Curl {
#define X(name) decltype(::name) *name;
    CURL_FUNCTIONS(X)
#undef X
    std::string error; /* empty: all are there */
};

Curl load()
{
    Curl all = {};
    void *const library = load_library("libcurl.so.4", "libcurl4", all.error);
    bool found = library != nullptr;
#define X(name) found = found && find_function(library, #name, all.name);
    CURL_FUNCTIONS(X)
#undef X
    if (found && all.curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK)
        all.error = "libcurl cannot be set up";
    if (!found && all.error.empty())
        all.error = "libcurl.so.4 lacks functions";
    return all;
}

const Curl &curl()
{
    static const Curl all = load();
    return all;
}

struct Free {
    void operator()(CURL *easy) const { curl().curl_easy_cleanup(easy); }
    void operator()(struct curl_slist *list) const { curl().curl_slist_free_all(list); }
};
struct FreeMulti {
    void operator()(CURLM *multi) const { curl().curl_multi_cleanup(multi); }
};

// What is answered beside the status is of no interest.
size_t discard(char *, size_t size, size_t count, void *) { return size * count; }

}  // namespace

struct Requests::State {
    std::unique_ptr<CURLM, FreeMulti> multi;
    std::unique_ptr<CURL, Free> easy;
    std::unique_ptr<struct curl_slist, Free> headers;
    char error[CURL_ERROR_SIZE] = {};
};

bool has_http(std::string &error)
{
    error = curl().error;
    return error.empty();
}

Requests::Requests(RequestOptions options) : options_(std::move(options)), state_(std::make_unique<State>()) {}

Requests::~Requests() = default;

bool Requests::is_ready()
{
    if (state_->easy)
        return true;
    state_->multi.reset(curl().curl_multi_init());
    state_->easy.reset(state_->multi ? curl().curl_easy_init() : nullptr);
    if (state_->easy)
        set_up();
    return static_cast<bool>(state_->easy);
}

// A key with a password would be asked for at a terminal.
void Requests::set_up()
{
    CURL *const easy = state_->easy.get();
    const auto set = curl().curl_easy_setopt;
    set(easy, CURLOPT_URL, options_.url.c_str());
    set(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    set(easy, CURLOPT_POST, 1L);
    set(easy, CURLOPT_NOSIGNAL, 1L);
    set(easy, CURLOPT_USERAGENT, "fmon");
    set(easy, CURLOPT_WRITEFUNCTION, discard);
    set(easy, CURLOPT_ERRORBUFFER, state_->error);
    set(easy, CURLOPT_CONNECTTIMEOUT_MS, kConnectMs);
    set(easy, CURLOPT_TIMEOUT_MS, static_cast<long>(options_.timeout_ms));
    set(easy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    set(easy, CURLOPT_KEYPASSWD, "");
    if (!options_.ca.empty())
        set(easy, CURLOPT_CAINFO, options_.ca.c_str());
    if (!options_.certificate.empty()) {
        set(easy, CURLOPT_SSLCERT, options_.certificate.c_str());
        set(easy, CURLOPT_SSLKEY, options_.key.c_str());
    }
}

// Without "Expect:" a body of some size waits for a word that many far sides never say.
Answer Requests::post(std::string_view body, const std::vector<std::string> &headers, const Patience &patience)
{
    if (!is_ready())
        return {.trouble = "no memory"};
    struct curl_slist *list = curl().curl_slist_append(nullptr, "Expect:");
    for (const std::string &header : headers)
        list = curl().curl_slist_append(list, header.c_str());
    state_->headers.reset(list);
    CURL *const easy = state_->easy.get();
    curl().curl_easy_setopt(easy, CURLOPT_HTTPHEADER, list);
    curl().curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body.data());
    curl().curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    state_->error[0] = '\0';
    curl().curl_multi_add_handle(state_->multi.get(), easy);
    Answer answer = perform(patience);
    curl().curl_multi_remove_handle(state_->multi.get(), easy);
    return answer;
}

Answer Requests::perform(const Patience &patience)
{
    CURLM *const multi = state_->multi.get();
    int running = 1, left = 0;
    while (curl().curl_multi_perform(multi, &running) == CURLM_OK && running > 0) {
        struct curl_waitfd end = {patience.end(), CURL_WAIT_POLLIN, 0};
        if (patience.over())
            return {.trouble = "the service ends"};
        curl().curl_multi_poll(multi, &end, 1, kWaitMs, nullptr);
    }
    const CURLMsg *const message = curl().curl_multi_info_read(multi, &left);
    const CURLcode result = message ? message->data.result : CURLE_FAILED_INIT;
    if (result != CURLE_OK)
        return {.trouble = state_->error[0] ? state_->error : curl().curl_easy_strerror(result)};
    Answer answer;
    curl_off_t seconds = 0;
    curl().curl_easy_getinfo(state_->easy.get(), CURLINFO_RESPONSE_CODE, &answer.status);
    curl().curl_easy_getinfo(state_->easy.get(), CURLINFO_RETRY_AFTER, &seconds);
    answer.retry_ms = std::min(static_cast<uint64_t>(std::max<curl_off_t>(seconds, 0)), kLongestRetryS) * 1000;
    return answer;
}

}  // namespace output

#else

namespace output
{

struct Requests::State {
};

bool has_http(std::string &error)
{
    error = "this build has no HTTP: it was made without libcurl";
    return false;
}

Requests::Requests(RequestOptions options) : options_(std::move(options)) {}
Requests::~Requests() = default;

Answer Requests::post(std::string_view, const std::vector<std::string> &, const Patience &)
{
    Answer answer;
    has_http(answer.trouble);
    return answer;
}

}  // namespace output

#endif
