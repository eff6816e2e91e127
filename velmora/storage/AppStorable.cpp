#include "velmora/storage/AppStorable.h"

#include "velmora/platform/Fatal.h"
#include "velmora/platform/Format.h"
#include "velmora/support/CoreLogger.h"

namespace velmora {

UserDefaultsStorable::UserDefaultsStorable(std::string_view suiteName)
    : suiteName_(suiteName), defaults_(platform::UserDefaults::suite(suiteName)) {
    if (!defaults_) {
        platform::fatalError(platform::format("failed to load suite named %@", suiteName));
    }
}

PropertyValue::Dictionary AppStorable::storage() const {
    const auto stored = defaults()->object(appId_);
    if (stored) {
        if (const auto* dictionary = stored->getIf<PropertyValue::Dictionary>()) {
            return *dictionary;
        }
    }
    return {};
}

std::optional<PropertyValue> AppStorable::storedValue(std::string_view key) const {
    std::optional<PropertyValue> found;
    defaults()->inspect(appId_, [&](const PropertyValue* stored) {
        const auto* dictionary = stored != nullptr ? stored->getIf<PropertyValue::Dictionary>() : nullptr;
        if (dictionary != nullptr) {
            if (const auto it = dictionary->find(key); it != dictionary->end()) {
                found = it->second;
            }
        }
    });
    return found;
}

void AppStorable::clear() const {
    CoreLogger::debug(platform::format("clearing storage suite: %@ with app id: %@.", suiteName(), appId_));
    const auto userDefaults = defaults();
    userDefaults->removePersistentDomain(userDefaults->name());
}

bool AppStorable::change(const std::function<void(PropertyValue::Dictionary&)>& edit) const {
    const auto& userDefaults = defaults();
    return userDefaults->transaction([&] {
        auto dictionary = storage();
        edit(dictionary);
        userDefaults->set(appId_, std::move(dictionary));
    });
}

}  // namespace velmora
