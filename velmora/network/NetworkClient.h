#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "velmora/network/ProviderService.h"
#include "velmora/platform/URLSession.h"

namespace velmora {

// Where the answer to one data task goes.
struct URLSessionTaskHandler {
    std::uint64_t taskIdentifier;
    platform::DispatchQueue queue;
    TaskCompletion completionHandler;
    Reporter reporter;
    std::vector<std::shared_ptr<HTTPResponseInterceptor>> responseInterceptors;
    std::shared_ptr<CachedHTTPURLResponseDelegate> cachingDelegate;
    std::optional<Data> data;  // absent until the first chunk

    friend bool operator==(const URLSessionTaskHandler& a, const URLSessionTaskHandler& b) {
        return a.taskIdentifier == b.taskIdentifier;
    }
};

class URLSessionTaskHandlerDelegate {
  public:
    virtual ~URLSessionTaskHandlerDelegate() = default;
    virtual std::shared_ptr<URLSessionTaskHandler> taskHandler(std::uint64_t taskIdentifier) = 0;
    virtual void completed(std::uint64_t taskIdentifier) = 0;
};

// The handlers of running tasks, in the order they were added. Appended from the executing thread, searched
// from the session's thread, shortened from completion queues: guarded.
class URLSessionTaskHandlerManager : public URLSessionTaskHandlerDelegate {
  public:
    void append(std::shared_ptr<URLSessionTaskHandler> handler);
    std::shared_ptr<URLSessionTaskHandler> taskHandler(std::uint64_t taskIdentifier) override;
    void completed(std::uint64_t taskIdentifier) override;
    std::size_t count() const;

  private:
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<URLSessionTaskHandler>> handlers_;
};

// Turns the session's events into handler updates and completions.
class SessionDelegate : public platform::URLSessionDelegate {
  public:
    void setTaskHandlerDelegate(std::shared_ptr<URLSessionTaskHandlerDelegate> delegate);

    void didBecomeInvalid(platform::URLSession& session, const std::optional<Error>& error) override;
    void didSendBodyData(platform::URLSession& session, platform::URLSessionDataTask& task,
                         std::int64_t bytesSent, std::int64_t totalBytesSent,
                         std::int64_t totalBytesExpectedToSend) override;
    void didReceiveData(platform::URLSession& session, platform::URLSessionDataTask& task,
                        const Data& data) override;
    void willCacheResponse(
        platform::URLSession& session, platform::URLSessionDataTask& task,
        const platform::CachedURLResponse& proposed,
        const std::function<void(std::optional<platform::CachedURLResponse>)>& completion) override;
    void didComplete(platform::URLSession& session, platform::URLSessionDataTask& task,
                     const std::optional<Error>& error) override;

  private:
    std::shared_ptr<URLSessionTaskHandlerDelegate> handlers() const;

    mutable std::mutex mutex_;
    std::shared_ptr<URLSessionTaskHandlerDelegate> taskHandlerDelegate_;
};

// Owns the library's one URL session and runs provider services through it.
class NetworkClient {
  public:
    // The shared client: 4 MiB memory and 20 MiB disk response cache at "com.velmora.core" in the caches
    // directory, no cookies, the shared headers on every request. Made on first use, kept for the process.
    static NetworkClient& defaultClient();

    // The deadline of the call whose request interceptors run on this thread, if any.
    static std::optional<std::chrono::steady_clock::time_point> chainDeadline();

    NetworkClient(platform::URLSessionConfiguration configuration, std::shared_ptr<SessionDelegate> delegate);

    // Runs the interceptor chain on this thread, then starts the request; the completion comes on `queue`,
    // or at once on this thread when the chain fails.
    void execute(const ProviderService& service, const platform::DispatchQueue& queue,
                 TaskCompletion completionHandler);

    // Runs the request interceptors in order, each on the chain's queue; the first error ends the chain.
    static Result<platform::URLRequest> intercept(const platform::URLRequest& request,
                                                  const Interceptors& interceptors);

    const std::shared_ptr<platform::URLSession>& session() const { return session_; }
    // Forgets every cached answer: what one user or account was answered is never shown to the next.
    void removeCachedResponses() const;
    URLSessionTaskHandlerManager& taskHandlerManager() const { return *taskHandlerManager_; }

  private:
    std::shared_ptr<URLSessionTaskHandlerManager> taskHandlerManager_;
    std::shared_ptr<platform::URLSession> session_;
};

}  // namespace velmora
