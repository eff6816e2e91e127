#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "velmora/Export.h"
#include "velmora/network/SharedHeaders.h"
#include "velmora/platform/Data.h"
#include "velmora/platform/Date.h"
#include "velmora/platform/Result.h"
#include "velmora/support/AccountDetails.h"

namespace velmora {

// The end user as the account knows them. Decoded leniently: each member falls back to its default alone.
struct VELMORA_EXPORT User {
    std::string id = "-1";  // the JSON integer as decimal text
    std::string name;
    bool agent = false;
    std::vector<std::string> tags;
    // Integers as decimal digits, strings as they are, booleans as "true"/"false", anything else as its
    // compact JSON text.
    std::map<std::string, std::string> user_fields;
    std::string content_url;  // "photo"."content_url"

    static User fromJson(const nlohmann::json& json);
    // The account's form, which fromJson reads back: "id" an integer, "content_url" under "photo".
    nlohmann::json toJson() const;
};

struct VELMORA_EXPORT UserFieldOption {
    std::string id;
    std::string name;
    std::string raw_name;
    std::string url;
    std::string value;
    std::int64_t position = 0;

    nlohmann::json toJson() const;
};

// One custom user field of the account. Decoded strictly: a missing or mistyped member fails the whole list.
struct VELMORA_EXPORT UserField {
    enum class FieldType { checkbox, date, decimal, dropdown, integer, regexp, text, textarea };

    std::string id;
    std::string url;
    std::string key;
    FieldType type = FieldType::text;
    std::string title;
    std::string raw_title;
    std::string fieldDescription;
    std::string raw_description;
    std::int64_t position = 0;
    bool active = false;
    bool system = false;
    std::string regexp_for_validation;
    Date created_at;
    Date updated_at;
    std::optional<std::vector<UserFieldOption>> custom_field_options;

    std::string fieldType() const;
    static Result<UserField> fromJson(const nlohmann::json& json);
    // The account's form, which fromJson reads back.
    nlohmann::json toJson() const;
};

// Decoders of the answers' envelopes, {"user": {...}} and {"user_fields": [...]}.
VELMORA_EXPORT Result<User> decodeUserContainer(const Data& data);
VELMORA_EXPORT Result<std::vector<UserField>> decodeUserFields(const Data& data);

// The tags joined with "," and percent-encoded with the characters allowed in a URL host.
VELMORA_EXPORT std::string tagQuery(const std::vector<std::string>& tags);

// Reads and changes the end user on the account. Every call goes through the default chain and calls back on
// the main queue.
class VELMORA_EXPORT UserProvider {
  public:
    explicit UserProvider(std::shared_ptr<const AccountDetails> accountDetails)
        : details_(std::move(accountDetails)) {}

    void getUser(std::function<void(Result<User>)> callback) const;
    void addTags(const std::vector<std::string>& tags, std::function<void(Result<User>)> callback) const;
    void deleteTags(const std::vector<std::string>& tags, std::function<void(Result<User>)> callback) const;
    // Each value is placed unchanged inside "user_fields".
    void setUserFields(const std::map<std::string, nlohmann::json>& userFields,
                       std::function<void(Result<User>)> callback) const;
    void getUserFields(std::function<void(Result<std::vector<UserField>>)> callback) const;

  private:
    template <class T>
    void send(std::string_view path, HttpMethod method, std::optional<Data> body,
              std::function<Result<T>(const Data&)> decode, std::function<void(Result<T>)> callback) const;

    std::shared_ptr<const AccountDetails> details_;
};

}  // namespace velmora
