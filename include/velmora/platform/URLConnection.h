#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>

#include "velmora/Export.h"
#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Error.h"
#include "velmora/platform/URLRequest.h"

namespace velmora::platform {

class URLConnection;
class URLProtocol;
class URLSessionDataTask;

// What one load reports, in this order: the response, the body in chunks, then the end or an error (a
// failure may come at any point). All on the connection's own serial queue; nothing after cancel().
class VELMORA_EXPORT URLConnectionDelegate {
  public:
    virtual ~URLConnectionDelegate() = default;
    virtual void didReceiveResponse(URLConnection& connection,
                                    const std::shared_ptr<const HTTPURLResponse>& response) = 0;
    virtual void didReceiveData(URLConnection& connection, const Data& data) = 0;
    virtual void didFinishLoading(URLConnection& connection) = 0;
    virtual void didFailWithError(URLConnection& connection, const Error& error) = 0;
};

// The URL loading system a host loads pages through, as its web view would: the latest registered URL
// protocol class that can handle the request (URLProtocol::registerClass) loads it; any other request goes
// to the network through a shared session of the platform (no cookies, no response cache, none of the
// library's own headers, the environment's HTTP options). The connection and its delegate live until the
// load ends.
class VELMORA_EXPORT URLConnection : public std::enable_shared_from_this<URLConnection> {
  public:
    static std::shared_ptr<URLConnection> start(URLRequest request,
                                                std::shared_ptr<URLConnectionDelegate> delegate);

    // The whole answer at once, on `queue`: the response and body of any HTTP answer, or the error of a
    // load that failed (with what had arrived). A body larger than the environment's
    // http.maximumResponseBytes fails with errors::url::dataLengthExceedsMaximum.
    using Completion = std::function<void(const std::shared_ptr<const HTTPURLResponse>& response,
                                          const Data& data, const std::optional<Error>& error)>;
    static void sendAsynchronousRequest(URLRequest request, DispatchQueue queue, Completion completion);

    const URLRequest& originalRequest() const { return request_; }
    // Ends the load at once: the protocol is stopped or the transfer cancelled, and the delegate hears
    // nothing more.
    void cancel();

    URLConnection(URLRequest request, std::shared_ptr<URLConnectionDelegate> delegate);
    ~URLConnection();
    URLConnection(const URLConnection&) = delete;
    URLConnection& operator=(const URLConnection&) = delete;

    struct Events;

  private:
    void begin();
    void end(bool cancelling);
    // Runs an event on the connection's queue unless the load has ended or is being cancelled; `last`
    // ends the load after it.
    void post(std::function<void(URLConnection&, URLConnectionDelegate&)> event, bool last = false);

    const URLRequest request_;
    const DispatchQueue queue_;
    std::atomic<bool> cancelled_{false};
    // Changed only on `queue_`.
    std::shared_ptr<URLConnectionDelegate> delegate_;
    std::shared_ptr<URLProtocol> protocol_;
    std::shared_ptr<URLSessionDataTask> task_;
    std::shared_ptr<URLConnection> self_;  // keeps a running load alive
    bool responded_ = false;
    bool ended_ = false;
};

}  // namespace velmora::platform
