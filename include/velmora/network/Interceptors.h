#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "velmora/Export.h"
#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Result.h"
#include "velmora/platform/URLRequest.h"

namespace velmora {

// Prepares a request before it leaves, or stops it with an error. Gets the chain's current result: an
// interceptor that receives an error returns it unchanged.
class VELMORA_EXPORT RequestInterceptor {
  public:
    virtual ~RequestInterceptor() = default;
    virtual Result<platform::URLRequest> intercept(Result<platform::URLRequest> request,
                                                   const platform::DispatchGroup& group) = 0;
    // How the chain's log lines name this interceptor.
    virtual std::string description() const = 0;
};

// Sees every chunk of every answer to the requests it is attached to.
class VELMORA_EXPORT HTTPResponseInterceptor {
  public:
    virtual ~HTTPResponseInterceptor() = default;
    virtual void intercept(const std::optional<Data>& data,
                           const std::shared_ptr<const platform::HTTPURLResponse>& response,
                           const std::optional<Error>& error) = 0;
    // The request as it leaves, once the request interceptors are done with it; before any answer.
    virtual void willSend(const platform::URLRequest&) {}
};

struct VELMORA_EXPORT Interceptors {
    std::vector<std::shared_ptr<RequestInterceptor>> requestInterceptors;
    std::vector<std::shared_ptr<HTTPResponseInterceptor>> responseInterceptors;
    platform::DispatchQueue interceptorQueue;
    platform::DispatchGroup interceptorGroup;
};

// A new serial queue for one request's chain: "com.velmora.core.interceptor-queue." and a fresh UUID.
VELMORA_EXPORT platform::DispatchQueue interceptorQueue();

}  // namespace velmora
