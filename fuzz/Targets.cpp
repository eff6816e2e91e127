#include "fuzz/Targets.h"

#include <cstdio>
#include <cstdlib>

#include "velmora/identity/Identity.h"
#include "velmora/network/AccessProvider.h"
#include "velmora/platform/PropertyList.h"
#include "velmora/settings/Settings.h"
#include "velmora/storage/LegacyIdentityMigrator.h"
#include "velmora/user/UserProvider.h"

namespace velmora::fuzz {
namespace {

void require(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "fuzz invariant broken: %s\n", what);
        std::abort();
    }
}

}  // namespace

void identityDecoder(const std::uint8_t* data, std::size_t size) {
    const auto decoded = Identity::decode(Data(data, size));
    if (decoded.isError()) {
        return;
    }
    // Whatever decodes must survive the store's round trip unchanged.
    const auto encoded = decoded.value().encode();
    if (encoded.isError()) {
        return;  // text fields that are not UTF-8 cannot be written back, and are not
    }
    const auto again = Identity::decode(encoded.value());
    require(again.isSuccess(), "a re-encoded identity decodes");
    require(again.value().toJson() == decoded.value().toJson(), "a re-encoded identity is the same identity");
}

void keyedArchive(const std::uint8_t* data, std::size_t size) {
    const Data bytes(data, size);
    if (const auto plist = platform::decodeBinaryPropertyList(bytes)) {
        const auto reencoded = platform::decodeBinaryPropertyList(platform::encodeBinaryPropertyList(*plist));
        require(reencoded.has_value(), "a decoded property list re-encodes");
    }
    const auto identity = VMKIdentity::unarchiveObjectWithData(bytes);
    if (identity) {
        const auto again = VMKIdentity::unarchiveObjectWithData(identity->archivedData());
        require(again != nullptr && again->className() == identity->className(),
                "an archived identity re-archives");
    }
}

void accessAnswer(const std::uint8_t* data, std::size_t size) {
    const auto access = Access::decode(Data(data, size));
    if (access.isSuccess()) {
        const auto again = Access::decode(Data::fromString(access.value().toJson().dump()));
        require(again.isSuccess() &&
                    again.value().authentication.user_id == access.value().authentication.user_id,
                "an access answer re-encodes to itself");
    }
}

void userAnswers(const std::uint8_t* data, std::size_t size) {
    const Data bytes(data, size);
    (void)decodeUserContainer(bytes);
    const auto fields = decodeUserFields(bytes);
    if (fields.isSuccess()) {
        for (const auto& field : fields.value()) {
            require(!field.fieldType().empty(), "a decoded field has a type");
        }
    }
}

void settingsViews(const std::uint8_t* data, std::size_t size) {
    const Data bytes(data, size);
    const auto core = decodeSettings<CoreSettings>(bytes);
    if (core.isSuccess()) {
        require(!core.value().description().empty(), "decoded settings describe themselves");
    }
    (void)decodeSettings<BlipsSettings>(bytes);
}

Target targetNamed(std::string_view name) {
    if (name == "identity_decoder") {
        return &identityDecoder;
    }
    if (name == "keyed_archive") {
        return &keyedArchive;
    }
    if (name == "access_answer") {
        return &accessAnswer;
    }
    if (name == "user_answers") {
        return &userAnswers;
    }
    if (name == "settings_views") {
        return &settingsViews;
    }
    return nullptr;
}

}  // namespace velmora::fuzz
