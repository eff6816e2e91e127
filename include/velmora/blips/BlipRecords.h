#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "velmora/Export.h"
#include "velmora/blips/DeviceInfo.h"
#include "velmora/platform/Data.h"
#include "velmora/platform/Date.h"
#include "velmora/platform/Result.h"

namespace velmora {

// Which permission gates an event.
enum class BlipsGroup { required = 0, behavioural = 1, trailmark = 2 };
VELMORA_EXPORT std::optional<BlipsGroup> blipsGroupFromRawValue(int rawValue);

// A caller's optional payload: any JSON value (absent: nothing is written).
using BlipPayload = std::optional<nlohmann::json>;

struct VELMORA_EXPORT UserAction {
    std::string version;
    std::string action;
    std::string channel;
    std::string category;
    std::optional<std::string> label;
    BlipPayload value;
};

// The library's own events (initialisation, push on and off): version 2.0.0 on the core channel, with no
// label and no payload.
VELMORA_EXPORT UserAction coreSdkEvent(std::string action);

struct VELMORA_EXPORT PageView {
    std::string version;
    std::string channel;
    std::string url;
    std::string pageTitle;
    std::string navigatorLanguage;
    BlipPayload value;
};

struct VELMORA_EXPORT BlipValue {
    DeviceInfo device;
    BlipPayload payload;
};

struct VELMORA_EXPORT UserActionRequest {
    std::string category;
    std::string action;
    std::optional<std::string> label;
    std::optional<BlipValue> value;
};

struct VELMORA_EXPORT PageViewRequest {
    std::string pageTitle;
    std::string navigatorLanguage;
    std::optional<BlipValue> value;
};

// One analytics event as sent: the account, the user, the time, and a user action or a page view carrying the
// device facts read when it was built.
struct VELMORA_EXPORT BlipRequest {
    std::string appId;
    std::string uuid;
    std::string version;
    std::string channel;
    std::string schemaVersion;
    Date timestamp;
    std::optional<std::int64_t> userId;
    std::optional<std::string> url;
    std::optional<UserActionRequest> userAction;
    std::optional<PageViewRequest> pageView;

    static BlipRequest makeUserAction(std::string appId, std::string uuid, std::string version,
                                      std::string channel, std::string schemaVersion, Date timestamp,
                                      std::optional<std::int64_t> userId, std::string category,
                                      std::string action, std::optional<std::string> label,
                                      BlipPayload value);
    static BlipRequest makePageView(std::string appId, std::string uuid, std::string version,
                                    std::string channel, std::string schemaVersion, Date timestamp,
                                    std::optional<std::int64_t> userId, std::string pageTitle,
                                    std::string navigatorLanguage, std::string url, BlipPayload value);

    nlohmann::ordered_json toJson() const;
    // The JSON text; fails when a text member is not UTF-8 and so cannot be written.
    Result<Data> data() const;
};

}  // namespace velmora
