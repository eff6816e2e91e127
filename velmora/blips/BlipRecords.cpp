#include "velmora/blips/BlipRecords.h"

#include "velmora/Errors.h"
#include "velmora/support/DateStringParser.h"

namespace velmora {

UserAction coreSdkEvent(std::string action) {
    return UserAction{"2.0.0", std::move(action), "core_sdk", "CoreSDK", std::nullopt, std::nullopt};
}

using nlohmann::ordered_json;

namespace {

// Objects are built member by member: an initializer list copies every member twice more, for every event.
ordered_json valueJson(const BlipValue& value) {
    ordered_json json(ordered_json::value_t::object);
    json.emplace("device", value.device.toJson());
    if (value.payload) {
        json.emplace("payload", *value.payload);
    }
    return json;
}

}  // namespace

std::optional<BlipsGroup> blipsGroupFromRawValue(int rawValue) {
    if (rawValue < 0 || rawValue > 2) {
        return std::nullopt;
    }
    return static_cast<BlipsGroup>(rawValue);
}

BlipRequest BlipRequest::makeUserAction(std::string appId, std::string uuid, std::string version,
                                        std::string channel, std::string schemaVersion, Date timestamp,
                                        std::optional<std::int64_t> userId, std::string category,
                                        std::string action, std::optional<std::string> label,
                                        BlipPayload value) {
    UserActionRequest request{std::move(category), std::move(action), std::move(label),
                              BlipValue{DeviceInfo::current(), std::move(value)}};
    return BlipRequest{
        std::move(appId), std::move(uuid), std::move(version), std::move(channel), std::move(schemaVersion),
        timestamp,        userId,          std::nullopt,       std::move(request), std::nullopt};
}

BlipRequest BlipRequest::makePageView(std::string appId, std::string uuid, std::string version,
                                      std::string channel, std::string schemaVersion, Date timestamp,
                                      std::optional<std::int64_t> userId, std::string pageTitle,
                                      std::string navigatorLanguage, std::string url, BlipPayload value) {
    PageViewRequest request{std::move(pageTitle), std::move(navigatorLanguage),
                            BlipValue{DeviceInfo::current(), std::move(value)}};
    return BlipRequest{
        std::move(appId), std::move(uuid), std::move(version), std::move(channel), std::move(schemaVersion),
        timestamp,        userId,          std::move(url),     std::nullopt,       std::move(request)};
}

ordered_json BlipRequest::toJson() const {
    ordered_json json(ordered_json::value_t::object);
    json.emplace("appId", appId);
    json.emplace("uuid", uuid);
    json.emplace("version", version);
    json.emplace("channel", channel);
    json.emplace("schemaVersion", schemaVersion);
    json.emplace("timestamp", DateStringParser::withMilliseconds().string(timestamp));
    if (userId) {
        json.emplace("userId", *userId);
    }
    if (url) {
        json.emplace("url", *url);
    }
    if (userAction) {
        ordered_json action(ordered_json::value_t::object);
        action.emplace("category", userAction->category);
        action.emplace("action", userAction->action);
        if (userAction->label) {
            action.emplace("label", *userAction->label);
        }
        if (userAction->value) {
            action.emplace("value", valueJson(*userAction->value));
        }
        json.emplace("userAction", std::move(action));
    }
    if (pageView) {
        ordered_json page(ordered_json::value_t::object);
        page.emplace("pageTitle", pageView->pageTitle);
        page.emplace("navigatorLanguage", pageView->navigatorLanguage);
        if (pageView->value) {
            page.emplace("value", valueJson(*pageView->value));
        }
        json.emplace("pageView", std::move(page));
    }
    return json;
}

Result<Data> BlipRequest::data() const {
    try {
        return Result<Data>::success(Data::fromString(toJson().dump()));
    } catch (const nlohmann::json::exception& e) {
        return Result<Data>::error(
            Error::withDescription(std::string(errors::decodingDomain), errors::encodingFailed, e.what()));
    }
}

}  // namespace velmora
