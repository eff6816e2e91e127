#include "velmora/network/NetworkClient.h"

#include <cxxabi.h>

#include <algorithm>

#include "velmora/Errors.h"
#include "velmora/platform/Environment.h"
#include "velmora/platform/SystemLog.h"
#include "velmora/support/CoreLogger.h"

namespace velmora {

void URLSessionTaskHandlerManager::append(std::shared_ptr<URLSessionTaskHandler> handler) {
    std::lock_guard lock(mutex_);
    handlers_.push_back(std::move(handler));
}

std::shared_ptr<URLSessionTaskHandler> URLSessionTaskHandlerManager::taskHandler(
    std::uint64_t taskIdentifier) {
    std::lock_guard lock(mutex_);
    const auto it = std::find_if(handlers_.begin(), handlers_.end(), [&](const auto& handler) {
        return handler->taskIdentifier == taskIdentifier;
    });
    return it == handlers_.end() ? nullptr : *it;
}

void URLSessionTaskHandlerManager::completed(std::uint64_t taskIdentifier) {
    std::lock_guard lock(mutex_);
    const auto it = std::find_if(handlers_.begin(), handlers_.end(), [&](const auto& handler) {
        return handler->taskIdentifier == taskIdentifier;
    });
    if (it != handlers_.end()) {
        handlers_.erase(it);
    }
}

std::size_t URLSessionTaskHandlerManager::count() const {
    std::lock_guard lock(mutex_);
    return handlers_.size();
}

void SessionDelegate::setTaskHandlerDelegate(std::shared_ptr<URLSessionTaskHandlerDelegate> delegate) {
    std::lock_guard lock(mutex_);
    taskHandlerDelegate_ = std::move(delegate);
}

std::shared_ptr<URLSessionTaskHandlerDelegate> SessionDelegate::handlers() const {
    std::lock_guard lock(mutex_);
    return taskHandlerDelegate_;
}

void SessionDelegate::didBecomeInvalid(platform::URLSession&, const std::optional<Error>& error) {
    // Rendered as an optional value on purpose; log readers match this shape.
    CoreLogger::error("Session error : " +
                      (error ? "Optional(\"" + error->localizedDescription() + "\")" : std::string("nil")));
}

void SessionDelegate::didSendBodyData(platform::URLSession&, platform::URLSessionDataTask& task, std::int64_t,
                                      std::int64_t totalBytesSent, std::int64_t totalBytesExpectedToSend) {
    const auto delegate = handlers();
    const auto handler = delegate ? delegate->taskHandler(task.taskIdentifier()) : nullptr;
    if (!handler) {
        return;
    }
    if (const auto* progress = std::get_if<std::shared_ptr<platform::Progress>>(&handler->reporter.how);
        progress && *progress) {
        (*progress)->setTotalUnitCount(totalBytesExpectedToSend);
        (*progress)->setCompletedUnitCount(totalBytesSent);
    } else if (const auto* callback = std::get_if<Reporter::Callback>(&handler->reporter.how);
               callback && *callback) {
        (*callback)(totalBytesExpectedToSend, totalBytesSent);
    }
}

void SessionDelegate::didReceiveData(platform::URLSession&, platform::URLSessionDataTask& task,
                                     const Data& data) {
    const auto delegate = handlers();
    const auto handler = delegate ? delegate->taskHandler(task.taskIdentifier()) : nullptr;
    if (!handler) {
        return;
    }
    if (!handler->data) {
        handler->data = Data();
    }
    handler->data->append(data);
    if (const auto response = task.response()) {
        const std::optional<Data> chunk(data);
        const auto error = task.error();
        for (const auto& interceptor : handler->responseInterceptors) {
            interceptor->intercept(chunk, response, error);
        }
    }
}

void SessionDelegate::willCacheResponse(
    platform::URLSession&, platform::URLSessionDataTask& task, const platform::CachedURLResponse& proposed,
    const std::function<void(std::optional<platform::CachedURLResponse>)>& completion) {
    // Only a service that brought a caching delegate, and a delegate with a transformer for this answer,
    // leaves a record: the providers' own requests bring none.
    const auto response = task.response();
    const auto delegate = handlers();
    const auto handler = response && delegate ? delegate->taskHandler(task.taskIdentifier()) : nullptr;
    // A kit's code runs on the session's thread: what it throws must not end the host, and is not cached.
    std::optional<platform::CachedURLResponse> kept;
    try {
        const auto transformer =
            handler && handler->cachingDelegate ? handler->cachingDelegate->transformer(*response) : nullptr;
        kept = transformer ? transformer->transform(proposed) : std::nullopt;
    } catch (const std::exception& thrown) {
        CoreLogger::error(std::string("The caching delegate failed; the answer is not cached: ") +
                          thrown.what());
    } catch (...) {
        CoreLogger::error("The caching delegate failed; the answer is not cached.");
    }
    completion(std::move(kept));
}

void SessionDelegate::didComplete(platform::URLSession&, platform::URLSessionDataTask& task,
                                  const std::optional<Error>& error) {
    const auto delegate = handlers();
    const auto handler = delegate ? delegate->taskHandler(task.taskIdentifier()) : nullptr;
    if (!handler) {
        return;
    }
    handler->queue.async([handler, delegate, response = task.response(), error] {
        delegate->completed(handler->taskIdentifier);  // first: a completion that throws must not keep it
        handler->completionHandler(handler->data, response, error);
    });
}

void NetworkClient::removeCachedResponses() const {
    if (const auto& cache = session_->configuration().urlCache) {
        cache->removeAllCachedResponses();
    }
}

NetworkClient& NetworkClient::defaultClient() {
    static NetworkClient* client = [] {
        platform::URLSessionConfiguration configuration =
            platform::URLSessionConfiguration::defaultConfiguration();
        const auto caches = platform::Environment::current()->cachesDirectory;  // a copy: it may be replaced
        configuration.urlCache = std::make_shared<platform::URLCache>(
            4'194'304, 20'971'520, caches ? std::optional(*caches / "com.velmora.core") : std::nullopt);
        configuration.httpAdditionalHeaders =
            SharedHeaders::sharedHeaders(VersionConstants::VelmoraCoreSDKVersionString, "Core");
        return new NetworkClient(std::move(configuration),
                                 std::make_shared<SessionDelegate>());  // lives for the process
    }();
    return *client;
}

NetworkClient::NetworkClient(platform::URLSessionConfiguration configuration,
                             std::shared_ptr<SessionDelegate> delegate)
    : taskHandlerManager_(std::make_shared<URLSessionTaskHandlerManager>()),
      session_(platform::URLSession::make(std::move(configuration), delegate)) {
    delegate->setTaskHandlerDelegate(taskHandlerManager_);
}

Result<platform::URLRequest> NetworkClient::intercept(const platform::URLRequest& request,
                                                      const Interceptors& interceptors) {
    auto current = Result<platform::URLRequest>::success(request);
    for (const auto& interceptor : interceptors.requestInterceptors) {
        // The descriptions are composed only for a log that takes them: this runs for every request.
        const bool logging = CoreLogger::isLogging(LogLevel::verbose);
        if (current.isError()) {
            if (logging) {
                CoreLogger::verbose("Halting " + interceptor->description() + " with error: error(" +
                                    current.error().description() + ")");
            }
            return current;
        }
        interceptors.interceptorQueue.sync([&] {
            if (logging) {
                CoreLogger::verbose("Calling interceptor " + interceptor->description());
            }
            // A host's interceptor (or the executor an interceptor's own call goes through) that throws halts
            // the chain with an error: the request must still end.
            try {
                current = interceptor->intercept(std::move(current), interceptors.interceptorGroup);
            } catch (abi::__forced_unwind&) {
                throw;  // a cancelled thread must unwind
            } catch (...) {
                current = Result<platform::URLRequest>::error(platform::URLError::make(
                    errors::url::unknown, request.url.absoluteString(),
                    "a request interceptor failed: " + platform::thrownDescription()));
            }
        });
    }
    return current;
}

namespace {

// The deadline of the call whose interceptors run on this thread: requests they make share it, so that a
// host's bound holds for the whole call, not for each of its hops.
thread_local std::optional<std::chrono::steady_clock::time_point> runningChainDeadline;

}  // namespace

std::optional<std::chrono::steady_clock::time_point> NetworkClient::chainDeadline() {
    return runningChainDeadline;
}

void NetworkClient::execute(const ProviderService& service, const platform::DispatchQueue& queue,
                            TaskCompletion completionHandler) {
    const auto deadline = service.deadline.value_or(
        std::chrono::steady_clock::now() +
        std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::duration<double>(platform::Environment::current()->http.requestDeadline)));
    const auto outer = std::exchange(runningChainDeadline, deadline);
    auto intercepted = intercept(service.request(), service.interceptors);
    runningChainDeadline = outer;
    if (intercepted.isError()) {
        completionHandler(std::nullopt, nullptr, intercepted.error());
        return;
    }
    intercepted.value().deadline = deadline;
    for (const auto& interceptor : service.interceptors.responseInterceptors) {
        interceptor->willSend(intercepted.value());
    }
    auto task = session_->dataTask(std::move(intercepted).value());
    taskHandlerManager_->append(std::make_shared<URLSessionTaskHandler>(URLSessionTaskHandler{
        task->taskIdentifier(), queue, std::move(completionHandler), service.reporter,
        service.interceptors.responseInterceptors, service.cachingDelegate, std::nullopt}));
    task->resume();
}

}  // namespace velmora
