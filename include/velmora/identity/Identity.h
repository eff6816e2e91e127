#pragma once

#include <optional>
#include <string>
#include <variant>

#include <nlohmann/json.hpp>

#include "velmora/Export.h"
#include "velmora/platform/Data.h"
#include "velmora/platform/Error.h"
#include "velmora/platform/Result.h"

namespace velmora {

// An end user identified by a token the host's own server issued. The library never looks inside it.
struct VELMORA_EXPORT Jwt {
    std::string token;
};

// An end user without an account of their own, optionally with a display name and e-mail address.
struct VELMORA_EXPORT Anonymous {
    std::optional<std::string> name;
    std::optional<std::string> email;
    // Filled only when the library hands out the current identity; never part of the comparison.
    std::optional<std::string> guid;

    static Anonymous withName(std::optional<std::string> name, std::optional<std::string> email) {
        return Anonymous{std::move(name), std::move(email), std::nullopt};
    }
};

// Texts compare as a user reads them: canonically equivalent forms (a precomposed or a decomposed "é") are
// equal; letter case and compatibility forms still make a difference.
VELMORA_EXPORT bool operator==(const Jwt& a, const Jwt& b);
// Same name and e-mail; the GUID is deliberately ignored. An absent value never equals a present one.
VELMORA_EXPORT bool operator==(const Anonymous& a, const Anonymous& b);

// Who the end user is: anonymous or a JWT.
class VELMORA_EXPORT Identity {
  public:
    enum class IdentityError { unknownType };

    static Identity createAnonymous(std::optional<std::string> name = std::nullopt,
                                    std::optional<std::string> email = std::nullopt) {
        return Identity(Anonymous::withName(std::move(name), std::move(email)));
    }
    static Identity createJwt(std::string token) { return Identity(Jwt{std::move(token)}); }

    explicit Identity(Anonymous anonymous) : value_(std::move(anonymous)) {}
    explicit Identity(Jwt jwt) : value_(std::move(jwt)) {}

    const Anonymous* anonymous() const { return std::get_if<Anonymous>(&value_); }
    const Jwt* jwt() const { return std::get_if<Jwt>(&value_); }

    // {"anonymous": {"name", "email", "guid" when present}} or {"jwt": {"token": ...}}.
    nlohmann::json toJson() const;
    // The JSON form as UTF-8 bytes; fails when a field is not valid UTF-8 and so cannot be JSON text.
    Result<Data> encode() const;
    // An object whose "anonymous" member decodes is anonymous (even when "jwt" is there too); else one
    // whose "jwt" member decodes is a JWT; anything else is IdentityError::unknownType.
    static Result<Identity> fromJson(const nlohmann::json& json);
    // As fromJson, after parsing the bytes; bytes that are not JSON give the parser's error.
    static Result<Identity> decode(const Data& data);

  private:
    std::variant<Anonymous, Jwt> value_;
};

// The same kind with equal payloads; an anonymous identity never equals a JWT one.
VELMORA_EXPORT bool operator==(const Identity& a, const Identity& b);

VELMORA_EXPORT Error toError(Identity::IdentityError error);

// The anonymous identity as the access endpoint wants it: {"sdk_guid", "name", "email"} when present.
struct VELMORA_EXPORT AnonymousDecorator {
    std::optional<std::string> sdk_guid;
    std::optional<std::string> name;
    std::optional<std::string> email;
};

// Nests a body under "user".
template <class T>
struct IdentityContainer {
    T user;
};

VELMORA_EXPORT void to_json(nlohmann::json& json, const Jwt& jwt);
VELMORA_EXPORT void to_json(nlohmann::json& json, const Anonymous& anonymous);
VELMORA_EXPORT void to_json(nlohmann::json& json, const AnonymousDecorator& decorator);
template <class T>
void to_json(nlohmann::json& json, const IdentityContainer<T>& container) {
    json = nlohmann::json{{"user", container.user}};
}

}  // namespace velmora
