#include "velmora/network/ProviderService.h"

#include <mutex>

#include "velmora/Errors.h"
#include "velmora/network/NetworkClient.h"
#include "velmora/network/PendingRequests.h"
#include "velmora/platform/HTTPText.h"
#include "velmora/platform/URLSession.h"

namespace velmora {

Error toError(const SDKError&) {
    return Error(std::string(errors::sdkDomain), 1);
}

Result<platform::URL> resourceURL(const std::string& accountUrl, std::string_view path) {
    // Every request forms its URL here: the account URL is parsed once per thread, not once per request.
    thread_local std::optional<platform::URL> base;
    if (!base || base->absoluteString() != accountUrl) {
        base = platform::URL::fromString(accountUrl);
    }
    auto url = base ? base->appending(path) : std::nullopt;
    if (!url) {
        url = platform::URL::fromString(accountUrl + std::string(path));
    }
    if (!url) {
        return Result<platform::URL>::error(platform::URLError::make(
            errors::url::badURL, {},
            "the path " + platform::quotedForMessage(path) + " (" + std::to_string(path.size()) +
                " bytes) does not form a URL with the account URL; nothing was sent"));
    }
    return Result<platform::URL>::success(std::move(*url));
}

ProviderService::ProviderService(std::shared_ptr<const AccountDetails> environment_,
                                 platform::URL urlComponent_, bool requiresAuth_, HttpMethod httpMethod_,
                                 std::map<std::string, std::string> headers_, std::optional<Data> body_,
                                 platform::DispatchQueue dispatchQueue_, Interceptors interceptors_,
                                 Reporter reporter_,
                                 std::shared_ptr<CachedHTTPURLResponseDelegate> cachingDelegate_)
    : urlComponent(std::move(urlComponent_)),
      httpMethod(httpMethod_),
      headers(std::move(headers_)),
      body(std::move(body_)),
      dispatchQueue(std::move(dispatchQueue_)),
      cachingDelegate(std::move(cachingDelegate_)),
      interceptors(std::move(interceptors_)),
      requiresAuth(requiresAuth_),
      reporter(std::move(reporter_)),
      environment(std::move(environment_)) {}

platform::URLRequest ProviderService::request() const {
    platform::URLRequest request(urlComponent);
    for (const auto& [name, value] : headers) {
        request.setValue(value, name);
    }
    request.httpBody = body;
    request.httpMethod = std::string(rawValue(httpMethod));
    request.deadline = deadline;
    return request;
}

void ProviderService::perform(TaskCompletion callback) const {
    if (!deadline) {
        if (const auto inherited = NetworkClient::chainDeadline()) {
            auto sharing = *this;
            sharing.deadline = inherited;
            ExecutorConfig::perform(sharing, std::move(callback));
            return;
        }
    }
    ExecutorConfig::perform(*this, std::move(callback));
}

void DefaultRequestExecutor::perform(const ProviderService& service, TaskCompletion callback) {
    platform::DispatchQueue::global().async([service, callback = std::move(callback)] {
        NetworkClient::defaultClient().execute(service, service.dispatchQueue, callback);
    });
}

namespace {

struct ExecutorSlot {
    std::mutex mutex;
    std::shared_ptr<ExecutorType> executor = std::make_shared<DefaultRequestExecutor>();
};

ExecutorSlot& executorSlot() {
    static auto* slot =
        new ExecutorSlot();  // leaked: requests may still be performed during static destruction
    return *slot;
}

}  // namespace

std::shared_ptr<ExecutorType> ExecutorConfig::executor() {
    auto& slot = executorSlot();
    std::lock_guard lock(slot.mutex);
    return slot.executor;
}

void ExecutorConfig::setExecutor(std::shared_ptr<ExecutorType> executor) {
    auto replacement = executor ? std::move(executor) : std::make_shared<DefaultRequestExecutor>();
    auto& slot = executorSlot();
    std::lock_guard lock(slot.mutex);
    std::swap(slot.executor, replacement);  // the old one goes after the lock: its destructor is the host's
}

void ExecutorConfig::perform(const ProviderService& service, TaskCompletion callback) {
    executor()->perform(service, PendingRequests::track(std::move(callback)));
}

}  // namespace velmora
