#include "velmora/user/UserProvider.h"

#include <algorithm>
#include <functional>

#include "velmora/Errors.h"
#include "velmora/platform/Json.h"
#include "velmora/settings/DefaultInterceptors.h"
#include "velmora/support/DateStringParser.h"
#include "velmora/support/DecodingError.h"
#include "velmora/support/JsonReading.h"

namespace velmora {

using nlohmann::json;

namespace {

std::string fieldText(const json& value) {
    if (value.is_number_integer()) {
        return value.dump();
    }
    if (value.is_string()) {
        return value.get<std::string>();
    }
    if (value.is_boolean()) {
        return value.get<bool>() ? "true" : "false";
    }
    return platform::dumpJson(value);
}

// Strict member readers for the field definitions: each fails the decoding when the member is missing or
// mistyped.
struct Strict {
    const json& object;
    std::optional<Error> error;

    const json* member(const char* key) {
        if (error) {
            return nullptr;
        }
        const auto it = object.find(key);
        if (it == object.end()) {
            error = DecodingError::keyNotFound(key);
            return nullptr;
        }
        return &*it;
    }
    // The member as T when `isKind` holds for it; a type mismatch naming `kind` otherwise.
    template <class T, class IsKind>
    void typed(const char* key, T& out, IsKind&& isKind, const char* kind) {
        if (const auto* value = member(key)) {
            if (std::invoke(isKind, *value)) {
                out = value->get<T>();
            } else {
                error =
                    DecodingError::typeMismatch(std::string("Expected ") + kind + " for \"" + key + "\".");
            }
        }
    }
    void text(const char* key, std::string& out) { typed(key, out, &json::is_string, "a string"); }
    void integer(const char* key, std::int64_t& out) { typed(key, out, isInt64, "an integer"); }
    void integerText(const char* key, std::string& out) {
        std::int64_t number = 0;
        integer(key, number);
        out = std::to_string(number);
    }
    void boolean(const char* key, bool& out) { typed(key, out, &json::is_boolean, "a boolean"); }
    void date(const char* key, Date& out) {
        std::string textValue;
        text(key, textValue);
        if (error) {
            return;
        }
        if (const auto parsed = DateStringParser::withoutMilliseconds().date(textValue)) {
            out = *parsed;
        } else {
            error = DecodingError::dataCorrupted(
                std::string("Date string does not match format expected by formatter for \"") + key + "\".");
        }
    }
};

Result<UserFieldOption> optionFromJson(const json& object) {
    if (!object.is_object()) {
        return Result<UserFieldOption>::error(
            DecodingError::typeMismatch("Expected an object for a field option."));
    }
    Strict read{object, std::nullopt};
    UserFieldOption option;
    read.integerText("id", option.id);
    read.text("name", option.name);
    read.text("raw_name", option.raw_name);
    read.text("url", option.url);
    read.text("value", option.value);
    read.integer("position", option.position);
    return read.error ? Result<UserFieldOption>::error(*read.error)
                      : Result<UserFieldOption>::success(option);
}

constexpr const char* fieldTypes[] = {"checkbox", "date",   "decimal", "dropdown",
                                      "integer",  "regexp", "text",    "textarea"};

}  // namespace

User User::fromJson(const json& object) {
    User user;
    if (!object.is_object()) {
        return user;
    }
    if (const auto id = object.find("id"); id != object.end() && isInt64(*id)) {
        user.id = id->dump();
    }
    if (const auto name = object.find("name"); name != object.end() && name->is_string()) {
        user.name = name->get<std::string>();
    }
    if (const auto agent = object.find("agent"); agent != object.end() && agent->is_boolean()) {
        user.agent = agent->get<bool>();
    }
    if (const auto tags = object.find("tags"); tags != object.end() && tags->is_array()) {
        std::vector<std::string> all;
        bool wellTyped = true;
        for (const auto& tag : *tags) {
            wellTyped = wellTyped && tag.is_string();
            if (wellTyped) {
                all.push_back(tag.get<std::string>());
            }
        }
        if (wellTyped) {
            user.tags = std::move(all);
        }
    }
    if (const auto fields = object.find("user_fields"); fields != object.end() && fields->is_object()) {
        for (const auto& [key, value] : fields->items()) {
            user.user_fields.emplace(key, fieldText(value));
        }
    }
    if (const auto photo = object.find("photo"); photo != object.end() && photo->is_object()) {
        if (const auto url = photo->find("content_url"); url != photo->end() && url->is_string()) {
            user.content_url = url->get<std::string>();
        }
    }
    return user;
}

namespace {

// Ids are kept as the decimal text of the account's integers; they go back out as integers.
json integerOrText(const std::string& text) {
    const auto parsed = platform::parseJson(text);
    return parsed.is_number_integer() ? parsed : json(text);
}

}  // namespace

json User::toJson() const {
    return json{{"id", integerOrText(id)},
                {"name", name},
                {"agent", agent},
                {"tags", tags},
                {"user_fields", user_fields},
                {"photo", {{"content_url", content_url}}}};
}

json UserFieldOption::toJson() const {
    return json{{"id", integerOrText(id)}, {"name", name},        {"raw_name", raw_name}, {"url", url},
                {"value", value},          {"position", position}};
}

json UserField::toJson() const {
    const auto& dates = DateStringParser::withoutMilliseconds();
    json object{{"id", integerOrText(id)},
                {"url", url},
                {"key", key},
                {"type", fieldType()},
                {"title", title},
                {"raw_title", raw_title},
                {"description", fieldDescription},
                {"raw_description", raw_description},
                {"position", position},
                {"active", active},
                {"system", system},
                {"regexp_for_validation", regexp_for_validation},
                {"created_at", dates.string(created_at)},
                {"updated_at", dates.string(updated_at)}};
    if (custom_field_options) {
        object["custom_field_options"] = json::array();
        for (const auto& option : *custom_field_options) {
            object["custom_field_options"].push_back(option.toJson());
        }
    }
    return object;
}

std::string UserField::fieldType() const {
    return fieldTypes[static_cast<int>(type)];
}

Result<UserField> UserField::fromJson(const json& object) {
    if (!object.is_object()) {
        return Result<UserField>::error(DecodingError::typeMismatch("Expected an object for a user field."));
    }
    Strict read{object, std::nullopt};
    UserField field;
    read.integerText("id", field.id);
    read.text("url", field.url);
    read.text("key", field.key);
    std::string type;
    read.text("type", type);
    if (!read.error) {
        const auto* found = std::find(std::begin(fieldTypes), std::end(fieldTypes), type);
        if (found == std::end(fieldTypes)) {
            read.error =
                DecodingError::dataCorrupted("Cannot initialize FieldType from invalid String value " + type);
        } else {
            field.type = static_cast<FieldType>(found - std::begin(fieldTypes));
        }
    }
    read.text("title", field.title);
    read.text("raw_title", field.raw_title);
    read.text("description", field.fieldDescription);
    read.text("raw_description", field.raw_description);
    read.integer("position", field.position);
    read.boolean("active", field.active);
    read.boolean("system", field.system);
    read.text("regexp_for_validation", field.regexp_for_validation);
    read.date("created_at", field.created_at);
    read.date("updated_at", field.updated_at);
    if (read.error) {
        return Result<UserField>::error(*read.error);
    }
    if (const auto options = object.find("custom_field_options");
        options != object.end() && !options->is_null()) {
        if (!options->is_array()) {
            return Result<UserField>::error(
                DecodingError::typeMismatch("Expected an array for \"custom_field_options\"."));
        }
        field.custom_field_options.emplace();
        for (const auto& option : *options) {
            auto decoded = optionFromJson(option);
            if (decoded.isError()) {
                return Result<UserField>::error(decoded.error());
            }
            field.custom_field_options->push_back(std::move(decoded).value());
        }
    }
    return Result<UserField>::success(std::move(field));
}

Result<User> decodeUserContainer(const Data& data) {
    const auto parsed = platform::parseJson(data.view());
    if (parsed.is_discarded()) {
        return Result<User>::error(DecodingError::dataCorrupted("The given data was not valid JSON."));
    }
    if (!parsed.is_object() || !parsed.contains("user")) {
        return Result<User>::error(DecodingError::keyNotFound("user"));
    }
    if (!parsed["user"].is_object()) {
        return Result<User>::error(DecodingError::typeMismatch("Expected an object for \"user\"."));
    }
    return Result<User>::success(User::fromJson(parsed["user"]));
}

Result<std::vector<UserField>> decodeUserFields(const Data& data) {
    using R = Result<std::vector<UserField>>;
    const auto parsed = platform::parseJson(data.view());
    if (parsed.is_discarded()) {
        return R::error(DecodingError::dataCorrupted("The given data was not valid JSON."));
    }
    if (!parsed.is_object() || !parsed.contains("user_fields")) {
        return R::error(DecodingError::keyNotFound("user_fields"));
    }
    if (!parsed["user_fields"].is_array()) {
        return R::error(DecodingError::typeMismatch("Expected an array for \"user_fields\"."));
    }
    std::vector<UserField> fields;
    for (const auto& entry : parsed["user_fields"]) {
        auto field = UserField::fromJson(entry);
        if (field.isError()) {
            return R::error(field.error());
        }
        fields.push_back(std::move(field).value());
    }
    return R::success(std::move(fields));
}

std::string tagQuery(const std::vector<std::string>& tags) {
    std::string joined;
    for (std::size_t i = 0; i < tags.size(); ++i) {
        joined += (i > 0 ? "," : "") + tags[i];
    }
    // The characters a URL host may hold as they are, less those that delimit query parameters ("&", "=",
    // "+"), so that a tag can never add a parameter; every other byte is percent-encoded.
    static constexpr std::string_view allowed =
        "!$'()*,-.0123456789:;ABCDEFGHIJKLMNOPQRSTUVWXYZ[]_abcdefghijklmnopqrstuvwxyz~";
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string encoded;
    for (const char c : joined) {
        if (allowed.find(c) != std::string_view::npos) {
            encoded += c;
        } else {
            const auto byte = static_cast<unsigned char>(c);
            encoded += '%';
            encoded += hex[byte >> 4];
            encoded += hex[byte & 0x0F];
        }
    }
    return encoded;
}

template <class T>
void UserProvider::send(std::string_view path, HttpMethod method, std::optional<Data> body,
                        std::function<Result<T>(const Data&)> decode,
                        std::function<void(Result<T>)> callback) const {
    auto url = resourceURL(details_->accountUrl(), path);
    if (url.isError()) {
        platform::DispatchQueue::main().async(
            [callback = std::move(callback), error = url.error()] { callback(Result<T>::error(error)); });
        return;
    }
    makeProviderService(details_, std::move(url).value(), true, method, {}, std::move(body),
                        platform::DispatchQueue::main())
        .perform([decode = std::move(decode), callback = std::move(callback)](
                     const std::optional<Data>& data,
                     const std::shared_ptr<const platform::HTTPURLResponse>& response,
                     const std::optional<Error>& error) {
            if (error) {
                callback(Result<T>::error(*error));
            } else if (!data) {
                callback(Result<T>::error(Error(std::string(errors::coreDomain), errors::userNoData)));
            } else {
                auto decoded = decode(*data);
                const int status = response ? response->statusCode() : 0;
                if (decoded.isError() && (status < 200 || status > 299)) {
                    // The body of a 401, 429 or 503 is rarely the record asked for: say which answer it was.
                    auto info = decoded.error().userInfo();
                    info[std::string(errors::httpStatusCodeKey)] = status;
                    decoded = Result<T>::error(Error(std::string(decoded.error().domain()),
                                                     decoded.error().code(), std::move(info)));
                }
                callback(std::move(decoded));
            }
        });
}

void UserProvider::getUser(std::function<void(Result<User>)> callback) const {
    send<User>("/api/mobile/users/me.json", HttpMethod::get, std::nullopt, decodeUserContainer,
               std::move(callback));
}

void UserProvider::addTags(const std::vector<std::string>& tags,
                           std::function<void(Result<User>)> callback) const {
    send<User>("/api/mobile/user_tags.json", HttpMethod::post,
               Data::fromString(platform::dumpJson(json{{"tags", tags}})), decodeUserContainer,
               std::move(callback));
}

void UserProvider::deleteTags(const std::vector<std::string>& tags,
                              std::function<void(Result<User>)> callback) const {
    send<User>("/api/mobile/user_tags/destroy_many.json?tags=" + tagQuery(tags), HttpMethod::delete_,
               std::nullopt, decodeUserContainer, std::move(callback));
}

void UserProvider::setUserFields(const std::map<std::string, json>& userFields,
                                 std::function<void(Result<User>)> callback) const {
    json fields = json::object();
    for (const auto& [key, value] : userFields) {
        // Checked before the value is copied: copying (and printing) JSON recurses once per level.
        if (!platform::isWithinJsonDepth(value)) {
            platform::DispatchQueue::main().async([callback, name = key] {
                callback(Result<User>::error(
                    Error::withDescription(std::string(errors::decodingDomain), errors::encodingFailed,
                                           "The value of the user field \"" + name + "\" nests deeper than " +
                                               std::to_string(platform::maximumJsonDepth) + " levels.")));
            });
            return;
        }
        fields[key] = value;
    }
    send<User>("/api/mobile/users/me.json", HttpMethod::put,
               Data::fromString(platform::dumpJson(json{{"user", {{"user_fields", fields}}}})),
               decodeUserContainer, std::move(callback));
}

void UserProvider::getUserFields(std::function<void(Result<std::vector<UserField>>)> callback) const {
    send<std::vector<UserField>>("/api/mobile/user_fields.json", HttpMethod::get, std::nullopt,
                                 decodeUserFields, std::move(callback));
}

}  // namespace velmora
