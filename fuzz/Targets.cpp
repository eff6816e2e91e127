#include "fuzz/Targets.h"

#include <cstdio>
#include <cstdlib>

#include "velmora/identity/Identity.h"
#include "velmora/identity/LegacyIdentityMigrator.h"
#include "velmora/platform/PropertyList.h"

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

Target targetNamed(std::string_view name) {
    if (name == "identity_decoder") {
        return &identityDecoder;
    }
    if (name == "keyed_archive") {
        return &keyedArchive;
    }
    return nullptr;
}

}  // namespace velmora::fuzz
