#include "velmora/platform/Error.h"
#include "velmora/platform/Json.h"

namespace velmora::platform {

Error::Error(std::string domain, std::int64_t code, nlohmann::json userInfo)
    : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo)) {
    if (!userInfo_.is_object()) {
        userInfo_ = nlohmann::json::object();
    }
}

Error Error::withDescription(std::string domain, std::int64_t code, std::string localizedDescription) {
    return Error(std::move(domain), code,
                 nlohmann::json{{std::string(localizedDescriptionKey), std::move(localizedDescription)}});
}

std::string Error::localizedDescription() const {
    const auto it = userInfo_.find(localizedDescriptionKey);
    if (it != userInfo_.end() && it->is_string()) {
        return it->get<std::string>();
    }
    return "The operation couldn\u2019t be completed. (" + domain_ + " error " + std::to_string(code_) + ".)";
}

std::string Error::description() const {
    return "Error Domain=" + domain_ + " Code=" + std::to_string(code_) + " \"" + localizedDescription() +
           "\" UserInfo=" + dumpJson(userInfo_);
}

}  // namespace velmora::platform
