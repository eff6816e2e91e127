#include "velmora/platform/URLConnection.h"

#include <cxxabi.h>

#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "velmora/platform/Environment.h"
#include "velmora/platform/SystemLog.h"
#include "velmora/platform/URLProtocol.h"
#include "velmora/platform/URLSession.h"

namespace velmora::platform {

// The ways into a connection's private state: from its protocol's client and from the shared session.
struct URLConnection::Events {
    static void respond(URLConnection& connection, std::shared_ptr<const HTTPURLResponse> response) {
        connection.post(
            [response = std::move(response)](URLConnection& self, URLConnectionDelegate& delegate) {
                self.responded_ = true;
                delegate.didReceiveResponse(self, response);
            });
    }
    static void receive(URLConnection& connection, Data data) {
        connection.post([data = std::move(data)](URLConnection& self, URLConnectionDelegate& delegate) {
            delegate.didReceiveData(self, data);
        });
    }
    static void finish(URLConnection& connection) {
        connection.post(
            [](URLConnection& self, URLConnectionDelegate& delegate) { delegate.didFinishLoading(self); },
            true);
    }
    static void fail(URLConnection& connection, Error error) {
        connection.post(
            [error = std::move(error)](URLConnection& self, URLConnectionDelegate& delegate) {
                delegate.didFailWithError(self, error);
            },
            true);
    }
    // The session tells of the response only with the first chunk or the end: announce it before either.
    static void afterResponse(URLConnection& connection, std::shared_ptr<const HTTPURLResponse> response,
                              std::function<void(URLConnection&, URLConnectionDelegate&)> then, bool last) {
        connection.post(
            [response = std::move(response), then = std::move(then)](URLConnection& self,
                                                                     URLConnectionDelegate& delegate) {
                if (!self.responded_ && response) {
                    self.responded_ = true;
                    delegate.didReceiveResponse(self, response);
                    if (self.cancelled_) {
                        return;
                    }
                }
                then(self, delegate);
            },
            last);
    }
};

namespace {

class ProtocolClient : public URLProtocolClient {
  public:
    explicit ProtocolClient(std::weak_ptr<URLConnection> connection) : connection_(std::move(connection)) {}

    // The loading system keeps no response cache, so the storage policy asks nothing of it.
    void didReceiveResponse(URLProtocol&, std::shared_ptr<const HTTPURLResponse> response,
                            URLCacheStoragePolicy) override {
        if (const auto connection = connection_.lock()) {
            URLConnection::Events::respond(*connection, std::move(response));
        }
    }
    void didLoadData(URLProtocol&, const Data& data) override {
        if (const auto connection = connection_.lock()) {
            URLConnection::Events::receive(*connection, data);
        }
    }
    void didFinishLoading(URLProtocol&) override {
        if (const auto connection = connection_.lock()) {
            URLConnection::Events::finish(*connection);
        }
    }
    void didFailWithError(URLProtocol&, const Error& error) override {
        if (const auto connection = connection_.lock()) {
            URLConnection::Events::fail(*connection, error);
        }
    }

  private:
    std::weak_ptr<URLConnection> connection_;
};

// The shared session's delegate: hands each task's events to the connection that started it.
class LoadingDelegate : public URLSessionDelegate {
  public:
    void track(std::uint64_t task, std::weak_ptr<URLConnection> connection) {
        std::lock_guard lock(mutex_);
        connections_[task] = std::move(connection);
    }

    void didBecomeInvalid(URLSession&, const std::optional<Error>&) override {}
    void didSendBodyData(URLSession&, URLSessionDataTask&, std::int64_t, std::int64_t,
                         std::int64_t) override {}
    void didReceiveData(URLSession&, URLSessionDataTask& task, const Data& data) override {
        if (const auto connection = find(task.taskIdentifier(), false)) {
            URLConnection::Events::afterResponse(
                *connection, task.response(),
                [data](URLConnection& self, URLConnectionDelegate& delegate) {
                    if (!data.empty()) {
                        delegate.didReceiveData(self, data);
                    }
                },
                false);
        }
    }
    void willCacheResponse(URLSession&, URLSessionDataTask&, const CachedURLResponse&,
                           const std::function<void(std::optional<CachedURLResponse>)>& completion) override {
        completion(std::nullopt);
    }
    void didComplete(URLSession&, URLSessionDataTask& task, const std::optional<Error>& error) override {
        const auto connection = find(task.taskIdentifier(), true);
        if (!connection) {
            return;
        }
        URLConnection::Events::afterResponse(
            *connection, task.response(),
            [error](URLConnection& self, URLConnectionDelegate& delegate) {
                error ? delegate.didFailWithError(self, *error) : delegate.didFinishLoading(self);
            },
            true);
    }

  private:
    std::shared_ptr<URLConnection> find(std::uint64_t task, bool forget) {
        std::lock_guard lock(mutex_);
        const auto it = connections_.find(task);
        if (it == connections_.end()) {
            return nullptr;
        }
        auto connection = it->second.lock();
        if (forget) {
            connections_.erase(it);
        }
        return connection;
    }

    std::mutex mutex_;
    std::map<std::uint64_t, std::weak_ptr<URLConnection>> connections_;
};

struct LoadingSession {
    std::shared_ptr<LoadingDelegate> delegate = std::make_shared<LoadingDelegate>();
    std::shared_ptr<URLSession> session =
        URLSession::make(URLSessionConfiguration::defaultConfiguration(), delegate);
};

LoadingSession& loadingSession() {
    static auto* shared = new LoadingSession();  // leaked: its thread may still report while statics go
    return *shared;
}

// Gathers a whole answer for sendAsynchronousRequest.
class Gatherer : public URLConnectionDelegate {
  public:
    Gatherer(DispatchQueue queue, URLConnection::Completion completion)
        : queue_(std::move(queue)), completion_(std::move(completion)) {}

    void didReceiveResponse(URLConnection&, const std::shared_ptr<const HTTPURLResponse>& response) override {
        response_ = response;
    }
    void didReceiveData(URLConnection& connection, const Data& data) override {
        const auto limit = Environment::current()->http.maximumResponseBytes;
        if (data_.size() + data.size() > limit) {
            connection.cancel();
            deliver(URLError::make(errors::url::dataLengthExceedsMaximum,
                                   connection.originalRequest().url.absoluteString(),
                                   "the answer was larger than " + std::to_string(limit) + " bytes"));
            return;
        }
        data_.append(data);
    }
    void didFinishLoading(URLConnection&) override { deliver(std::nullopt); }
    void didFailWithError(URLConnection&, const Error& error) override { deliver(error); }

  private:
    void deliver(std::optional<Error> error) {
        queue_.async([completion = std::move(completion_), response = std::move(response_),
                      data = std::move(data_),
                      error = std::move(error)] { completion(response, data, error); });
    }

    DispatchQueue queue_;
    URLConnection::Completion completion_;
    std::shared_ptr<const HTTPURLResponse> response_;
    Data data_;
};

}  // namespace

URLConnection::URLConnection(URLRequest request, std::shared_ptr<URLConnectionDelegate> delegate)
    : request_(std::move(request)),
      queue_("com.velmora.platform.url-connection"),
      delegate_(std::move(delegate)) {}

URLConnection::~URLConnection() = default;

std::shared_ptr<URLConnection> URLConnection::start(URLRequest request,
                                                    std::shared_ptr<URLConnectionDelegate> delegate) {
    auto connection = std::make_shared<URLConnection>(std::move(request), std::move(delegate));
    connection->queue_.async([connection] { connection->begin(); });
    return connection;
}

void URLConnection::sendAsynchronousRequest(URLRequest request, DispatchQueue queue, Completion completion) {
    start(std::move(request), std::make_shared<Gatherer>(std::move(queue), std::move(completion)));
}

void URLConnection::begin() {
    if (cancelled_ || ended_) {
        return;
    }
    self_ = shared_from_this();
    // A host's protocol that throws ends its load with an error: left alone, the load would never end.
    try {
        if (const auto protocolClass = URLProtocol::classFor(request_)) {
            protocol_ = protocolClass->make(protocolClass->canonicalRequest(request_),
                                            std::make_shared<ProtocolClient>(weak_from_this()));
            protocol_->startLoading();
            return;
        }
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (...) {
        Events::fail(*this, URLError::make(errors::url::unknown, request_.url.absoluteString(),
                                           "a URL protocol failed: " + thrownDescription()));
        return;
    }
    auto& loading = loadingSession();
    task_ = loading.session->dataTask(request_);
    loading.delegate->track(task_->taskIdentifier(), weak_from_this());
    task_->resume();
}

void URLConnection::end(bool cancelling) {
    ended_ = true;
    // Everything is let go first: a host's protocol that throws on stopping must not keep the connection
    // (and its delegate) alive for good. The block running this holds the connection still.
    const auto protocol = std::exchange(protocol_, nullptr);
    const auto task = std::exchange(task_, nullptr);
    delegate_.reset();
    self_.reset();
    if (task && cancelling) {
        task->cancel();
    }
    if (protocol) {
        try {
            protocol->stopLoading();
        } catch (abi::__forced_unwind&) {
            throw;
        } catch (...) {
            systemLogLine(LogLevel::error, "URLConnection: a URL protocol failed to stop");
        }
    }
}

void URLConnection::post(std::function<void(URLConnection&, URLConnectionDelegate&)> event, bool last) {
    queue_.async([self = shared_from_this(), event = std::move(event), last] {
        if (self->ended_ || self->cancelled_ || !self->delegate_) {
            return;
        }
        const auto delegate = self->delegate_;
        try {
            event(*self, *delegate);
        } catch (...) {
            // The host's delegate threw (the queue logs it): the load ends here all the same, its protocol
            // stopped, rather than keep itself alive for good.
            if (!self->ended_) {
                self->end(true);
            }
            throw;
        }
        if (last && !self->ended_) {
            self->end(false);
        }
    });
}

void URLConnection::cancel() {
    cancelled_ = true;
    const auto stop = [](URLConnection& connection) {
        if (!connection.ended_) {
            connection.end(true);
        }
    };
    if (queue_.isCurrent()) {
        stop(*this);
    } else {
        queue_.async([self = shared_from_this(), stop] { stop(*self); });
    }
}

}  // namespace velmora::platform
