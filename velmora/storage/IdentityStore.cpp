#include "velmora/storage/IdentityStore.h"

#include "velmora/platform/Format.h"
#include "velmora/platform/Uuid.h"
#include "velmora/support/CoreLogger.h"

namespace velmora {

using platform::format;

std::optional<std::string> IdentityStore::storedText(std::string_view key) const {
    const auto value = storedValue(key);
    const auto* text = value ? value->getIf<std::string>() : nullptr;
    return text != nullptr ? std::optional(*text) : std::nullopt;
}

std::optional<Identity> IdentityStore::identity() const {
    const auto value = storedValue(identityKey);
    const auto* data = value ? value->getIf<Data>() : nullptr;
    if (data == nullptr) {
        return std::nullopt;
    }
    auto decoded = Identity::decode(*data);
    return decoded.isSuccess() ? std::optional(std::move(decoded).value()) : std::nullopt;
}

std::optional<std::string> IdentityStore::guid() const {
    return storedText(guidKey);
}

std::string IdentityStore::uuid() const {
    if (auto uuid = storedText(uuidKey)) {
        return *uuid;
    }
    CoreLogger::debug("No UUID found. Have you set an identity?");
    return {};
}

std::optional<std::string> IdentityStore::oauthToken() const {
    return storedText(authTokenKey);
}

std::optional<std::int64_t> IdentityStore::userId() const {
    const auto value = storedValue(userIdKey);
    const auto* id = value ? value->getIf<std::int64_t>() : nullptr;
    return id != nullptr ? std::optional(*id) : std::nullopt;
}

void IdentityStore::putIdentity(PropertyValue::Dictionary& dictionary, const Identity& identity) {
    auto encoded = identity.encode();
    if (encoded.isSuccess()) {
        dictionary.insert_or_assign(std::string(identityKey), std::move(encoded).value());
    } else {
        dictionary.erase(std::string(identityKey));
    }
}

bool IdentityStore::logIdentityStored(bool stored) const {
    CoreLogger::debug(stored ? format("stored identity with app id: %@.", appId())
                             : format("failed to store identity with app id: %@.", appId()));
    return stored;
}

bool IdentityStore::store(const Identity& identity) const {
    return logIdentityStored(change([&](PropertyValue::Dictionary& dictionary) {
        putIdentity(dictionary, identity);
        if (identity.anonymous() != nullptr) {
            dictionary.insert_or_assign(std::string(guidKey), platform::uuidString());
        } else {
            dictionary.erase(std::string(guidKey));
        }
        dictionary.insert_or_assign(std::string(uuidKey), platform::uuidString());
        dictionary.erase(std::string(userIdKey));
    }));
}

bool IdentityStore::storeIdentityOnly(const Identity& identity) const {
    return logIdentityStored(
        change([&](PropertyValue::Dictionary& dictionary) { putIdentity(dictionary, identity); }));
}

void IdentityStore::storeGuid(const std::optional<std::string>& guid) const {
    (void)change([&](PropertyValue::Dictionary& dictionary) {
        platform::setOrRemove(dictionary, std::string(guidKey),
                              guid ? std::optional<PropertyValue>(*guid) : std::nullopt);
    });
}

void IdentityStore::update(std::string_view key, const PropertyValue& value) const {
    const bool stored = change(
        [&](PropertyValue::Dictionary& dictionary) { dictionary.insert_or_assign(std::string(key), value); });
    CoreLogger::debug(stored ? format("updated %@ on identity with app id: %@.", key, appId())
                             : format("failed to update %@ on identity with app id: %@.", key, appId()));
}

bool IdentityStore::storeAccess(const PropertyValue& token, const PropertyValue& userId,
                                const std::optional<std::string>& forUuid) const {
    bool current = false;
    (void)defaults()->transaction([&] {
        // A login answers for the identity it was made for: once another identity is stored (by this process
        // or another one), its token must not be attached to that one.
        current = storedText(uuidKey) == forUuid;
        if (current) {
            update(authTokenKey, token);
            update(userIdKey, userId);
        }
    });
    return current;
}

std::optional<std::string> IdentityStore::currentUuid() const {
    return storedText(uuidKey);
}

}  // namespace velmora
