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

void IdentityStore::writeIdentityDictionary(PropertyValue::Dictionary dictionary) const {
    CoreLogger::debug(writeStorage(std::move(dictionary))
                          ? format("stored identity with app id: %@.", appId())
                          : format("failed to store identity with app id: %@.", appId()));
}

void IdentityStore::store(const Identity& identity) const {
    auto dictionary = storage();
    putIdentity(dictionary, identity);
    if (identity.anonymous() != nullptr) {
        dictionary.insert_or_assign(std::string(guidKey), platform::uuidString());
    } else {
        dictionary.erase(std::string(guidKey));
    }
    dictionary.insert_or_assign(std::string(uuidKey), platform::uuidString());
    dictionary.erase(std::string(userIdKey));
    writeIdentityDictionary(std::move(dictionary));
}

void IdentityStore::storeIdentityOnly(const Identity& identity) const {
    auto dictionary = storage();
    putIdentity(dictionary, identity);
    writeIdentityDictionary(std::move(dictionary));
}

void IdentityStore::storeGuid(const std::optional<std::string>& guid) const {
    auto dictionary = storage();
    if (guid) {
        dictionary.insert_or_assign(std::string(guidKey), *guid);
    } else {
        dictionary.erase(std::string(guidKey));
    }
    (void)writeStorage(std::move(dictionary));
}

void IdentityStore::update(std::string_view key, const PropertyValue& value) const {
    auto dictionary = storage();
    dictionary.insert_or_assign(std::string(key), value);
    CoreLogger::debug(writeStorage(std::move(dictionary))
                          ? format("updated %@ on identity with app id: %@.", key, appId())
                          : format("failed to update %@ on identity with app id: %@.", key, appId()));
}

}  // namespace velmora
