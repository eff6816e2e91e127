#include "velmora/settings/Settings.h"

#include "velmora/network/ProviderService.h"
#include "velmora/platform/CalledOrDropped.h"
#include "velmora/settings/SettingsRequestInterceptor.h"
#include "velmora/support/CoreLogger.h"
#include "velmora/support/DateStringParser.h"
#include "velmora/support/DecodingError.h"
#include "velmora/support/JsonReading.h"

namespace velmora {

using nlohmann::json;

Result<CoreSettings> CoreSettings::fromJson(const json& document) {
    using R = Result<CoreSettings>;
    const auto core = document.is_object() ? document.find("core") : document.end();
    if (!document.is_object() || core == document.end() || !core->is_object()) {
        return R::error(DecodingError::keyNotFound("core"));
    }
    CoreSettings settings;
    // Both keys are required, though their values may be null.
    if (!core->contains("identifier") || !readOptionalString(*core, "identifier", settings.identifier)) {
        return R::error(DecodingError::keyNotFound("identifier"));
    }
    std::optional<std::string> authentication;
    if (!core->contains("authentication") || !readOptionalString(*core, "authentication", authentication)) {
        return R::error(DecodingError::keyNotFound("authentication"));
    }
    if (authentication) {
        if (*authentication == "jwt") {
            settings.authentication = AuthenticationType::jwt;
        } else if (*authentication == "anonymous") {
            settings.authentication = AuthenticationType::anonymous;
        } else {
            return R::error(
                DecodingError::dataCorrupted("Cannot initialize AuthenticationType from " + *authentication));
        }
    }
    const auto brand = core->find("brand_id");
    if (brand == core->end() || !isInt64(*brand)) {
        return R::error(DecodingError::typeMismatch("Expected an integer for \"brand_id\"."));
    }
    settings.brandId = brand->get<std::int64_t>();
    const auto updated = core->find("updated_at");
    const auto date =
        updated != core->end() && updated->is_string()
            ? DateStringParser::withoutMilliseconds().date(updated->get_ref<const std::string&>())
            : std::nullopt;
    if (!date) {
        return R::error(DecodingError::dataCorrupted("Expected a date for \"updated_at\"."));
    }
    settings.updatedAt = *date;
    return R::success(settings);
}

json CoreSettings::toJson() const {
    json authenticationText = nullptr;
    if (authentication) {
        authenticationText = *authentication == AuthenticationType::jwt ? "jwt" : "anonymous";
    }
    return json{{"identifier", identifier ? json(*identifier) : json(nullptr)},
                {"authentication", authenticationText},
                {"brand_id", brandId},
                {"updated_at", DateStringParser::withoutMilliseconds().string(updatedAt)}};
}

json BlipsSettings::toJson() const {
    return json{{"permissions",
                 {{"required", permissions.required},
                  {"trailmark", permissions.trailmark},
                  {"behavioural", permissions.behavioural}}}};
}

std::string CoreSettings::description() const {
    const char* auth = !authentication                              ? "nil"
                       : *authentication == AuthenticationType::jwt ? "jwt"
                                                                    : "anonymous";
    return "CoreSettings(brandId: " + std::to_string(brandId) +
           ", updatedAt: " + DateStringParser::withoutMilliseconds().string(updatedAt) +
           ", identifier: " + identifier.value_or("nil") + ", authentication: " + auth + ")";
}

Result<BlipsSettings> BlipsSettings::fromJson(const json& document) {
    using R = Result<BlipsSettings>;
    const auto blips = document.is_object() ? document.find("blips") : document.end();
    if (!document.is_object() || blips == document.end() || !blips->is_object()) {
        return R::error(DecodingError::keyNotFound("blips"));
    }
    const auto permissions = blips->find("permissions");
    if (permissions == blips->end() || !permissions->is_object()) {
        return R::error(DecodingError::keyNotFound("permissions"));
    }
    BlipsSettings settings;
    for (auto [key, field] : {std::pair{"required", &settings.permissions.required},
                              std::pair{"trailmark", &settings.permissions.trailmark},
                              std::pair{"behavioural", &settings.permissions.behavioural}}) {
        const auto value = permissions->find(key);
        if (value == permissions->end() || !value->is_boolean()) {
            return R::error(DecodingError::keyNotFound(key));
        }
        *field = value->get<bool>();
    }
    return R::success(settings);
}

SettingsProvider::SettingsProvider(std::shared_ptr<const AccountDetails> accountDetails)
    : environment_(std::move(accountDetails)),
      settingsCache_(std::make_shared<const SettingsStore>(environment_->applicationId())),
      cachingLogic_{3600, settingsCache_->updatedAt()} {}

void SettingsProvider::getSettings(SettingsRequest request) {
    const std::string name(request.typeName);
    const auto stored = settingsCache_->data();
    bool useCache = false;
    if (!stored) {
        CoreLogger::verbose("No settings in cache.");
    } else {
        const auto updatedAt =
            settingsCache_->updatedAt();  // read before the clock: no stamp counts as fresh
        useCache = cachingLogic_.isFresh(updatedAt, Date::now());
        if (!useCache) {
            CoreLogger::verbose("Settings in settings cache are out of date.");
        }
    }
    if (useCache) {
        if (const auto deliver = request.decode(*stored)) {
            CoreLogger::debug("Returning cached settings for " + name);
            deliver();
        } else {
            CoreLogger::debug("Returning default settings for " + name +
                              ". Failed to decode data from cache.");
            request.deliverDefault();
        }
        return;
    }
    auto url = resourceURL(environment_->accountUrl(),
                           "/api/private/mobile_sdk/settings/" + environment_->applicationId() + ".json");
    if (url.isError()) {
        CoreLogger::debug("Returning default settings for " + name +
                          ". Encounted an error: " + url.error().localizedDescription());
        request.deliverDefault();
        return;
    }
    // The settings call passes through no interceptor: no client identifier, no login, no settings check.
    const ProviderService service(environment_, std::move(url).value(), false, HttpMethod::get, {},
                                  std::nullopt, platform::DispatchQueue::main(),
                                  Interceptors{{}, {}, interceptorQueue(), platform::DispatchGroup()});
    service.perform([request = std::move(request), name, cache = settingsCache_](
                        const std::optional<Data>& data,
                        const std::shared_ptr<const platform::HTTPURLResponse>&,
                        const std::optional<Error>& error) {
        if (error) {
            CoreLogger::debug("Returning default settings for " + name +
                              ". Encounted an error: " + error->localizedDescription());
            request.deliverDefault();
            return;
        }
        if (!data) {
            CoreLogger::debug("Returning default settings for " + name +
                              ". Network request for settings received an error.");
            request.deliverDefault();
            return;
        }
        const auto deliver = request.decode(*data);
        if (!deliver) {
            CoreLogger::debug("Returning default settings for " + name +
                              ". Failed to decode data from network.");
            request.deliverDefault();
            return;
        }
        cache->setData(*data);
        CoreLogger::debug("Returning settings for " + name + " from network.");
        deliver();
    });
}

void SettingsProvider::getCachedSettings(SettingsRequest request) const {
    const std::string name(request.typeName);
    const auto stored = settingsCache_->data();
    if (!stored) {
        CoreLogger::debug("Returning default settings for " + name + ". No data in cache.");
        request.deliverDefault();
    } else if (const auto deliver = request.decode(*stored)) {
        CoreLogger::debug("Returning cached settings for " + name);
        deliver();
    } else {
        CoreLogger::debug("Returning default settings for " + name + ". Failed to decode data from cache.");
        request.deliverDefault();
    }
}

bool SettingsRequestInterceptor::needToFetchSettings() const {
    if (!settingsStore_.settings()) {
        return true;
    }
    const auto updatedAt = settingsStore_.updatedAt();
    return validator_.isFresh(updatedAt, Date::now());
}

Result<platform::URLRequest> SettingsRequestInterceptor::intercept(Result<platform::URLRequest> request,
                                                                   const platform::DispatchGroup& group) {
    if (needToFetchSettings()) {
        group.enter();
        // A host's executor that drops the settings call unanswered lets the chain go on without them.
        settingsProvider_->getSettings<CoreSettings>(platform::calledOrDropped<CoreSettings>(
            [group](CoreSettings settings) {
                if (CoreLogger::isLogging(LogLevel::verbose)) {
                    CoreLogger::verbose("Settings interceptor retrived settings: " + settings.description());
                }
                group.leave();
            },
            [group] { group.leave(); }));
        group.wait();
    } else {
        CoreLogger::verbose("Settings interceptor found valid settings");
    }
    return request;
}

}  // namespace velmora
