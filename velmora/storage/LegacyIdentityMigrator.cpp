#include "velmora/storage/LegacyIdentityMigrator.h"

#include "velmora/platform/UserDefaults.h"

namespace velmora {
namespace {

std::optional<std::string> textIn(const platform::UserDefaults& defaults, std::string_view key) {
    const auto value = defaults.object(key);
    const auto* text = value ? value->getIf<std::string>() : nullptr;
    return text != nullptr ? std::optional(*text) : std::nullopt;
}

}  // namespace

Data VMKIdentity::archivedData() const {
    platform::KeyedEncoder coder;
    encodeWithCoder(coder);
    return platform::KeyedArchiver::archivedData(className(), {std::string(className()), "NSObject"}, coder);
}

std::shared_ptr<VMKIdentity> VMKIdentity::unarchiveObjectWithData(const Data& archive) {
    const auto coder = platform::KeyedDecoder::forRootObject(archive);
    if (!coder) {
        return nullptr;
    }
    if (coder->className() == "VMKJwtIdentity") {
        return std::make_shared<VMKJwtIdentity>(*coder);
    }
    if (coder->className() == "VMKAnonymousIdentity") {
        return std::make_shared<VMKAnonymousIdentity>(*coder);
    }
    return nullptr;
}

void VMKIdentityMigrator::runMigration() {
    const auto stored = platform::UserDefaults::standard()->object(LegacyIdentityMigrator::identityKey);
    const auto* archive = stored ? stored->getIf<Data>() : nullptr;
    identity = archive != nullptr ? VMKIdentity::unarchiveObjectWithData(*archive) : nullptr;
}

std::optional<std::string> VMKIdentityMigrator::getMigratedJwtIdentifier() const {
    const auto* jwt = dynamic_cast<const VMKJwtIdentity*>(identity.get());
    return jwt != nullptr ? jwt->token : std::nullopt;
}

std::optional<std::string> VMKIdentityMigrator::getMigratedAnonymousName() const {
    const auto* anonymous = dynamic_cast<const VMKAnonymousIdentity*>(identity.get());
    return anonymous != nullptr ? anonymous->name : std::nullopt;
}

std::optional<std::string> VMKIdentityMigrator::getMigratedAnonymousEmail() const {
    const auto* anonymous = dynamic_cast<const VMKAnonymousIdentity*>(identity.get());
    return anonymous != nullptr ? anonymous->email : std::nullopt;
}

std::optional<Identity> LegacyIdentityMigrator::getLegacyIdentity() const {
    const VMKIdentityMigrator migrator;
    const IdentityMigration& migration = migrator;
    if (auto jwtToken = migration.getMigratedJwtIdentifier()) {
        return Identity::createJwt(std::move(*jwtToken));
    }
    // An archived anonymous identity is only recognised together with its GUID.
    if (!getLegacySdkGuid()) {
        return std::nullopt;
    }
    return Identity::createAnonymous(migration.getMigratedAnonymousName(),
                                     migration.getMigratedAnonymousEmail());
}

std::optional<std::int64_t> LegacyIdentityMigrator::getLegacyUserId() const {
    const auto value = platform::UserDefaults::standard()->object(userIdKey);
    const auto* id = value ? value->getIf<std::int64_t>() : nullptr;
    return id != nullptr ? std::optional(*id) : std::nullopt;
}

std::optional<std::string> LegacyIdentityMigrator::getLegacyOauthToken() const {
    return textIn(*platform::UserDefaults::standard(), oauthTokenKey);
}

std::optional<std::string> LegacyIdentityMigrator::getLegacySdkGuid() const {
    return textIn(*platform::UserDefaults::standard(), guidKey);
}

std::optional<std::string> LegacyIdentityMigrator::getLegacyPushToken() const {
    const auto suite = platform::UserDefaults::suite(legacyPushSuiteName);
    return suite ? textIn(*suite, deviceTokenKey) : std::nullopt;
}

void LegacyIdentityMigrator::clearLegacyStorage() const {
    const auto standard = platform::UserDefaults::standard();
    for (const auto key : {identityKey, guidKey, oauthTokenKey, userIdKey}) {
        standard->removeObject(key);
    }
    // Synchronized at once: keys left on disk would be migrated again at the next launch, perhaps onto a
    // different user.
    (void)standard->synchronize();
    if (const auto push = platform::UserDefaults::suite(legacyPushSuiteName)) {
        push->removeObject(deviceTokenKey);
        push->removePersistentDomain(legacyPushSuiteName);
    }
}

bool LegacyIdentityMigrator::checkedAndMigratedIdentity() const {
    const auto legacy = getLegacyIdentity();
    if (!legacy || !(*legacy == newIdentity)) {
        clearLegacyStorage();
        return false;
    }
    if (const auto userId = getLegacyUserId()) {
        identityStore.update(IdentityStore::userIdKey, *userId);
    }
    if (const auto oauthToken = getLegacyOauthToken()) {
        identityStore.update(IdentityStore::authTokenKey, *oauthToken);
    }
    if (const auto pushToken = getLegacyPushToken()) {
        (void)sessionStore.store(PropertyValue(*pushToken), SessionStore::pushTokenKey);
    }
    if (legacy->anonymous() != nullptr) {
        if (const auto guid = getLegacySdkGuid()) {
            identityStore.storeGuid(guid);
        }
    }
    clearLegacyStorage();
    return true;
}

}  // namespace velmora
