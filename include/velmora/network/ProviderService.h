#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "velmora/Export.h"
#include "velmora/network/CachedResponses.h"
#include "velmora/network/Interceptors.h"
#include "velmora/network/SharedHeaders.h"
#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Progress.h"
#include "velmora/platform/URLRequest.h"
#include "velmora/support/AccountDetails.h"

namespace velmora {

// The public error value offered to the libraries built on this one; the core never raises it.
struct VELMORA_EXPORT SDKError {
    std::string description;
};
VELMORA_EXPORT Error toError(const SDKError& error);

// How upload progress is reported: not at all, into a progress object, or to a callback that gets the
// expected total and then the total sent.
struct Reporter {
    using Callback = std::function<void(std::int64_t expected, std::int64_t sent)>;
    std::variant<std::monostate, std::shared_ptr<platform::Progress>, Callback> how;

    static Reporter none() { return {}; }
    static Reporter progress(std::shared_ptr<platform::Progress> progress) { return {std::move(progress)}; }
    static Reporter callback(Callback callback) { return {std::move(callback)}; }
};

// What an HTTP exchange hands back: the body (absent when none arrived), the response, the transport error.
using TaskCompletion = std::function<void(const std::optional<Data>& data,
                                          const std::shared_ptr<const platform::HTTPURLResponse>& response,
                                          const std::optional<Error>& error)>;

// The account URL followed by `path`, as one URL; a URL error naming the path when the two do not form one
// (a value in the path too long for a URL, or holding what a URL cannot).
VELMORA_EXPORT Result<platform::URL> resourceURL(const std::string& accountUrl, std::string_view path);

// One HTTP call as a provider describes it.
struct VELMORA_EXPORT ProviderService {
    ProviderService(std::shared_ptr<const AccountDetails> environment, platform::URL urlComponent,
                    bool requiresAuth, HttpMethod httpMethod, std::map<std::string, std::string> headers,
                    std::optional<Data> body, platform::DispatchQueue dispatchQueue,
                    Interceptors interceptors, Reporter reporter = Reporter::none(),
                    std::shared_ptr<CachedHTTPURLResponseDelegate> cachingDelegate = nullptr);

    platform::URL urlComponent;
    HttpMethod httpMethod;
    std::map<std::string, std::string> headers;
    std::optional<Data> body;
    platform::DispatchQueue dispatchQueue;
    std::shared_ptr<CachedHTTPURLResponseDelegate> cachingDelegate;
    Interceptors interceptors;
    // Stored with the description; which headers a request gets depends on its interceptors alone.
    bool requiresAuth;
    Reporter reporter;
    std::shared_ptr<const AccountDetails> environment;
    // When the whole call must be over. Empty: a call made while another one's interceptors run (its login,
    // its settings) shares that call's deadline; any other starts its own from the environment.
    std::optional<std::chrono::steady_clock::time_point> deadline;

    // The request as sent before the interceptors: URL, exactly these headers, body and method.
    platform::URLRequest request() const;
    // Hands this service to the process-wide executor (ExecutorConfig).
    void perform(TaskCompletion callback) const;
};

// Performs provider services; replaceable process-wide through ExecutorConfig.
class VELMORA_EXPORT ExecutorType {
  public:
    virtual ~ExecutorType() = default;
    virtual void perform(const ProviderService& service, TaskCompletion callback) = 0;
};

// Moves the call off the caller's thread to the global queue and runs it through the shared client.
class VELMORA_EXPORT DefaultRequestExecutor : public ExecutorType {
  public:
    void perform(const ProviderService& service, TaskCompletion callback) override;
};

class VELMORA_EXPORT ExecutorConfig {
  public:
    static std::shared_ptr<ExecutorType> executor();
    // Empty restores the default executor.
    static void setExecutor(std::shared_ptr<ExecutorType> executor);
    static void perform(const ProviderService& service, TaskCompletion callback);
};

}  // namespace velmora
