#include "velmora/storage/SettingsStore.h"

#include "velmora/platform/Format.h"
#include "velmora/support/CoreLogger.h"

namespace velmora {

using platform::format;

bool SettingsStore::storeSettings(const Data& settings) const {
    CoreLogger::debug(format("storing settings with app id: %@.", appId()));
    const auto& userDefaults = defaults();
    const bool stored = userDefaults->transaction([&] {
        userDefaults->set(appId(), settings);
        userDefaults->set(updatedAtKey, Date::now());
    });
    CoreLogger::debug(stored ? format("successfully stored settings with app id: %@.", appId())
                             : format("failed to store settings with app id: %@.", appId()));
    return stored;
}

std::optional<Data> SettingsStore::settings() const {
    const auto stored = defaults()->object(appId());
    if (stored) {
        if (const auto* data = stored->getIf<Data>()) {
            return *data;
        }
    }
    return std::nullopt;
}

void SettingsStore::setData(const std::optional<Data>& data) const {
    if (!data) {
        return;
    }
    (void)storeSettings(*data);
    CoreLogger::debug("Settings cached.");
}

Date SettingsStore::updatedAt() const {
    const auto stored = defaults()->object(updatedAtKey);
    if (stored) {
        if (const auto* date = stored->getIf<Date>()) {
            return *date;
        }
    }
    return Date::now();
}

}  // namespace velmora
