#include "velmora/platform/URLRequest.h"

#include <algorithm>
#include <cctype>

#include "velmora/platform/HTTPText.h"

namespace velmora::platform {
namespace {

char lower(char c) {
    return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

}  // namespace

bool CaseInsensitiveLess::operator()(std::string_view a, std::string_view b) const {
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                        [](char x, char y) { return lower(x) < lower(y); });
}

std::optional<std::string> URLRequest::value(std::string_view field) const {
    const auto it = allHTTPHeaderFields.find(field);
    return it == allHTTPHeaderFields.end() ? std::nullopt : std::optional(it->second);
}

HTTPURLResponse::HTTPURLResponse(URL responseUrl, int status, HTTPHeaderFields headers)
    : url_(std::move(responseUrl)), statusCode_(status), headers_(std::move(headers)) {
    const auto type = value("Content-Type");
    if (!type) {
        return;
    }
    const std::string media = lowercased(trimmedField(std::string_view(*type).substr(0, type->find(';'))));
    if (!media.empty()) {
        mimeType_ = media;
    }
    std::string rest = type->find(';') == std::string::npos ? std::string() : type->substr(type->find(';'));
    const std::string folded = lowercased(rest);
    if (const auto at = folded.find("charset="); at != std::string::npos) {
        std::string charset(trimmedField(std::string_view(rest).substr(at + 8, rest.find(';', at) - at - 8)));
        charset.erase(std::remove(charset.begin(), charset.end(), '"'), charset.end());
        if (!charset.empty()) {
            textEncodingName_ = charset;
        }
    }
}

std::optional<std::string> HTTPURLResponse::value(std::string_view field) const {
    const auto it = headers_.find(field);
    return it == headers_.end() ? std::nullopt : std::optional(it->second);
}

std::string HTTPURLResponse::localizedString(int statusCode) {
    switch (statusCode) {
        case 100:
            return "continue";
        case 101:
            return "switching protocols";
        case 200:
            return "no error";
        case 201:
            return "created";
        case 202:
            return "accepted";
        case 203:
            return "non-authoritative information";
        case 204:
            return "no content";
        case 205:
            return "reset content";
        case 206:
            return "partial content";
        case 300:
            return "multiple choices";
        case 301:
            return "moved permanently";
        case 302:
            return "found";
        case 303:
            return "see other";
        case 304:
            return "not modified";
        case 305:
            return "needs proxy";
        case 307:
            return "temporarily redirected";
        case 400:
            return "bad request";
        case 401:
            return "unauthorized";
        case 402:
            return "payment required";
        case 403:
            return "forbidden";
        case 404:
            return "not found";
        case 405:
            return "method not allowed";
        case 406:
            return "no acceptable response";
        case 407:
            return "proxy authentication required";
        case 408:
            return "request timed out";
        case 409:
            return "conflict";
        case 410:
            return "no longer exists";
        case 411:
            return "length required";
        case 412:
            return "precondition failed";
        case 413:
            return "request too large";
        case 414:
            return "requested URL too long";
        case 415:
            return "unsupported media type";
        case 416:
            return "requested range not satisfiable";
        case 417:
            return "expectation failed";
        case 500:
            return "internal server error";
        case 501:
            return "unimplemented";
        case 502:
            return "bad gateway";
        case 503:
            return "service unavailable";
        case 504:
            return "gateway timed out";
        case 505:
            return "unsupported version";
        default:
            break;
    }
    if (statusCode >= 100 && statusCode < 200)
        return "informational";
    if (statusCode >= 200 && statusCode < 300)
        return "success";
    if (statusCode >= 300 && statusCode < 400)
        return "redirected";
    if (statusCode >= 400 && statusCode < 500)
        return "client error";
    return "server error";
}

}  // namespace velmora::platform
