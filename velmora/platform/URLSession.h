#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "velmora/Errors.h"
#include "velmora/platform/Error.h"
#include "velmora/platform/URLCache.h"
#include "velmora/platform/URLRequest.h"

namespace velmora::platform {

class URLSession;

// Errors of the URL loading system, with the platform's codes.
struct URLError {
    // `code` is one of errors::url, the domain errors::urlDomain.
    static Error make(std::int64_t code, const std::string& failingUrl, const std::string& detail = {});
};

// One request of a session. Its state changes on the session's thread; the accessors may be read anywhere.
class URLSessionDataTask : public std::enable_shared_from_this<URLSessionDataTask> {
  public:
    std::uint64_t taskIdentifier() const { return identifier_; }
    const URLRequest& originalRequest() const { return request_; }
    // The response once its headers have arrived.
    std::shared_ptr<const HTTPURLResponse> response() const;
    std::optional<Error> error() const;

    void resume();
    // Ends the task with the "cancelled" error, unless it has completed already.
    void cancel();

    URLSessionDataTask(std::uint64_t identifier, URLRequest request, std::weak_ptr<URLSession> session)
        : identifier_(identifier), request_(std::move(request)), session_(std::move(session)) {}

  private:
    friend class URLSession;
    const std::uint64_t identifier_;
    const URLRequest request_;
    const std::weak_ptr<URLSession> session_;
    mutable std::mutex mutex_;
    std::shared_ptr<const HTTPURLResponse> response_;
    std::optional<Error> error_;
    bool resumed_ = false;
};

// What a session reports. Every call comes on the session's own thread, one at a time.
class URLSessionDelegate {
  public:
    virtual ~URLSessionDelegate() = default;
    virtual void didBecomeInvalid(URLSession& session, const std::optional<Error>& error) = 0;
    virtual void didSendBodyData(URLSession& session, URLSessionDataTask& task, std::int64_t bytesSent,
                                 std::int64_t totalBytesSent, std::int64_t totalBytesExpectedToSend) = 0;
    // One call per chunk received; the task's response is known by then.
    virtual void didReceiveData(URLSession& session, URLSessionDataTask& task, const Data& data) = 0;
    // Offered before completion, with the whole body, for every answer from the network that the session's
    // cache may keep by the HTTP rules (URLCache::mayStore); `completion` gets what to store (nothing: no
    // caching) and must be called exactly once, before returning. Answers the cache gave are not offered.
    virtual void willCacheResponse(
        URLSession& session, URLSessionDataTask& task, const CachedURLResponse& proposed,
        const std::function<void(std::optional<CachedURLResponse>)>& completion) = 0;
    virtual void didComplete(URLSession& session, URLSessionDataTask& task,
                             const std::optional<Error>& error) = 0;
};

struct URLSessionConfiguration {
    // Sent with every request that does not set the same header itself.
    HTTPHeaderFields httpAdditionalHeaders;
    std::shared_ptr<URLCache> urlCache;
    int httpMaximumConnectionsPerHost = 6;

    static URLSessionConfiguration defaultConfiguration() { return {}; }
};

// HTTP over libcurl: one multi handle, driven by a thread of the session's own that is also the delegate's
// serial queue. Connections are reused (HTTP/2 where the server offers it over TLS); cookies are never
// stored; redirects are followed without carrying "Authorization" to another origin; TLS peers and host
// names are verified. The session lives until invalidated; a session that is destroyed cancels its tasks.
//
// With a URL cache, a GET the cache holds a fresh answer for is answered from it without reaching the
// server; a stale answer with a validator is revalidated ("If-None-Match", "If-Modified-Since"), and a 304
// refreshes the kept answer and reaches the delegate as that answer, status and body. A request that sets
// a conditional header itself gets the server's own answer. Other methods that succeed drop what the cache
// held for their URL.
class URLSession : public std::enable_shared_from_this<URLSession> {
  public:
    static std::shared_ptr<URLSession> make(URLSessionConfiguration configuration,
                                            std::shared_ptr<URLSessionDelegate> delegate);
    ~URLSession();
    URLSession(const URLSession&) = delete;
    URLSession& operator=(const URLSession&) = delete;

    const URLSessionConfiguration& configuration() const { return configuration_; }

    std::shared_ptr<URLSessionDataTask> dataTask(URLRequest request);

    // Lets running tasks finish, then reports didBecomeInvalid; new tasks are refused meanwhile.
    void finishTasksAndInvalidate();
    void invalidateAndCancel();

    struct Engine;

  private:
    URLSession(URLSessionConfiguration configuration, std::shared_ptr<URLSessionDelegate> delegate);
    friend class URLSessionDataTask;
    void start(std::shared_ptr<URLSessionDataTask> task);
    void cancel(std::shared_ptr<URLSessionDataTask> task);

    const URLSessionConfiguration configuration_;
    const std::shared_ptr<URLSessionDelegate> delegate_;
    std::unique_ptr<Engine> engine_;
};

}  // namespace velmora::platform
