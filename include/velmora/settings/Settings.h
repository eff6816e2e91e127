#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "velmora/Errors.h"
#include "velmora/Export.h"
#include "velmora/network/Interceptors.h"
#include "velmora/platform/Date.h"
#include "velmora/platform/Json.h"
#include "velmora/platform/Result.h"
#include "velmora/support/AccountDetails.h"

namespace velmora {

class SettingsStore;

enum class AuthenticationType { jwt, anonymous };

// The "core" section of the account's settings.
struct VELMORA_EXPORT CoreSettings {
    static constexpr std::string_view typeName = "CoreSettings";

    std::int64_t brandId = -1;
    Date updatedAt = Date::fromMillisecondsSince1970(0);
    std::optional<std::string> identifier;
    std::optional<AuthenticationType> authentication;

    static CoreSettings defaultValue() { return {}; }
    // Strict: a missing required key or a wrong type fails the whole view.
    static Result<CoreSettings> fromJson(const nlohmann::json& document);
    // The "core" section as the account sends it.
    nlohmann::json toJson() const;
    std::string description() const;

    friend bool operator==(const CoreSettings&, const CoreSettings&) = default;
};

struct VELMORA_EXPORT BlipsPermissions {
    bool required = false;
    bool trailmark = false;
    bool behavioural = false;

    friend bool operator==(const BlipsPermissions&, const BlipsPermissions&) = default;
};

// The "blips" section: which analytics events the account accepts.
struct VELMORA_EXPORT BlipsSettings {
    static constexpr std::string_view typeName = "BlipsSettings";

    BlipsPermissions permissions;

    static BlipsSettings defaultValue() { return {}; }
    static Result<BlipsSettings> fromJson(const nlohmann::json& document);
    // The "blips" section as the account sends it.
    nlohmann::json toJson() const;

    friend bool operator==(const BlipsSettings&, const BlipsSettings&) = default;
};

// A typed view of the settings document: a name for log lines, a default, and a strict decoder.
template <class T>
concept DecodableDefault = requires(const nlohmann::json& json) {
    { T::typeName } -> std::convertible_to<std::string_view>;
    { T::defaultValue() } -> std::same_as<T>;
    { T::fromJson(json) } -> std::same_as<Result<T>>;
};

// Decodes a typed view from the stored or fetched bytes. Every request reads its view of the same stored
// document while that is fresh, so the last decoding of each view is kept, for exactly those bytes.
template <DecodableDefault T>
Result<T> decodeSettings(const Data& data) {
    struct Last {
        std::mutex mutex;
        std::optional<Data> document;
        std::optional<Result<T>> decoded;
    };
    static auto* last = new Last();  // leaked: requests may still decode during static destruction
    {
        std::lock_guard lock(last->mutex);
        if (last->document == data) {
            return *last->decoded;
        }
    }
    const auto document = platform::parseJson(data.view());
    auto decoded = document.is_discarded()
                       ? Result<T>::error(Error(std::string(errors::decodingDomain), errors::dataCorrupted))
                       : T::fromJson(document);
    std::lock_guard lock(last->mutex);
    last->document = data;
    last->decoded = decoded;
    return decoded;
}

// Whether cached data may still be used: strictly after its start and strictly before it expires.
struct VELMORA_EXPORT IntervalValidator {
    double validityPeriod = 3600;
    Date startDate;

    bool isFresh(const Date& updatedAt, const Date& now) const {
        return now > updatedAt && updatedAt.addingTimeInterval(validityPeriod) > now;
    }
};

// One request for a typed view, with the type erased so that providers can be replaced.
struct SettingsRequest {
    std::string_view typeName;
    // Decodes the bytes; on success gives the call that hands the value to the caller, else an empty one.
    std::function<std::function<void()>(const Data&)> decode;
    std::function<void()> deliverDefault;
};

class VELMORA_EXPORT SettingsProviderProtocol {
  public:
    virtual ~SettingsProviderProtocol() = default;
    virtual void getSettings(SettingsRequest request) = 0;

    template <DecodableDefault T>
    void getSettings(std::function<void(T)> callback) {
        getSettings(makeRequest<T>(std::move(callback)));
    }

    template <DecodableDefault T>
    static SettingsRequest makeRequest(std::function<void(T)> callback) {
        auto shared = std::make_shared<std::function<void(T)>>(std::move(callback));
        return {T::typeName,
                [shared](const Data& data) -> std::function<void()> {
                    auto decoded = decodeSettings<T>(data);
                    if (decoded.isError()) {
                        return {};
                    }
                    return [shared, value = std::move(decoded).value()] { (*shared)(value); };
                },
                [shared] { (*shared)(T::defaultValue()); }};
    }
};

// The account's settings: from the store while fresh (one hour), else from the network; never an error,
// the view's default instead.
class VELMORA_EXPORT SettingsProvider : public SettingsProviderProtocol {
  public:
    explicit SettingsProvider(std::shared_ptr<const AccountDetails> accountDetails);

    using SettingsProviderProtocol::getSettings;
    void getSettings(SettingsRequest request) override;

    // From the store only, stale or not.
    void getCachedSettings(SettingsRequest request) const;
    template <DecodableDefault T>
    void getCachedSettings(std::function<void(T)> callback) const {
        getCachedSettings(makeRequest<T>(std::move(callback)));
    }

  private:
    std::shared_ptr<const AccountDetails> environment_;
    std::shared_ptr<const SettingsStore> settingsCache_;
    IntervalValidator cachingLogic_;
};

}  // namespace velmora
