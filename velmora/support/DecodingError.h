#pragma once

#include <string>

#include "velmora/Errors.h"
#include "velmora/platform/Error.h"

namespace velmora {

// Errors of JSON decoding, with the codes the platform's decoder reports them under, so that hosts can tell
// a malformed answer (dataCorrupted, typeMismatch) from an incomplete one (keyNotFound, valueNotFound).
struct DecodingError {
    static constexpr std::string_view domain = errors::decodingDomain;
    static Error dataCorrupted(const std::string& debugDescription) {
        return make(errors::dataCorrupted, debugDescription);
    }
    static Error typeMismatch(const std::string& debugDescription) {
        return make(errors::dataCorrupted, debugDescription);
    }
    static Error keyNotFound(const std::string& key) {
        return make(errors::valueNotFound, "No value associated with key \"" + key + "\".");
    }

  private:
    static Error make(std::int64_t code, const std::string& debugDescription) {
        return Error(std::string(domain), code,
                     {{std::string(Error::localizedDescriptionKey),
                       code == errors::valueNotFound
                           ? "The data couldn\u2019t be read because it is missing."
                           : "The data couldn\u2019t be read because it isn\u2019t in the correct format."},
                      {"NSDebugDescription", debugDescription}});
    }
};

}  // namespace velmora
