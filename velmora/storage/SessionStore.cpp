#include "velmora/storage/SessionStore.h"

#include "velmora/platform/Format.h"
#include "velmora/support/CoreLogger.h"

namespace velmora {

using platform::format;

std::optional<PropertyValue> SessionStore::value(std::string_view key) const {
    return storedValue(key);
}

bool SessionStore::store(const std::optional<PropertyValue>& value, std::string_view key) const {
    CoreLogger::debug(
        format("storing %@ with key %@ in session store with app id: %@.", value, key, appId()));
    const bool stored = change([&](PropertyValue::Dictionary& dictionary) {
        platform::setOrRemove(dictionary, std::string(key), value);
    });
    CoreLogger::debug(stored ? format("successfully stored %@ in session store.", key)
                             : format("failed to store %@ in session store.", key));
    return stored;
}

std::optional<std::string> SessionStore::pushToken() const {
    const auto stored = value(pushTokenKey);
    if (stored) {
        if (const auto* token = stored->getIf<std::string>()) {
            return *token;
        }
    }
    return std::nullopt;
}

void SessionStore::updatePushToken(const std::optional<std::string>& token) const {
    (void)store(token ? std::optional<PropertyValue>(*token) : std::nullopt, pushTokenKey);
}

}  // namespace velmora
