// The C interface's help-centre loading.
#include "velmora/capi/Interface.h"
#include "velmora/core/HelpCenterUtil.h"
#include "velmora/core/VMKAuthenticationURLProtocol.h"
#include "velmora/network/PendingRequests.h"
#include "velmora/platform/URLConnection.h"

namespace capi = velmora::capi;

using velmora::HelpCenterUtil;
using velmora::VMKAuthenticationURLProtocol;
using velmora::platform::URLProtocol;
using velmora::platform::URLRequest;

namespace {

URLRequest pageRequest(const char* url, const char* headersJSON) {
    auto parsed = velmora::platform::URL::fromString(capi::text(url, "url"));
    if (!parsed) {
        throw capi::Refusal(VMKErrorCodeInvalidArgument, "url is not an absolute URL with a host");
    }
    URLRequest request(std::move(*parsed));
    if (headersJSON == nullptr) {
        return request;
    }
    const auto headers = capi::jsonText(headersJSON, "headersJSON");
    if (!headers.is_object()) {
        throw capi::Refusal(VMKErrorCodeInvalidArgument, "headersJSON is not a JSON object");
    }
    for (const auto& header : headers.items()) {
        if (!header.value().is_string()) {
            throw capi::Refusal(VMKErrorCodeInvalidArgument,
                                "headersJSON: the value of \"" + header.key() + "\" is not a text");
        }
        request.setValue(header.value().get<std::string>(), header.key());
    }
    return request;
}

}  // namespace

extern "C" {

void VMKHelpCenterUtilRegisterAuthenticationProtocol(void) {
    capi::entry(__func__, nullptr, false, [] {
        URLProtocol::registerClass<VMKAuthenticationURLProtocol>();
        return true;
    });
}

void VMKHelpCenterUtilUnregisterAuthenticationProtocol(void) {
    capi::entry(__func__, nullptr, false, [] {
        URLProtocol::unregisterClass<VMKAuthenticationURLProtocol>();
        return true;
    });
}

char* VMKHelpCenterUtilCopyVelmoraURL(void) {
    return capi::entry<char*>(__func__, nullptr, nullptr, []() -> char* {
        const auto url = HelpCenterUtil::velmoraURL();
        return url ? capi::copyString(*url) : nullptr;
    });
}

bool VMKHelpCenterUtilHasAuth(void) {
    return capi::entry(__func__, nullptr, false, [] { return HelpCenterUtil::hasAuth(); });
}

bool VMKHelpCenterUtilCanAuthenticateRequest(const char* url, const char* headersJSON) {
    return capi::entry(__func__, nullptr, false,
                       [&] { return VMKAuthenticationURLProtocol::canInit(pageRequest(url, headersJSON)); });
}

char* VMKHelpCenterUtilCopyCanonicalRequestHeadersJSON(const char* url, const char* headersJSON,
                                                       VMKError** outError) {
    return capi::entry<char*>(__func__, outError, nullptr, [&] {
        const auto canonical = HelpCenterUtil::canonicalRequest(pageRequest(url, headersJSON));
        auto headers = nlohmann::json::object();
        for (const auto& [name, value] : canonical.allHTTPHeaderFields) {
            headers[name] = value;
        }
        return capi::copyJson(headers);
    });
}

bool VMKHelpCenterUtilLoadURL(const char* url, VMKHelpCenterPageCallback callback, void* context,
                              VMKError** outError) {
    return capi::entry(__func__, outError, false, [&] {
        auto request = pageRequest(url, nullptr);
        // Counted as a request, so that VMKVelmoraWaitForPendingRequests waits for the page and its callback.
        auto completion = velmora::PendingRequests::track(
            [callback, context](const std::optional<velmora::Data>& data,
                                const std::shared_ptr<const velmora::platform::HTTPURLResponse>& response,
                                const std::optional<velmora::Error>& error) {
                if (callback == nullptr) {
                    return;
                }
                capi::deliver([callback, context, body = data.value_or(velmora::Data()), response, error] {
                    capi::Owned<VMKError> handle(error ? new VMKError(*error) : nullptr);
                    callback(response ? response->statusCode() : 0, body.empty() ? nullptr : body.data(),
                             body.size(), handle.get(), context);
                });
            });
        velmora::platform::URLConnection::sendAsynchronousRequest(
            std::move(request), velmora::platform::DispatchQueue::global(),
            [completion = std::move(completion)](
                const std::shared_ptr<const velmora::platform::HTTPURLResponse>& response,
                const velmora::Data& data,
                const std::optional<velmora::Error>& error) { completion(data, response, error); });
        return true;
    });
}

}  // extern "C"
