#include "velmora/network/AccessProvider.h"

#include <limits>

#include "velmora/Errors.h"
#include "velmora/network/AccountInterceptors.h"
#include "velmora/network/NetworkClient.h"
#include "velmora/platform/Format.h"
#include "velmora/platform/HTTPText.h"
#include "velmora/platform/Json.h"
#include "velmora/support/CoreLogger.h"
#include "velmora/support/DecodingError.h"
#include "velmora/support/LibraryError.h"

namespace velmora {

using nlohmann::json;

Error toError(Authentication::AuthenticationError error) {
    return libraryError(errors::authenticationDomain, error, std::nullopt);
}

std::optional<std::int64_t> parseDecimalInt64(std::string_view text) {
    bool negative = false;
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    // The smallest value's magnitude is one more than the largest one's; a ceiling above both marks overflow.
    constexpr auto largest = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    const auto magnitude = platform::decimalDigits(text, largest + 2);
    if (!magnitude || *magnitude > largest + (negative ? 1 : 0)) {
        return std::nullopt;
    }
    // Unsigned negation wraps, and the conversion back is modular: 2^63 becomes the smallest value.
    return static_cast<std::int64_t>(negative ? 0 - *magnitude : *magnitude);
}

Result<Authentication> Authentication::fromJson(const json& object) {
    using R = Result<Authentication>;
    if (!object.is_object()) {
        return R::error(DecodingError::typeMismatch("Expected to decode Authentication from an object."));
    }
    const auto token = object.find("access_token");
    const auto userId = object.find("user_id");
    if (token == object.end()) {
        return R::error(DecodingError::keyNotFound("access_token"));
    }
    if (userId == object.end()) {
        return R::error(DecodingError::keyNotFound("user_id"));
    }
    if (!token->is_string()) {
        return R::error(DecodingError::typeMismatch("Expected to decode String for \"access_token\"."));
    }
    if (!userId->is_string()) {
        return R::error(DecodingError::typeMismatch("Expected to decode String for \"user_id\"."));
    }
    const auto id = parseDecimalInt64(userId->get_ref<const std::string&>());
    if (!id) {
        return R::error(toError(AuthenticationError::malformedUserId));
    }
    return R::success(Authentication{token->get<std::string>(), *id});
}

json Authentication::toJson() const {
    return json{{"access_token", access_token}, {"user_id", std::to_string(user_id)}};
}

Result<Access> Access::decode(const Data& data) {
    const auto parsed = platform::parseJson(data.view());
    if (parsed.is_discarded()) {
        return Result<Access>::error(DecodingError::dataCorrupted("The given data was not valid JSON."));
    }
    if (!parsed.is_object()) {
        return Result<Access>::error(
            DecodingError::typeMismatch("Expected to decode Access from an object."));
    }
    const auto authentication = parsed.find("authentication");
    if (authentication == parsed.end()) {
        return Result<Access>::error(DecodingError::keyNotFound("authentication"));
    }
    return Authentication::fromJson(*authentication).map([](Authentication a) {
        return Access{std::move(a)};
    });
}

json Access::toJson() const {
    return json{{"authentication", authentication.toJson()}};
}

Result<platform::URL> accessURL(const Identity& identity, const AccountDetails& details) {
    return resourceURL(details.accountUrl(),
                       identity.anonymous() != nullptr ? "/access/sdk/anonymous" : "/access/sdk/jwt");
}

std::optional<Data> accessBody(const Identity& identity, const GUIDProvider& guidProvider) {
    json body;
    if (const auto* anonymous = identity.anonymous()) {
        body =
            IdentityContainer<AnonymousDecorator>{{guidProvider.guid(), anonymous->name, anonymous->email}};
    } else {
        body = IdentityContainer<Jwt>{*identity.jwt()};
    }
    try {
        return Data::fromString(body.dump());
    } catch (const json::exception&) {
        return std::nullopt;  // text that is not UTF-8
    }
}

AccessProvider::AccessProvider(std::shared_ptr<const AccountDetails> environment)
    : environment_(std::move(environment)),
      identityStore_(environment_->applicationId()),
      settingsStore_(environment_->applicationId()) {}

void AccessProvider::getAccess(std::function<void(Result<Access>)> callback) {
    const auto identity = identityStore_.identity();
    if (!identity) {
        CoreLogger::error("Login error : No identity, aborting access call");
        callback(Result<Access>::error(Error(std::string(errors::accessDomain), errors::noIdentity)));
        return;
    }
    // Its own one-interceptor chain: the login interceptor must not call itself, and a 401 from the access
    // endpoint clears nothing.
    auto url = accessURL(*identity, *environment_);
    if (url.isError()) {
        callback(Result<Access>::error(url.error()));
        return;
    }
    const ProviderService service(environment_, std::move(url).value(), false, HttpMethod::post, {},
                                  accessBody(*identity, identityStore_), platform::DispatchQueue::main(),
                                  Interceptors{{std::make_shared<ClientIdentifierInterceptor>(environment_)},
                                               {},
                                               interceptorQueue(),
                                               platform::DispatchGroup()});
    service.perform([callback = std::move(callback)](
                        const std::optional<Data>& data,
                        const std::shared_ptr<const platform::HTTPURLResponse>& response,
                        const std::optional<Error>& error) {
        if (response && response->statusCode() >= 200 && response->statusCode() <= 299 && data) {
            auto access = Access::decode(*data);
            if (access.isSuccess() && !platform::isHeaderValue(access.value().authentication.access_token)) {
                // Sent as it is, such a token would add headers, or whole requests, of the server's choice
                // to every later request. Nothing of it goes into the error.
                callback(Result<Access>::error(
                    Error(std::string(errors::coreDomain), errors::accessFailed,
                          {{std::string(errors::httpStatusCodeKey), response->statusCode()},
                           {std::string(Error::localizedDescriptionKey),
                            "The access token in the account's answer cannot be sent in a header."}})));
                return;
            }
            callback(std::move(access));
            return;
        }
        if (error) {
            callback(Result<Access>::error(*error));
            return;
        }
        json info = json::object();
        info[std::string(errors::httpStatusCodeKey)] = response ? response->statusCode() : 0;
        info[std::string(Error::localizedDescriptionKey)] =
            response ? platform::HTTPURLResponse::localizedString(response->statusCode())
                     : "Default error description";
        if (data) {
            const auto body = platform::parseJson(data->view());
            if (body.is_object()) {
                for (const auto& [key, value] : body.items()) {
                    info[key] = value;
                }
            }
        }
        callback(Result<Access>::error(
            Error(std::string(errors::coreDomain), errors::accessFailed, std::move(info))));
    });
}

}  // namespace velmora
