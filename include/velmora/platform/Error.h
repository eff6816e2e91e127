#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "velmora/Export.h"

namespace velmora::platform {

// The error value every asynchronous operation reports: a domain, an integer code and a dictionary of
// JSON values, like the platform error objects the library's callers already know how to handle.
class VELMORA_EXPORT Error {
  public:
    // The user-info key whose string value is the error's localized description.
    static constexpr std::string_view localizedDescriptionKey = "NSLocalizedDescription";

    Error(std::string domain, std::int64_t code, nlohmann::json userInfo = nlohmann::json::object());
    // Shorthand for an error whose user info holds only its localized description.
    static Error withDescription(std::string domain, std::int64_t code, std::string localizedDescription);

    const std::string& domain() const { return domain_; }
    std::int64_t code() const { return code_; }
    const nlohmann::json& userInfo() const { return userInfo_; }

    // The description meant for people: the user info's localized description when there is one,
    // otherwise a generic sentence naming the domain and code.
    std::string localizedDescription() const;
    // The printed form, for logs: domain, code, localized description and user info.
    std::string description() const;

    friend bool operator==(const Error&, const Error&) = default;

  private:
    std::string domain_;
    std::int64_t code_;
    nlohmann::json userInfo_;
};

}  // namespace velmora::platform

namespace velmora {
using platform::Error;
}
