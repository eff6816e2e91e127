#pragma once

#include <memory>
#include <optional>
#include <string_view>
#include <typeindex>
#include <typeinfo>

#include <nlohmann/json.hpp>

#include "velmora/Export.h"
#include "velmora/platform/Error.h"
#include "velmora/platform/URLRequest.h"

namespace velmora::platform {

class URLProtocol;

// How a protocol hands its answer back to the loading system: the response first, then the body in any
// number of chunks, then either the end or an error. Safe from any thread; events after the end are dropped.
class VELMORA_EXPORT URLProtocolClient {
  public:
    virtual ~URLProtocolClient() = default;
    virtual void didReceiveResponse(URLProtocol& protocol, std::shared_ptr<const HTTPURLResponse> response,
                                    URLCacheStoragePolicy policy) = 0;
    virtual void didLoadData(URLProtocol& protocol, const Data& data) = 0;
    virtual void didFinishLoading(URLProtocol& protocol) = 0;
    virtual void didFailWithError(URLProtocol& protocol, const Error& error) = 0;
};

// Loads requests of some kind in place of the network, or on its way there. A protocol class registered
// with registerClass<T>() is asked, for every request the loading system (URLConnection) starts, whether it
// can handle it; the first that can gets an instance made for the request's canonical form, whose
// startLoading() reports through client(). stopLoading() comes once, when the load ends or is cancelled.
//
// T has `static bool canInit(const URLRequest&)`, `static URLRequest canonicalRequest(const URLRequest&)`
// and a constructor taking (URLRequest, std::shared_ptr<URLProtocolClient>).
class VELMORA_EXPORT URLProtocol : public std::enable_shared_from_this<URLProtocol> {
  public:
    URLProtocol(URLRequest request, std::shared_ptr<URLProtocolClient> client)
        : request_(std::move(request)), client_(std::move(client)) {}
    virtual ~URLProtocol() = default;
    URLProtocol(const URLProtocol&) = delete;
    URLProtocol& operator=(const URLProtocol&) = delete;

    const URLRequest& request() const { return request_; }
    const std::shared_ptr<URLProtocolClient>& client() const { return client_; }

    virtual void startLoading() = 0;
    virtual void stopLoading() = 0;

    // Per-request properties: how a protocol marks the requests it sends on (so that it does not claim
    // them again) or passes facts along with a request. Never sent.
    static std::optional<nlohmann::json> property(std::string_view key, const URLRequest& request);
    static void setProperty(nlohmann::json value, std::string_view key, URLRequest& request);
    static void removeProperty(std::string_view key, URLRequest& request);

    // What the registry keeps of a protocol class.
    class Class {
      public:
        virtual ~Class() = default;
        virtual std::type_index type() const = 0;
        virtual bool canInit(const URLRequest& request) const = 0;
        virtual URLRequest canonicalRequest(const URLRequest& request) const = 0;
        virtual std::shared_ptr<URLProtocol> make(URLRequest request,
                                                  std::shared_ptr<URLProtocolClient> client) const = 0;
    };

    // Classes registered later are asked first. Registering a class twice keeps one registration; false
    // then.
    template <class T>
    static bool registerClass() {
        return registerClass(std::make_shared<const ClassOf<T>>());
    }
    template <class T>
    static void unregisterClass() {
        unregisterClass(std::type_index(typeid(T)));
    }
    static bool registerClass(std::shared_ptr<const Class> protocolClass);
    static void unregisterClass(std::type_index type);
    // The registered class that will load the request, if any: the latest registered that can.
    static std::shared_ptr<const Class> classFor(const URLRequest& request);

  private:
    template <class T>
    struct ClassOf : Class {
        std::type_index type() const override { return typeid(T); }
        bool canInit(const URLRequest& request) const override { return T::canInit(request); }
        URLRequest canonicalRequest(const URLRequest& request) const override {
            return T::canonicalRequest(request);
        }
        std::shared_ptr<URLProtocol> make(URLRequest request,
                                          std::shared_ptr<URLProtocolClient> client) const override {
            return std::make_shared<T>(std::move(request), std::move(client));
        }
    };

    const URLRequest request_;
    const std::shared_ptr<URLProtocolClient> client_;
};

}  // namespace velmora::platform
