#include "velmora/identity/Identity.h"

#include "velmora/Errors.h"
#include "velmora/platform/Json.h"
#include "velmora/platform/Utf8.h"
#include "velmora/support/JsonReading.h"
#include "velmora/support/LibraryError.h"

namespace velmora {
namespace {

void putIfPresent(nlohmann::json& json, const char* key, const std::optional<std::string>& value) {
    if (value) {
        json[key] = *value;
    }
}

std::optional<Anonymous> decodeAnonymous(const nlohmann::json& json) {
    Anonymous anonymous;
    if (!json.is_object() || !readOptionalString(json, "name", anonymous.name) ||
        !readOptionalString(json, "email", anonymous.email) ||
        !readOptionalString(json, "guid", anonymous.guid)) {
        return std::nullopt;
    }
    return anonymous;
}

std::optional<Jwt> decodeJwt(const nlohmann::json& json) {
    if (!json.is_object()) {
        return std::nullopt;
    }
    const auto token = json.find("token");
    if (token == json.end() || !token->is_string()) {
        return std::nullopt;
    }
    return Jwt{token->get<std::string>()};
}

bool equalText(const std::optional<std::string>& a, const std::optional<std::string>& b) {
    return a && b ? platform::canonicallyEqual(*a, *b) : a.has_value() == b.has_value();
}

}  // namespace

bool operator==(const Jwt& a, const Jwt& b) {
    return platform::canonicallyEqual(a.token, b.token);
}

bool operator==(const Anonymous& a, const Anonymous& b) {
    return equalText(a.name, b.name) && equalText(a.email, b.email);
}

bool operator==(const Identity& a, const Identity& b) {
    if (a.anonymous() && b.anonymous()) {
        return *a.anonymous() == *b.anonymous();
    }
    return a.jwt() && b.jwt() && *a.jwt() == *b.jwt();
}

Error toError(Identity::IdentityError error) {
    return libraryError(errors::identityDomain, error, std::nullopt);
}

void to_json(nlohmann::json& json, const Jwt& jwt) {
    json = nlohmann::json{{"token", jwt.token}};
}

void to_json(nlohmann::json& json, const Anonymous& anonymous) {
    json = nlohmann::json::object();
    putIfPresent(json, "name", anonymous.name);
    putIfPresent(json, "email", anonymous.email);
    putIfPresent(json, "guid", anonymous.guid);
}

void to_json(nlohmann::json& json, const AnonymousDecorator& decorator) {
    json = nlohmann::json::object();
    putIfPresent(json, "sdk_guid", decorator.sdk_guid);
    putIfPresent(json, "name", decorator.name);
    putIfPresent(json, "email", decorator.email);
}

nlohmann::json Identity::toJson() const {
    if (const auto* a = anonymous()) {
        return nlohmann::json{{"anonymous", *a}};
    }
    return nlohmann::json{{"jwt", *jwt()}};
}

Result<Data> Identity::encode() const {
    try {
        return Result<Data>::success(Data::fromString(toJson().dump()));
    } catch (const nlohmann::json::exception& e) {
        return Result<Data>::error(
            Error::withDescription(std::string(errors::decodingDomain), errors::encodingFailed, e.what()));
    }
}

Result<Identity> Identity::fromJson(const nlohmann::json& json) {
    if (json.is_object()) {
        if (const auto it = json.find("anonymous"); it != json.end()) {
            if (auto a = decodeAnonymous(*it)) {
                return Result<Identity>::success(Identity(std::move(*a)));
            }
        }
        if (const auto it = json.find("jwt"); it != json.end()) {
            if (auto j = decodeJwt(*it)) {
                return Result<Identity>::success(Identity(std::move(*j)));
            }
        }
    }
    return Result<Identity>::error(toError(IdentityError::unknownType));
}

Result<Identity> Identity::decode(const Data& data) {
    auto json = platform::parseJson(data.view());
    if (json.is_discarded()) {
        return Result<Identity>::error(Error::withDescription(
            std::string(errors::decodingDomain), errors::notJson,
            "The data couldn\u2019t be read because it isn\u2019t in the correct format."));
    }
    return fromJson(json);
}

}  // namespace velmora
