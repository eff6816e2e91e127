#include "velmora/platform/PropertyList.h"

#include <plist/plist.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "velmora/platform/DateFormatter.h"
#include "velmora/platform/Format.h"

namespace velmora::platform {
namespace {

// Property-list dates count from 2001-01-01T00:00:00Z.
constexpr std::int64_t referenceDateMilliseconds = 978'307'200'000;
// Deeper nesting than this is not something the library writes; refusing it keeps hostile input from
// exhausting the stack.
constexpr int maximumDepth = 256;

struct PlistDeleter {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

struct MallocFree {
    void operator()(void* p) const { std::free(p); }
};

// Seconds from the reference date. libplist's own getter drops the sign of the fraction (and with it any
// date in the second before 2001), so the node's binary form is read instead: a date object is the marker
// 0x33 followed by a big-endian double, right after the 8-byte header.
double referenceSeconds(plist_t node) {
    char* bytes = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(node, &bytes, &length);
    std::unique_ptr<char, void (*)(char*)> owned(bytes, plist_to_bin_free);
    if (bytes == nullptr || length < 17 || static_cast<unsigned char>(bytes[8]) != 0x33) {
        std::int32_t seconds = 0;
        std::int32_t micros = 0;
        plist_get_date_val(node, &seconds, &micros);
        return seconds + micros / 1e6;
    }
    std::uint64_t bits = 0;
    for (int i = 0; i < 8; ++i) {
        bits = (bits << 8) | static_cast<unsigned char>(bytes[9 + i]);
    }
    double value = 0;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

plist_t toNode(const PropertyValue& value) {
    if (const auto* s = value.getIf<std::string>()) {
        return plist_new_string(s->c_str());
    }
    if (const auto* d = value.getIf<Data>()) {
        return plist_new_data(reinterpret_cast<const char*>(d->data()), d->size());
    }
    if (const auto* date = value.getIf<Date>()) {
        const std::int64_t ms = date->millisecondsSince1970() - referenceDateMilliseconds;
        const std::int64_t seconds = ms >= 0 ? ms / 1000 : -((-ms + 999) / 1000);
        return plist_new_date(static_cast<std::int32_t>(seconds),
                              static_cast<std::int32_t>((ms - seconds * 1000) * 1000));
    }
    if (const auto* i = value.getIf<std::int64_t>()) {
        // The binary format's 8-byte integers are signed; the bit pattern carries the sign through.
        return plist_new_uint(static_cast<std::uint64_t>(*i));
    }
    if (const auto* r = value.getIf<double>()) {
        return plist_new_real(*r);
    }
    if (const auto* b = value.getIf<bool>()) {
        return plist_new_bool(*b ? 1 : 0);
    }
    if (const auto* array = value.getIf<PropertyValue::Array>()) {
        plist_t node = plist_new_array();
        for (const auto& item : *array) {
            plist_array_append_item(node, toNode(item));
        }
        return node;
    }
    if (const auto* dict = value.getIf<PropertyValue::Dictionary>()) {
        plist_t node = plist_new_dict();
        for (const auto& [key, item] : *dict) {
            plist_dict_set_item(node, key.c_str(), toNode(item));
        }
        return node;
    }
    return plist_new_uid(value.getIf<PropertyUid>()->index);
}

std::optional<PropertyValue> fromNode(plist_t node, int depth) {
    if (node == nullptr || depth > maximumDepth) {
        return std::nullopt;
    }
    switch (plist_get_node_type(node)) {
        case PLIST_STRING: {
            char* text = nullptr;
            plist_get_string_val(node, &text);
            std::unique_ptr<char, MallocFree> owned(text);
            return text != nullptr ? std::optional<PropertyValue>(std::string(text)) : std::nullopt;
        }
        case PLIST_DATA: {
            char* bytes = nullptr;
            std::uint64_t length = 0;
            plist_get_data_val(node, &bytes, &length);
            std::unique_ptr<char, MallocFree> owned(bytes);
            return PropertyValue(Data(bytes, bytes != nullptr ? length : 0));
        }
        case PLIST_DATE: {
            const double seconds = referenceSeconds(node);
            return PropertyValue(
                Date::fromMillisecondsSince1970(std::llround(seconds * 1000.0) + referenceDateMilliseconds));
        }
        case PLIST_UINT: {
            std::uint64_t n = 0;
            plist_get_uint_val(node, &n);
            return PropertyValue(static_cast<std::int64_t>(n));
        }
        case PLIST_REAL: {
            double r = 0;
            plist_get_real_val(node, &r);
            return PropertyValue(r);
        }
        case PLIST_BOOLEAN: {
            std::uint8_t b = 0;
            plist_get_bool_val(node, &b);
            return PropertyValue(b != 0);
        }
        case PLIST_UID: {
            std::uint64_t index = 0;
            plist_get_uid_val(node, &index);
            return PropertyValue(PropertyUid{index});
        }
        case PLIST_ARRAY: {
            PropertyValue::Array array;
            const auto size = plist_array_get_size(node);
            for (std::uint32_t i = 0; i < size; ++i) {
                auto item = fromNode(plist_array_get_item(node, i), depth + 1);
                if (!item) {
                    return std::nullopt;
                }
                array.push_back(std::move(*item));
            }
            return PropertyValue(std::move(array));
        }
        case PLIST_DICT: {
            PropertyValue::Dictionary dict;
            plist_dict_iter it = nullptr;
            plist_dict_new_iter(node, &it);
            std::unique_ptr<void, MallocFree> ownedIter(it);
            for (;;) {
                char* key = nullptr;
                plist_t item = nullptr;
                plist_dict_next_item(node, it, &key, &item);
                std::unique_ptr<char, MallocFree> ownedKey(key);
                if (item == nullptr) {
                    break;
                }
                auto value = fromNode(item, depth + 1);
                if (key == nullptr || !value) {
                    return std::nullopt;
                }
                dict.insert_or_assign(std::string(key), std::move(*value));
            }
            return PropertyValue(std::move(dict));
        }
        default:
            return std::nullopt;
    }
}

}  // namespace

std::string textOf(const PropertyValue& value) {
    if (const auto* s = value.getIf<std::string>()) {
        return *s;
    }
    if (const auto* d = value.getIf<Data>()) {
        return std::to_string(d->size()) + " bytes";
    }
    if (const auto* date = value.getIf<Date>()) {
        static const DateFormatter formatter("yyyy-MM-dd HH:mm:ss '+0000'");
        return formatter.string(*date);
    }
    if (const auto* i = value.getIf<std::int64_t>()) {
        return std::to_string(*i);
    }
    if (const auto* r = value.getIf<double>()) {
        return textOf(*r);
    }
    if (const auto* b = value.getIf<bool>()) {
        return textOf(*b);
    }
    if (const auto* array = value.getIf<PropertyValue::Array>()) {
        std::string out = "[";
        for (std::size_t i = 0; i < array->size(); ++i) {
            out += (i > 0 ? ", " : "") + textOf((*array)[i]);
        }
        return out + "]";
    }
    if (const auto* dict = value.getIf<PropertyValue::Dictionary>()) {
        if (dict->empty()) {
            return "[:]";
        }
        std::string out = "[";
        for (const auto& [key, item] : *dict) {
            out += (out.size() > 1 ? ", " : "") + key + ": " + textOf(item);
        }
        return out + "]";
    }
    return "UID(" + std::to_string(value.getIf<PropertyUid>()->index) + ")";
}

std::string textOf(const std::optional<PropertyValue>& value) {
    return value ? textOf(*value) : "nil";
}

Data encodeBinaryPropertyList(const PropertyValue& value) {
    PlistPtr root(toNode(value));
    char* bytes = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(static_cast<plist_t>(root.get()), &bytes, &length);
    Data out(bytes, bytes != nullptr ? length : 0);
    plist_to_bin_free(bytes);
    return out;
}

std::optional<PropertyValue> decodeBinaryPropertyList(const Data& bytes) {
    if (bytes.size() < 8 || bytes.size() > UINT32_MAX || bytes.view().substr(0, 8) != "bplist00") {
        return std::nullopt;
    }
    plist_t root = nullptr;
    plist_from_bin(reinterpret_cast<const char*>(bytes.data()), static_cast<std::uint32_t>(bytes.size()),
                   &root);
    PlistPtr owned(root);
    return fromNode(root, 0);
}

}  // namespace velmora::platform
