#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "velmora/platform/Data.h"
#include "velmora/platform/PropertyList.h"

namespace velmora::platform {

// Keyed archives: the binary property lists in which an object runtime stores an object graph, with
// "$archiver", "$top", "$objects", class records under "$class" and references as UIDs ("$null" for an
// absent value). The library reads and writes flat objects whose members are strings, which is all the
// archives of its earlier generation hold.

// The members an object writes into its archive record.
class KeyedEncoder {
  public:
    // An absent value is written as a reference to "$null", as the runtime does for nil.
    void encode(const std::optional<std::string>& value, std::string_view key);

  private:
    friend class KeyedArchiver;
    std::vector<std::pair<std::string, std::optional<std::string>>> members_;
};

class KeyedArchiver {
  public:
    // An archive whose root object is of `className` (with its superclasses after it in `classHierarchy`,
    // ending in the root class) and has the members the encoder was given.
    static Data archivedData(std::string_view className, const std::vector<std::string>& classHierarchy,
                             const KeyedEncoder& encoder);
};

// The root object of an archive, as far as it can be read.
class KeyedDecoder {
  public:
    // Nothing when the bytes are not a well-formed keyed archive: not a binary property list, another
    // archiver, a missing or dangling reference, a root or class record of the wrong shape, or a reference
    // cycle.
    static std::optional<KeyedDecoder> forRootObject(const Data& archive);

    const std::string& className() const { return className_; }
    // The string member under the key; nothing when absent, "$null", or not a string.
    std::optional<std::string> decodeString(std::string_view key) const;
    bool containsValue(std::string_view key) const;

  private:
    KeyedDecoder() = default;

    std::string className_;
    std::map<std::string, std::optional<PropertyValue>, std::less<>> members_;  // resolved one level deep
};

}  // namespace velmora::platform
