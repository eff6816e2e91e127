#include "velmora/platform/URLSession.h"

#include <curl/curl.h>
#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <condition_variable>
#include <map>
#include <set>
#include <thread>
#include <vector>

#include "velmora/platform/Environment.h"
#include "velmora/platform/ExitGuard.h"
#include "velmora/platform/Format.h"
#include "velmora/platform/HTTPText.h"
#include "velmora/platform/SystemLog.h"

namespace velmora::platform {
namespace {

std::string describe(std::int64_t code) {
    switch (code) {
        case errors::url::cancelled:
            return "cancelled";
        case errors::url::badURL:
            return "unsupported URL";
        case errors::url::timedOut:
            return "The request timed out.";
        case errors::url::cannotFindHost:
            return "A server with the specified hostname could not be found.";
        case errors::url::cannotConnectToHost:
            return "Could not connect to the server.";
        case errors::url::networkConnectionLost:
            return "The network connection was lost.";
        case errors::url::httpTooManyRedirects:
            return "too many HTTP redirects";
        case errors::url::secureConnectionRequired:
            return "The resource could not be loaded because a secure connection is required.";
        case errors::url::dataLengthExceedsMaximum:
            return "The resource exceeds the maximum size.";
        case errors::url::badServerResponse:
            return "The server returned a bad response.";
        case errors::url::secureConnectionFailed:
            return "An SSL error has occurred and a secure connection to the server cannot be made.";
        case errors::url::serverCertificateUntrusted:
            return "The certificate for this server is invalid.";
        default:
            return "An unknown error occurred.";
    }
}

std::int64_t urlErrorCode(CURLcode code) {
    switch (code) {
        case CURLE_OPERATION_TIMEDOUT:
            return errors::url::timedOut;
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
            return errors::url::cannotFindHost;
        case CURLE_COULDNT_CONNECT:
            return errors::url::cannotConnectToHost;
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_GOT_NOTHING:
        case CURLE_PARTIAL_FILE:
        case CURLE_HTTP2:
        case CURLE_HTTP2_STREAM:
            return errors::url::networkConnectionLost;
        case CURLE_TOO_MANY_REDIRECTS:
            return errors::url::httpTooManyRedirects;
        case CURLE_URL_MALFORMAT:
        case CURLE_UNSUPPORTED_PROTOCOL:
            return errors::url::badURL;
        case CURLE_PEER_FAILED_VERIFICATION:
            return errors::url::serverCertificateUntrusted;
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_CACERT_BADFILE:
            return errors::url::secureConnectionFailed;
        case CURLE_WEIRD_SERVER_REPLY:
            return errors::url::badServerResponse;
        default:
            return errors::url::unknown;
    }
}

// Whether a response to this request can carry a body at all; one that can but sends none has an empty body.
bool mayHaveBody(const std::string& method, int status) {
    return method != "HEAD" && status != 204 && status != 304 && !(status >= 100 && status < 200);
}

// "If-None-Match", "If-Modified-Since" and the other preconditions.
bool isConditional(std::string_view header) {
    return header.size() > 3 && std::tolower(static_cast<unsigned char>(header[0])) == 'i' &&
           std::tolower(static_cast<unsigned char>(header[1])) == 'f' && header[2] == '-';
}

bool isRedirectStatus(long status) {
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

// Headers that identify the user or the app to the account; they never leave its origin.
bool isCredential(const std::string& name) {
    static const auto& credentials = *new std::set<std::string, CaseInsensitiveLess>{
        "Authorization", "Proxy-Authorization", "Cookie", "Client-Identifier"};
    return credentials.count(name) > 0;
}

constexpr long maximumRedirects = 16;
constexpr int idlePollMilliseconds = 24 * 60 * 60 * 1000;

// Asks OpenSSL, when it is libcurl's TLS library here, not to tear itself down at exit: a host may exit while
// a library thread is still setting libcurl up, or still inside a transfer, and OpenSSL's exit handler would
// free what that thread uses. Like the library's own singletons, OpenSSL's state is then left to the system.
void keepOpenSslAtExit() {
    using InitCrypto = int (*)(std::uint64_t, const void*);
    constexpr std::uint64_t noAtExit = 0x00080000;  // OPENSSL_INIT_NO_ATEXIT
    if (const auto init = reinterpret_cast<InitCrypto>(::dlsym(RTLD_DEFAULT, "OPENSSL_init_crypto"))) {
        (void)init(noAtExit, nullptr);
    }
}

void initialiseCurlOnce() {
    static const bool done = [] {
        keepOpenSslAtExit();
        const bool initialised = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
        registerExitGuard();  // after OpenSSL registered its cleanup, so that the guard runs before it
        return initialised;
    }();
    (void)done;
}

}  // namespace

Error URLError::make(std::int64_t code, const std::string& failingUrl, const std::string& detail) {
    nlohmann::json info{{std::string(Error::localizedDescriptionKey), describe(code)},
                        {"NSErrorFailingURLStringKey", failingUrl}};
    if (!detail.empty()) {
        info["NSDebugDescription"] = detail;
    }
    return Error(std::string(errors::urlDomain), code, std::move(info));
}

std::shared_ptr<const HTTPURLResponse> URLSessionDataTask::response() const {
    std::lock_guard lock(mutex_);
    return response_;
}

std::optional<Error> URLSessionDataTask::error() const {
    std::lock_guard lock(mutex_);
    return error_;
}

void URLSessionDataTask::resume() {
    {
        std::lock_guard lock(mutex_);
        if (resumed_) {
            return;
        }
        resumed_ = true;
    }
    if (const auto session = session_.lock()) {
        session->start(shared_from_this());
    }
}

void URLSessionDataTask::cancel() {
    if (const auto session = session_.lock()) {
        session->cancel(shared_from_this());
    }
}

// The session's thread and everything only it touches, apart from the queue of operations handed to it.
struct URLSession::Engine {
    struct Transfer {
        explicit Transfer(std::shared_ptr<URLSessionDataTask> dataTask)
            : task(std::move(dataTask)), request(task->request_) {}

        std::shared_ptr<URLSessionDataTask> task;
        URLRequest request;  // as sent in the current hop: redirects change it
        long redirects = 0;
        bool crossedOrigin = false;  // once another origin was reached, no credential is sent again
        std::size_t received = 0;    // body bytes of the current answer, after decompression
        bool tooLarge = false;
        std::chrono::steady_clock::time_point deadline;
        CURL* easy = nullptr;
        curl_slist* headers = nullptr;
        std::string body;
        HTTPHeaderFields responseHeaders;
        bool delivered = false;  // a chunk (possibly empty) reached the delegate
        curl_off_t sent = 0;
        char errorText[CURL_ERROR_SIZE] = {};
        // With a cache: the task's request with the session's headers, as the cache files and matches it.
        std::optional<URLRequest> cacheRequest;
        std::optional<CachedURLResponse> revalidating;  // the stale answer a conditional request asks about
        bool fromCache = false;                         // the answer is the cache's: nothing to offer it
        std::optional<std::string> delegateFailure;     // what the delegate threw while told of this task
        std::optional<bool> collecting;                 // the body is gathered for the cache's offer
        Data collected;
    };

    URLSession& session;
    CURLM* multi = nullptr;
    std::thread thread;
    std::mutex mutex;
    std::vector<std::function<void()>> operations;  // run on the session thread
    bool invalidating = false;
    bool finished = false;  // the thread has left its loop; nothing runs `operations` any more
    std::map<CURL*, std::unique_ptr<Transfer>> transfers;
    // Easy handles of finished transfers, reset and kept for the next ones: setting one up costs more than
    // the request itself on a fast link. Connections live in the multi handle either way.
    std::vector<CURL*> idleHandles;
    static constexpr std::size_t maximumIdleHandles = 64;
    std::atomic<std::uint64_t> nextIdentifier{1};
    bool abandoning = false;          // the process is exiting: drop everything, call nobody back
    std::condition_variable stopped;  // with `mutex`: `finished` became true

    // Every engine alive, so that the exit guard can stop their threads.
    static std::mutex& registryMutex() {
        static auto* mutex = new std::mutex();
        return *mutex;
    }
    static std::set<Engine*>& registry() {
        static auto* engines = new std::set<Engine*>();
        return *engines;
    }

    explicit Engine(URLSession& owner) : session(owner) {
        initialiseCurlOnce();
        {
            std::lock_guard lock(registryMutex());
            registry().insert(this);
        }
        multi = curl_multi_init();
        curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS,
                          static_cast<long>(owner.configuration_.httpMaximumConnectionsPerHost));
        curl_multi_setopt(multi, CURLMOPT_PIPELINING, static_cast<long>(CURLPIPE_MULTIPLEX));
    }

    void post(std::function<void()> operation) {
        {
            std::lock_guard lock(mutex);
            operations.push_back(std::move(operation));
        }
        curl_multi_wakeup(multi);
    }

    void run() {
        for (;;) {
            std::vector<std::function<void()>> due;
            bool finishing = false;
            {
                std::lock_guard lock(mutex);
                due.swap(operations);
                finishing = invalidating;
            }
            for (auto& operation : due) {
                operation();
            }
            if (abandoning) {
                // The exit guard runs before OpenSSL's cleanup, so the handles can still be released here.
                for (auto& [easy, transfer] : transfers) {
                    curl_multi_remove_handle(multi, easy);
                    curl_easy_cleanup(easy);
                    curl_slist_free_all(transfer->headers);
                }
                transfers.clear();
                std::lock_guard lock(mutex);
                finished = true;
                stopped.notify_all();
                return;
            }
            int running = 0;
            curl_multi_perform(multi, &running);
            int queued = 0;
            while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
                if (message->msg == CURLMSG_DONE) {
                    finish(message->easy_handle, message->data.result);
                }
            }
            if (finishing && transfers.empty()) {
                std::lock_guard lock(mutex);
                if (operations.empty()) {
                    finished = true;
                    stopped.notify_all();
                    break;
                }
            }
            // libcurl shortens the wait to its own next timer while transfers run; with none, the thread
            // sleeps until an operation wakes it, so that an idle session costs its host nothing.
            curl_multi_poll(multi, nullptr, 0, transfers.empty() ? idlePollMilliseconds : 1000, nullptr);
        }
        toDelegate(nullptr, [&] { session.delegate_->didBecomeInvalid(session, std::nullopt); });
    }

    // The delegate is the host's code (or runs the host's: reporters, a kit's interceptors), here on the
    // session's thread, often inside a libcurl callback. What it throws must not end the host: it is logged,
    // and the task it was told about ends with an error. False when it threw.
    template <class Call>
    static bool toDelegate(Transfer* transfer, Call&& call) noexcept {
        try {
            call();
            return true;
        } catch (...) {
            try {  // nothing may leave a libcurl callback, not even a failure to describe the throw
                const auto what = thrownDescription();
                systemLogLine(LogLevel::error, "URLSession: the delegate failed: " + what);
                if (transfer != nullptr && !transfer->delegateFailure) {
                    transfer->delegateFailure = "the session's delegate failed: " + what;
                }
            } catch (...) {
            }
        }
        return false;
    }

    // The error a task ends with when its delegate threw.
    static std::optional<Error> delegateError(const Transfer& transfer) {
        if (!transfer.delegateFailure) {
            return std::nullopt;
        }
        return URLError::make(errors::url::unknown, transfer.task->request_.url.absoluteString(),
                              *transfer.delegateFailure);
    }

    static size_t onHeader(char* buffer, size_t size, size_t count, void* user) {
        auto& transfer = *static_cast<Transfer*>(user);
        const std::string_view line(buffer, size * count);
        if (line.starts_with("HTTP/")) {
            transfer.responseHeaders.clear();  // a redirect or an interim answer came before this one
        } else if (const auto colon = line.find(':'); colon != std::string_view::npos) {
            const auto trim = [](std::string_view text) {
                while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front())))
                    text.remove_prefix(1);
                while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())))
                    text.remove_suffix(1);
                return std::string(text);
            };
            const auto name = trim(line.substr(0, colon));
            const auto value = trim(line.substr(colon + 1));
            auto [it, inserted] = transfer.responseHeaders.emplace(name, value);
            if (!inserted) {
                it->second += ", " + value;  // repeated fields combine, as HTTP allows
            }
        }
        return size * count;
    }

    static size_t onData(char* buffer, size_t size, size_t count, void* user) {
        auto& transfer = *static_cast<Transfer*>(user);
        auto& engine = *currentEngine;
        if (engine.isRedirect(transfer)) {
            return size * count;  // the body of a redirect is nobody's answer
        }
        transfer.received += size * count;
        if (transfer.received > Environment::current()->http.maximumResponseBytes) {
            transfer.tooLarge = true;
            return 0;  // libcurl ends the transfer
        }
        engine.captureResponse(transfer);
        transfer.delivered = true;
        const Data chunk(buffer, size * count);
        if (!transfer.collecting) {
            transfer.collecting = engine.mayOffer(transfer);
        }
        if (*transfer.collecting) {
            const auto limit = engine.session.configuration_.urlCache->maximumEntrySize();
            if (transfer.collected.size() + chunk.size() > limit) {
                transfer.collecting = false;  // the cache could not keep it anyway
                transfer.collected = Data();
            } else {
                transfer.collected.append(chunk);
            }
        }
        const bool told = toDelegate(&transfer, [&] {
            engine.session.delegate_->didReceiveData(engine.session, *transfer.task, chunk);
        });
        return told ? size * count : 0;  // 0: libcurl ends the transfer
    }

    static int onProgress(void* user, curl_off_t, curl_off_t, curl_off_t totalToSend, curl_off_t sentNow) {
        auto& transfer = *static_cast<Transfer*>(user);
        if (sentNow > transfer.sent) {
            const auto step = sentNow - transfer.sent;
            transfer.sent = sentNow;
            const auto expected =
                totalToSend > 0 ? totalToSend : static_cast<curl_off_t>(transfer.body.size());
            const bool told = toDelegate(&transfer, [&] {
                currentEngine->session.delegate_->didSendBodyData(currentEngine->session, *transfer.task,
                                                                  step, sentNow, expected);
            });
            if (!told) {
                return 1;  // libcurl ends the transfer
            }
        }
        return 0;
    }

    // The engine whose thread is running; callbacks find it here, since only this thread calls them.
    static thread_local Engine* currentEngine;

    bool isRedirect(const Transfer& transfer) const {
        long status = 0;
        curl_easy_getinfo(transfer.easy, CURLINFO_RESPONSE_CODE, &status);
        return isRedirectStatus(status) && transfer.responseHeaders.count("Location") > 0;
    }

    // Whether the answer is one the cache may keep, so that the delegate is offered it.
    bool mayOffer(const Transfer& transfer) const {
        const auto response = transfer.task->response();
        return session.configuration_.urlCache && transfer.cacheRequest && !transfer.fromCache &&
               transfer.redirects == 0 && response && URLCache::mayStore(*transfer.cacheRequest, *response);
    }

    // The task's request as the server would see it, apart from what the hops add.
    URLRequest withSessionHeaders(const URLRequest& request) const {
        URLRequest effective = request;
        for (const auto& [name, value] : session.configuration_.httpAdditionalHeaders) {
            effective.allHTTPHeaderFields.emplace(name, value);
        }
        return effective;
    }

    // Hands the delegate a kept answer as the task's answer.
    void answerFromCache(Transfer& transfer, const CachedURLResponse& kept) {
        {
            std::lock_guard lock(transfer.task->mutex_);
            transfer.task->response_ = kept.response;
        }
        transfer.fromCache = true;
        if (!kept.data.empty() ||
            mayHaveBody(transfer.task->request_.httpMethod, kept.response->statusCode())) {
            transfer.delivered = true;
            toDelegate(&transfer,
                       [&] { session.delegate_->didReceiveData(session, *transfer.task, kept.data); });
        }
        complete(transfer, delegateError(transfer));
    }

    // Serves the request from the cache when it holds a fresh answer (true); with a stale one that has a
    // validator, turns the request into a revalidation. A request conditional of its own goes to the server
    // as it is: its preconditions are about what its sender holds.
    bool consultCache(Transfer& transfer) {
        const auto& cache = session.configuration_.urlCache;
        if (!cache || transfer.task->request_.httpMethod != "GET") {
            return false;  // only a GET is answered from the cache or kept by it
        }
        transfer.cacheRequest = withSessionHeaders(transfer.task->request_);
        const auto& fields = transfer.request.allHTTPHeaderFields;
        if (std::any_of(fields.begin(), fields.end(),
                        [](const auto& field) { return isConditional(field.first); })) {
            return false;
        }
        const auto match = cache->match(*transfer.cacheRequest);
        if (!match) {
            return false;
        }
        if (match->fresh) {
            answerFromCache(transfer, match->response);
            return true;
        }
        const auto& kept = *match->response.response;
        // A validator that could not be sent (CR, LF or NUL in it) would fail the request: it is left out.
        const auto sendable = [](std::optional<std::string> value) {
            return value && isHeaderValue(*value) ? value : std::nullopt;
        };
        const auto etag = sendable(kept.value("ETag"));
        const auto modified = sendable(kept.value("Last-Modified"));
        if (!etag && !modified) {
            return false;
        }
        if (etag) {
            transfer.request.setValue(*etag, "If-None-Match");
        }
        if (modified) {
            transfer.request.setValue(*modified, "If-Modified-Since");
        }
        transfer.revalidating = match->response;
        return false;
    }

    void captureResponse(Transfer& transfer) {
        if (transfer.task->response() || isRedirect(transfer)) {
            return;
        }
        long status = 0;
        curl_easy_getinfo(transfer.easy, CURLINFO_RESPONSE_CODE, &status);
        if (status == 0) {
            return;
        }
        char* effective = nullptr;
        curl_easy_getinfo(transfer.easy, CURLINFO_EFFECTIVE_URL, &effective);
        // Usually the URL this hop asked for, as it was given: parsed again only when libcurl changed it.
        auto url = effective == nullptr                                 ? std::nullopt
                   : transfer.request.url.absoluteString() == effective ? std::optional(transfer.request.url)
                                                                        : URL::fromString(effective);
        auto response = std::make_shared<const HTTPURLResponse>(
            url ? *url : transfer.task->request_.url, static_cast<int>(status), transfer.responseHeaders);
        std::lock_guard lock(transfer.task->mutex_);
        transfer.task->response_ = std::move(response);
    }

    // `refuse`: the session was already invalidated when the task was resumed.
    void begin(const std::shared_ptr<URLSessionDataTask>& task, bool refuse) {
        auto transfer = std::make_unique<Transfer>(task);
        transfer->deadline = task->request_.deadline.value_or(
            std::chrono::steady_clock::now() +
            std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                std::chrono::duration<double>(Environment::current()->http.requestDeadline)));
        if (refuse) {
            complete(*transfer, URLError::make(errors::url::cancelled, task->request_.url.absoluteString(),
                                               "the session was invalidated"));
            return;
        }
        if (consultCache(*transfer)) {
            return;
        }
        if (idleHandles.empty()) {
            transfer->easy = curl_easy_init();
        } else {
            transfer->easy = idleHandles.back();
            idleHandles.pop_back();
        }
        send(std::move(transfer));
    }

    // Sets the transfer's handle up for its current request and hands it to the multi handle; a request
    // that cannot be sent as it is ends here with an error.
    void send(std::unique_ptr<Transfer> transfer) {
        const auto env = Environment::current();
        const URLRequest& request = transfer->request;
        CURL* easy = transfer->easy;

        HTTPHeaderFields headers = request.allHTTPHeaderFields;
        for (const auto& [name, value] : session.configuration_.httpAdditionalHeaders) {
            headers.emplace(name, value);  // the request's own value wins
        }
        for (auto it = headers.begin(); it != headers.end();) {
            if (!isHeaderName(it->first) || !isHeaderValue(it->second)) {
                // The value is not shown: it may be a credential.
                const auto name = isHeaderName(it->first) ? "\"" + it->first + "\"" : std::string("a header");
                complete(*transfer, URLError::make(errors::url::badURL, request.url.absoluteString(),
                                                   "the request's " + name +
                                                       " holds CR, LF or NUL or is not a header name; "
                                                       "nothing was sent"));
                return;
            }
            it = transfer->crossedOrigin && isCredential(it->first) ? headers.erase(it) : std::next(it);
        }
        headers.emplace("Expect", "");
        curl_slist_free_all(transfer->headers);
        transfer->headers = nullptr;
        for (const auto& [name, value] : headers) {
            const std::string line =
                value.empty() ? name + (name == "Expect" ? ":" : ";") : name + ": " + value;
            transfer->headers = curl_slist_append(transfer->headers, line.c_str());
        }

        curl_easy_setopt(easy, CURLOPT_URL, request.url.absoluteString().c_str());
        curl_easy_setopt(easy, CURLOPT_PRIVATE, transfer.get());
        curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer->errorText);
        curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
        // Redirects are followed here, hop by hop, so that what reaches another origin is decided here.
        curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
        curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
        curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
        curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
        if (env->http.caBundle) {
            curl_easy_setopt(easy, CURLOPT_CAINFO, env->http.caBundle->c_str());
        }
        if (env->http.proxy) {
            curl_easy_setopt(easy, CURLOPT_PROXY, env->http.proxy->c_str());
        } else if (!env->http.proxyFromEnvironment) {
            curl_easy_setopt(easy, CURLOPT_PROXY, "");  // libcurl would read the proxy variables otherwise
        }
        // "No progress for this long" is the time-out: for connecting, and for any stretch without a byte.
        const double timeout = request.timeoutInterval.value_or(env->http.timeoutInterval);
        const long timeoutMs = std::max(1L, static_cast<long>(timeout * 1000));
        curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, timeoutMs);
        curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
        curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, std::max(1L, (timeoutMs + 999) / 1000));
        // However steadily the server trickles, the whole exchange, redirects included, ends by the deadline.
        const auto remaining = std::chrono::duration_cast<std::chrono::milliseconds>(
                                   transfer->deadline - std::chrono::steady_clock::now())
                                   .count();
        if (remaining <= 0) {
            complete(*transfer, URLError::make(errors::url::timedOut, request.url.absoluteString(),
                                               "the request's deadline passed before it was sent"));
            return;
        }
        curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, static_cast<long>(remaining));
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer->headers);

        if (request.httpMethod == "GET" && !request.httpBody) {
            curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
        } else if (request.httpMethod == "HEAD") {
            curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
        } else {
            if (request.httpMethod == "POST") {
                curl_easy_setopt(easy, CURLOPT_POST, 1L);
            } else {
                curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.httpMethod.c_str());
            }
            if (request.httpBody || request.httpMethod == "POST" || request.httpMethod == "PUT") {
                transfer->body = request.httpBody ? request.httpBody->toString() : std::string();
                curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                                 static_cast<curl_off_t>(transfer->body.size()));
                curl_easy_setopt(easy, CURLOPT_POSTFIELDS, transfer->body.data());
            }
        }
        curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Engine::onHeader);
        curl_easy_setopt(easy, CURLOPT_HEADERDATA, transfer.get());
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Engine::onData);
        curl_easy_setopt(easy, CURLOPT_WRITEDATA, transfer.get());
        curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &Engine::onProgress);
        curl_easy_setopt(easy, CURLOPT_XFERINFODATA, transfer.get());
        curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);

        curl_multi_add_handle(multi, easy);
        transfers.emplace(easy, std::move(transfer));
    }

    // The next hop of a redirect, or the error that ends the request. Within the origin a redirect is
    // followed as libcurl would; to another origin only a GET or HEAD follows, without credentials, and
    // https never leads to http.
    void redirect(std::unique_ptr<Transfer> transfer, long status, const char* location) {
        const auto failing = transfer->task->request_.url.absoluteString();
        const auto target = URL::fromString(location);
        if (!target) {
            complete(*transfer, URLError::make(errors::url::badServerResponse, failing,
                                               "the redirect's location is not a URL"));
            return;
        }
        if (++transfer->redirects > maximumRedirects) {
            complete(*transfer, URLError::make(errors::url::httpTooManyRedirects, failing));
            return;
        }
        URLRequest& next = transfer->request;
        if (transfer->revalidating) {
            // The validators were the kept answer's, for this URL only.
            next.allHTTPHeaderFields.erase("If-None-Match");
            next.allHTTPHeaderFields.erase("If-Modified-Since");
            transfer->revalidating.reset();
        }
        if (next.url.scheme() == "https" && target->scheme() != "https") {
            complete(*transfer, URLError::make(errors::url::secureConnectionRequired, failing,
                                               "refused a redirect from https to " + target->scheme()));
            return;
        }
        if ((status == 303 && next.httpMethod != "HEAD") || (status <= 302 && next.httpMethod == "POST")) {
            next.httpMethod = "GET";
            next.httpBody.reset();
        }
        if (target->origin() != next.url.origin()) {
            if (next.httpMethod != "GET" && next.httpMethod != "HEAD") {
                complete(*transfer, URLError::make(errors::url::badServerResponse, failing,
                                                   "refused a redirect that would send the " +
                                                       next.httpMethod + " request to another origin"));
                return;
            }
            next.httpBody.reset();
            transfer->crossedOrigin = true;
        }
        next.url = *target;
        transfer->responseHeaders.clear();
        transfer->received = 0;
        transfer->sent = 0;
        transfer->body.clear();
        curl_easy_reset(transfer->easy);
        send(std::move(transfer));
    }

    void finish(CURL* easy, CURLcode result) {
        const auto it = transfers.find(easy);
        if (it == transfers.end()) {
            return;
        }
        auto transfer = std::move(it->second);
        transfers.erase(it);
        curl_multi_remove_handle(multi, easy);
        if (result == CURLE_OK && isRedirect(*transfer)) {
            long status = 0;
            curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
            char* location = nullptr;
            curl_easy_getinfo(easy, CURLINFO_REDIRECT_URL, &location);
            if (location != nullptr) {
                redirect(std::move(transfer), status, location);
                return;
            }
        }
        captureResponse(*transfer);
        // A delegate that threw stopped libcurl: the task ends with what it threw, not libcurl's own error.
        std::optional<Error> error = delegateError(*transfer);
        if (!error && transfer->tooLarge) {
            error = URLError::make(
                errors::url::dataLengthExceedsMaximum, transfer->task->request_.url.absoluteString(),
                "the answer was larger than " +
                    std::to_string(Environment::current()->http.maximumResponseBytes) + " bytes");
        } else if (!error && result != CURLE_OK) {
            error = URLError::make(
                urlErrorCode(result), transfer->task->request_.url.absoluteString(),
                transfer->errorText[0] != '\0' ? transfer->errorText : curl_easy_strerror(result));
        }
        const auto response = transfer->task->response();
        if (!error && response && transfer->revalidating && response->statusCode() == 304) {
            const auto refreshed = URLCache::updated(*transfer->revalidating, *response);
            session.configuration_.urlCache->storeCachedResponse(refreshed, *transfer->cacheRequest);
            answerFromCache(*transfer, refreshed);
            return;
        }
        if (!error && response && !transfer->delivered &&
            mayHaveBody(transfer->task->request_.httpMethod, response->statusCode())) {
            transfer->delivered = true;
            toDelegate(transfer.get(),
                       [&] { session.delegate_->didReceiveData(session, *transfer->task, Data()); });
            error = delegateError(*transfer);
        }
        complete(*transfer, std::move(error));
    }

    void complete(Transfer& transfer, std::optional<Error> error) {
        {
            std::lock_guard lock(transfer.task->mutex_);
            transfer.task->error_ = error;
        }
        const auto response = transfer.task->response();
        const auto& cache = session.configuration_.urlCache;
        if (!error && response && (transfer.collecting ? *transfer.collecting : mayOffer(transfer))) {
            const CachedURLResponse proposed{response, std::move(transfer.collected),
                                             URLCacheStoragePolicy::allowed, nullptr};
            bool answered = false;
            const bool told = toDelegate(nullptr, [&] {
                session.delegate_->willCacheResponse(
                    session, *transfer.task, proposed, [&](std::optional<CachedURLResponse> chosen) {
                        answered = true;
                        if (chosen) {
                            cache->storeCachedResponse(*chosen, *transfer.cacheRequest);
                        }
                    });
            });
            if (told && !answered) {
                systemLogLine(LogLevel::warn,
                              "URLSession: the delegate did not answer willCacheResponse; nothing cached");
            }
        }
        const auto& method = transfer.task->request_.httpMethod;
        if (!error && response && cache && method != "GET" && method != "HEAD" &&
            response->statusCode() < 400) {
            cache->removeCachedResponse(transfer.task->request_);  // what it held for the URL is out of date
        }
        toDelegate(nullptr, [&] { session.delegate_->didComplete(session, *transfer.task, error); });
        if (transfer.easy != nullptr) {
            if (idleHandles.size() < maximumIdleHandles) {
                curl_easy_reset(transfer.easy);
                idleHandles.push_back(transfer.easy);
            } else {
                curl_easy_cleanup(transfer.easy);
            }
        }
        curl_slist_free_all(transfer.headers);
    }

    void cancel(const std::shared_ptr<URLSessionDataTask>& task) {
        for (auto& [easy, transfer] : transfers) {
            if (transfer->task == task) {
                auto owned = std::move(transfer);
                transfers.erase(easy);
                curl_multi_remove_handle(multi, owned->easy);
                complete(*owned, URLError::make(errors::url::cancelled, task->request_.url.absoluteString()));
                return;
            }
        }
    }

    void cancelEverything() {
        while (!transfers.empty()) {
            cancel(transfers.begin()->second->task);
        }
    }
};

thread_local URLSession::Engine* URLSession::Engine::currentEngine = nullptr;

URLSession::URLSession(URLSessionConfiguration configuration, std::shared_ptr<URLSessionDelegate> delegate)
    : configuration_(std::move(configuration)),
      delegate_(std::move(delegate)),
      engine_(std::make_unique<Engine>(*this)) {}

std::shared_ptr<URLSession> URLSession::make(URLSessionConfiguration configuration,
                                             std::shared_ptr<URLSessionDelegate> delegate) {
    std::shared_ptr<URLSession> session(new URLSession(std::move(configuration), std::move(delegate)));
    Engine* engine = session->engine_.get();
    engine->thread = std::thread([engine] {
        Engine::currentEngine = engine;
        engine->run();
    });
    return session;
}

URLSession::~URLSession() {
    {
        std::lock_guard lock(Engine::registryMutex());
        Engine::registry().erase(engine_.get());
    }
    invalidateAndCancel();
    if (engine_->thread.joinable()) {
        if (engine_->thread.get_id() == std::this_thread::get_id()) {
            engine_->thread.detach();  // released from one of its own callbacks; the loop ends by itself
        } else {
            engine_->thread.join();
        }
    }
    for (CURL* easy : engine_->idleHandles) {
        curl_easy_cleanup(easy);
    }
    curl_multi_cleanup(engine_->multi);
}

std::shared_ptr<URLSessionDataTask> URLSession::dataTask(URLRequest request) {
    return std::make_shared<URLSessionDataTask>(engine_->nextIdentifier.fetch_add(1), std::move(request),
                                                weak_from_this());
}

void URLSession::start(std::shared_ptr<URLSessionDataTask> task) {
    {
        std::lock_guard lock(engine_->mutex);
        const bool refuse = engine_->invalidating;
        if (!engine_->finished) {
            engine_->operations.push_back([this, task, refuse] { engine_->begin(task, refuse); });
            task = nullptr;
        }
    }
    if (task) {
        // The session's thread is gone, so no other delegate call can be running: refuse here.
        engine_->begin(task, true);
        return;
    }
    curl_multi_wakeup(engine_->multi);
}

void URLSession::cancel(std::shared_ptr<URLSessionDataTask> task) {
    // After the thread has ended every task has completed; there is nothing left to cancel.
    engine_->post([this, task = std::move(task)] { engine_->cancel(task); });
}

void URLSession::finishTasksAndInvalidate() {
    {
        std::lock_guard lock(engine_->mutex);
        engine_->invalidating = true;
    }
    curl_multi_wakeup(engine_->multi);
}

void URLSession::invalidateAndCancel() {
    engine_->post([this] { engine_->cancelEverything(); });
    finishTasksAndInvalidate();
}

void stopURLSessions(std::chrono::steady_clock::time_point deadline) {
    std::lock_guard registryLock(URLSession::Engine::registryMutex());
    for (auto* engine : URLSession::Engine::registry()) {
        engine->post([engine] { engine->abandoning = true; });
    }
    for (auto* engine : URLSession::Engine::registry()) {
        std::unique_lock lock(engine->mutex);
        if (engine->stopped.wait_until(lock, deadline, [engine] { return engine->finished; })) {
            lock.unlock();
            // Its loop has ended: the thread is gone in a moment, and is joined rather than left behind.
            if (engine->thread.joinable() && engine->thread.get_id() != std::this_thread::get_id()) {
                engine->thread.join();
            }
        }
    }
}

}  // namespace velmora::platform
