#include "velmora/push/PushRegistrationProvider.h"

#include <nlohmann/json.hpp>

#include "velmora/Errors.h"
#include "velmora/network/AccountInterceptors.h"
#include "velmora/network/LoginInterceptors.h"
#include "velmora/platform/Format.h"
#include "velmora/platform/HTTPText.h"
#include "velmora/platform/Json.h"
#include "velmora/settings/DefaultInterceptors.h"
#include "velmora/support/CoreLogger.h"
#include "velmora/support/DecodingError.h"

namespace velmora {

using nlohmann::json;

Result<PushRegistrationResponse> PushRegistrationResponse::decode(const Data& data) {
    using R = Result<PushRegistrationResponse>;
    const auto parsed = platform::parseJson(data.view());
    if (parsed.is_discarded()) {
        return R::error(DecodingError::dataCorrupted("The given data was not valid JSON."));
    }
    const auto device = parsed.is_object() ? parsed.find("push_notification_device") : parsed.end();
    if (!parsed.is_object() || device == parsed.end() || !device->is_object()) {
        return R::error(DecodingError::keyNotFound("push_notification_device"));
    }
    const auto identifier = device->find("identifier");
    if (identifier == device->end() || !identifier->is_string()) {
        return R::error(DecodingError::keyNotFound("identifier"));
    }
    if (!platform::isPathSegment(identifier->get_ref<const std::string&>())) {
        // Stored, it would be put into the path of the next unregistration, the user's token with it.
        return R::error(DecodingError::dataCorrupted(
            "The identifier " + platform::quotedForMessage(identifier->get_ref<const std::string&>()) +
            " cannot be one segment of a URL path."));
    }
    return R::success({identifier->get<std::string>()});
}

void PushRegistrationProvider::sendPushEvent(const char* action) const {
    blipsProvider_.send(coreSdkEvent(action), BlipsGroup::required);
}

void PushRegistrationProvider::registerForPush(const std::string& deviceIdentifier, const std::string& locale,
                                               Callback callback) const {
    registerIdentifier(deviceIdentifier, locale, false, std::move(callback));
}

void PushRegistrationProvider::registerForPushWithUAChannelId(const std::string& channelId,
                                                              const std::string& locale,
                                                              Callback callback) const {
    registerIdentifier(channelId, locale, true, std::move(callback));
}

void PushRegistrationProvider::registerIdentifier(const std::string& identifier, const std::string& locale,
                                                  bool channel, Callback callback) const {
    // The identifier becomes a segment of the unregistration's path: one that would change the path is
    // refused before it is sent or stored.
    if (!platform::isPathSegment(identifier)) {
        callback(Result<PushRegistrationResponse>::error(
            platform::pathSegmentError("the push identifier", identifier)));
        return;
    }
    const auto stored = tokenManagement_->pushToken();
    if (!stored) {
        CoreLogger::verbose("No cached identifier, proceeding to register device.");
    } else if (*stored != identifier) {
        CoreLogger::verbose(
            "The provided identifier is different from the cached identifier, proceeding to register "
            "device.");
    } else {
        CoreLogger::debug("Skipping registration because device is already registered with this identifier.");
        sendPushEvent("PushOn");
        callback(Result<PushRegistrationResponse>::success({identifier}));
        return;
    }

    // In the order the account documents them: some servers log or sign the body as it is.
    nlohmann::ordered_json body = nlohmann::ordered_json::object();
    body["identifier"] = identifier;
    body["device_type"] = "iphone";
    body["locale"] = locale;
    if (channel) {
        body["token_type"] = "urban_airship_channel_id";
    }
    if (const auto guid = userDetails_->guid()) {
        body["sdk_guid"] = *guid;
    }
    std::string encoded;
    try {
        encoded = nlohmann::ordered_json{{"push_notification_device", body}}.dump();
    } catch (const json::exception&) {
        // The caller is not told: no request could have been made of this.
        CoreLogger::error("Could not serialize Push registration request into JSON");
        return;
    }
    auto url = resourceURL(accountDetails_->accountUrl(), "/api/mobile/push_notification_devices.json");
    if (url.isError()) {
        callback(Result<PushRegistrationResponse>::error(url.error()));
        return;
    }
    makeProviderService(accountDetails_, std::move(url).value(), true, HttpMethod::post, {},
                        Data::fromString(encoded), platform::DispatchQueue::main())
        .perform([self = *this, callback = std::move(callback)](
                     const std::optional<Data>& data,
                     const std::shared_ptr<const platform::HTTPURLResponse>& response,
                     const std::optional<Error>& error) {
            using R = Result<PushRegistrationResponse>;
            if (response && (response->statusCode() < 200 || response->statusCode() > 299)) {
                callback(R::error(Error(std::string(errors::coreDomain), errors::pushRegistrationFailed,
                                        {{std::string(Error::localizedDescriptionKey),
                                          platform::HTTPURLResponse::localizedString(response->statusCode())},
                                         {std::string(errors::httpStatusCodeKey), response->statusCode()}})));
                return;
            }
            if (error) {
                callback(R::error(*error));
                return;
            }
            if (!data) {
                callback(R::error(Error(std::string(errors::coreDomain), errors::pushRegistrationFailed)));
                return;
            }
            auto decoded = PushRegistrationResponse::decode(*data);
            if (decoded.isSuccess()) {
                self.tokenManagement_->updatePushToken(decoded.value().identifier);
                self.sendPushEvent("PushOn");
            }
            callback(std::move(decoded));
        });
}

void PushRegistrationProvider::unregisterForPush() const {
    const auto stored = tokenManagement_->pushToken();
    if (!stored) {
        CoreLogger::debug("unregisterForPush() was called with no stored push identifier, cannot unregister");
        return;
    }
    unregisterForPush(*stored);
}

ProviderService PushRegistrationProvider::unregistrationService(platform::URL url) const {
    // Unregistrations are made just before the session is cleared (another user, another account), and
    // the clearing would win the race against the chain reading the token. So the user's token is read now;
    // a 401 for it must not clear the stores, which by then belong to the next session.
    const auto token = IdentityStore(accountDetails_->applicationId()).oauthToken();
    if (!token) {
        return makeProviderService(accountDetails_, std::move(url), true, HttpMethod::delete_, {},
                                   std::nullopt, platform::DispatchQueue::main());
    }
    Interceptors interceptors{{std::make_shared<BearerTokenInterceptor>(*token),
                               std::make_shared<ClientIdentifierInterceptor>(accountDetails_)},
                              {},
                              interceptorQueue(),
                              platform::DispatchGroup()};
    return ProviderService(accountDetails_, std::move(url), true, HttpMethod::delete_, {}, std::nullopt,
                           platform::DispatchQueue::main(), std::move(interceptors));
}

void PushRegistrationProvider::unregisterForPush(const std::string& deviceIdentifier) const {
    auto url = platform::isPathSegment(deviceIdentifier)
                   ? resourceURL(accountDetails_->accountUrl(),
                                 "/api/mobile/push_notification_devices/" + deviceIdentifier + ".json")
                   : Result<platform::URL>::error(
                         platform::pathSegmentError("the push identifier", deviceIdentifier));
    if (url.isError()) {
        CoreLogger::debug(platform::format("Push unregistration failed with %@", url.error().description()));
        return;
    }
    // Encoded now, with the time of the request; sent only once the server has let the device go.
    const auto pushOff = blipsProvider_.convert(coreSdkEvent("PushOff")).data();
    unregistrationService(std::move(url).value())
        .perform([self = *this, pushOff, deviceIdentifier](
                     const std::optional<Data>& data, const std::shared_ptr<const platform::HTTPURLResponse>&,
                     const std::optional<Error>& error) {
            if (error) {
                CoreLogger::debug(
                    platform::format("Push unregistration failed with %@", error->description()));
                return;
            }
            if (!data) {
                return;
            }
            if (pushOff.isSuccess()) {
                self.blipsProvider_.sendEncoded(pushOff.value(), BlipsGroup::required);
            }
            // A registration made meanwhile (a new user's device) is not undone.
            if (self.tokenManagement_->pushToken() == deviceIdentifier) {
                self.tokenManagement_->updatePushToken(std::nullopt);
            }
            CoreLogger::debug("Push unregistration successful");
        });
}

}  // namespace velmora
