#pragma once

#include <concepts>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "velmora/platform/Data.h"
#include "velmora/platform/Date.h"

namespace velmora::platform {

// A reference inside a keyed archive's object table; only found in archives, never stored by the library.
struct PropertyUid {
    std::uint64_t index = 0;
    friend bool operator==(const PropertyUid&, const PropertyUid&) = default;
};

// One property-list value: what the user defaults store and what keyed archives are made of.
class PropertyValue {
  public:
    using Array = std::vector<PropertyValue>;
    using Dictionary = std::map<std::string, PropertyValue, std::less<>>;

    PropertyValue() : value_(std::string()) {}
    PropertyValue(std::string value) : value_(std::move(value)) {}
    PropertyValue(std::string_view value) : value_(std::string(value)) {}
    PropertyValue(const char* value) : value_(std::string(value)) {}
    PropertyValue(Data value) : value_(std::move(value)) {}
    PropertyValue(Date value) : value_(value) {}
    template <std::integral T>
    requires(!std::same_as<T, bool>) PropertyValue(T value) : value_(static_cast<std::int64_t>(value)) {}
    PropertyValue(double value) : value_(value) {}
    PropertyValue(bool value) : value_(value) {}
    PropertyValue(Array value) : value_(std::move(value)) {}
    PropertyValue(Dictionary value) : value_(std::move(value)) {}
    PropertyValue(PropertyUid value) : value_(value) {}

    // The value when it is of kind T (std::string, Data, Date, std::int64_t, double, bool, Array,
    // Dictionary, PropertyUid), else null.
    template <class T>
    const T* getIf() const {
        return std::get_if<T>(&value_);
    }
    template <class T>
    bool is() const {
        return std::holds_alternative<T>(value_);
    }

    friend bool operator==(const PropertyValue&, const PropertyValue&) = default;

  private:
    std::variant<std::string, Data, Date, std::int64_t, double, bool, Array, Dictionary, PropertyUid> value_;
};

// Sets the value under the key, or removes the key when there is no value.
void setOrRemove(PropertyValue::Dictionary& dictionary, const std::string& key,
                 const std::optional<PropertyValue>& value);

// The text a log line shows for a value: strings as they are, "N bytes" for data, numbers, dates in UTC,
// and collections in brackets.
std::string textOf(const PropertyValue& value);
std::string textOf(const std::optional<PropertyValue>& value);

// Binary property lists ("bplist00"). Dates keep whole milliseconds between 1933 and 2069 (the encoder's
// range). Strings must be UTF-8 without NUL bytes: the format has no way to keep anything else.
Data encodeBinaryPropertyList(const PropertyValue& value);
// Nothing when the bytes are not a binary property list, or nest deeper than the library ever writes.
std::optional<PropertyValue> decodeBinaryPropertyList(const Data& bytes);

}  // namespace velmora::platform

namespace velmora {
using platform::PropertyValue;
}
