#include "velmora/blips/BlipsProvider.h"

#include "velmora/network/AccountInterceptors.h"
#include "velmora/network/ProviderService.h"
#include "velmora/platform/Base64.h"
#include "velmora/platform/Format.h"
#include "velmora/platform/Json.h"
#include "velmora/settings/SettingsRequestInterceptor.h"
#include "velmora/support/CoreLogger.h"

namespace velmora {

Result<platform::URL> BlipsProvider::blipURL(const Data& data, const AccountDetails& accountDetails) {
    return resourceURL(accountDetails.accountUrl(), "/embeddable_blip?data=" + platform::base64Encode(data));
}

BlipRequest BlipsProvider::convert(const UserAction& blip) const {
    return BlipRequest::makeUserAction(accountDetails_->applicationId(), userDetails_->uuid(), blip.version,
                                       blip.channel, "1", Date::now(), userDetails_->userId(), blip.category,
                                       blip.action, blip.label, blip.value);
}

BlipRequest BlipsProvider::convert(const PageView& blip) const {
    return BlipRequest::makePageView(accountDetails_->applicationId(), userDetails_->uuid(), blip.version,
                                     blip.channel, "1", Date::now(), userDetails_->userId(), blip.pageTitle,
                                     blip.navigatorLanguage, blip.url, blip.value);
}

namespace {

// A payload nested deeper than JSON may be anywhere in the library is refused before it is copied.
bool acceptable(const BlipPayload& value) {
    if (value && !platform::isWithinJsonDepth(*value)) {
        CoreLogger::error("Faild to send blip: its value nests deeper than " +
                          std::to_string(platform::maximumJsonDepth) + " levels");
        return false;
    }
    return true;
}

}  // namespace

void BlipsProvider::send(const UserAction& blip, BlipsGroup group) const {
    if (acceptable(blip.value)) {
        sendIfPermitted(convert(blip), group);
    }
}

void BlipsProvider::send(const PageView& blip, BlipsGroup group) const {
    if (acceptable(blip.value)) {
        sendIfPermitted(convert(blip), group);
    }
}

void BlipsProvider::sendIfPermitted(const BlipRequest& request, BlipsGroup group) const {
    const auto data = request.data();
    if (data.isError()) {
        CoreLogger::error("Faild to send blip " + data.error().localizedDescription());
        return;
    }
    sendEncoded(data.value(), group);
}

void BlipsProvider::sendEncoded(const Data& data, BlipsGroup group) const {
    settingsProvider_->getCachedSettings<BlipsSettings>([this, &data, group](BlipsSettings settings) {
        const auto& permissions = settings.permissions;
        const bool permitted = group == BlipsGroup::required      ? permissions.required
                               : group == BlipsGroup::behavioural ? permissions.behavioural
                                                                  : permissions.trailmark;
        if (permitted) {
            sendBlipEvent(data, group);
        }
    });
}

void BlipsProvider::sendBlipEvent(const Data& data, BlipsGroup) const {
    const auto& appId = accountDetails_->applicationId();
    Interceptors interceptors{
        {std::make_shared<SettingsRequestInterceptor>(SettingsStore(appId), settingsProvider_,
                                                      IntervalValidator{3600, Date::now()}),
         std::make_shared<ClientIdentifierInterceptor>(accountDetails_)},
        {std::make_shared<InvalidResponseInterceptor>(appId)},
        interceptorQueue(),
        platform::DispatchGroup()};
    auto url = blipURL(data, *accountDetails_);
    if (url.isError()) {
        CoreLogger::debug(platform::format("Unable to blip %@", url.error().description()));
        return;
    }
    ProviderService(accountDetails_, std::move(url).value(), false, HttpMethod::get, acceptLanguageHeader(),
                    std::nullopt, platform::DispatchQueue::main(), std::move(interceptors))
        .perform([](const std::optional<Data>&, const std::shared_ptr<const platform::HTTPURLResponse>&,
                    const std::optional<Error>& error) {
            if (error) {
                CoreLogger::debug(platform::format("Unable to blip %@", error->description()));
            } else {
                CoreLogger::debug("Blip was blipped successfully");
            }
        });
}

}  // namespace velmora
