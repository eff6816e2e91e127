#include "velmora/platform/PropertyList.h"

#include <plist/plist.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

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

// Reads binary property lists. Written here rather than taken from libplist, whose reader aborts the process
// on strings with embedded NUL characters and loses the sign of dates before 2001: stored values and the
// earlier generation's archives are untrusted bytes, and must never take the host down.
class BinaryPropertyListReader {
  public:
    explicit BinaryPropertyListReader(const Data& bytes) : bytes_(bytes.view()) {}

    std::optional<PropertyValue> read() {
        if (bytes_.size() < 8 + 32 || bytes_.substr(0, 8) != "bplist00") {
            return std::nullopt;
        }
        const std::size_t trailer = bytes_.size() - 32;
        offsetSize_ = static_cast<unsigned char>(bytes_[trailer + 6]);
        referenceSize_ = static_cast<unsigned char>(bytes_[trailer + 7]);
        const auto objects = bigEndian(trailer + 8, 8);
        const auto top = bigEndian(trailer + 16, 8);
        const auto tableOffset = bigEndian(trailer + 24, 8);
        if (offsetSize_ < 1 || offsetSize_ > 8 || referenceSize_ < 1 || referenceSize_ > 8 || !objects ||
            !top || !tableOffset || *objects == 0 || *top >= *objects || *tableOffset < 8 ||
            *tableOffset > trailer || *objects > (trailer - *tableOffset) / offsetSize_) {
            return std::nullopt;
        }
        tableOffset_ = *tableOffset;
        objectCount_ = *objects;
        onPath_.assign(objectCount_, false);
        return object(*top, 0);
    }

  private:
    static constexpr std::size_t maximumNodes = 1'000'000;

    std::optional<std::uint64_t> bigEndian(std::size_t at, std::size_t size) const {
        if (size > 8 || at > bytes_.size() || size > bytes_.size() - at) {
            return std::nullopt;
        }
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < size; ++i) {
            value = (value << 8) | static_cast<unsigned char>(bytes_[at + i]);
        }
        return value;
    }

    // The length in the marker's low nibble, or in the integer object that follows when it is 0xF.
    std::optional<std::pair<std::uint64_t, std::size_t>> lengthAt(std::size_t at) const {
        const unsigned nibble = static_cast<unsigned char>(bytes_[at]) & 0x0F;
        if (nibble != 0x0F) {
            return std::pair<std::uint64_t, std::size_t>{nibble, at + 1};
        }
        if (at + 1 >= bytes_.size() || (static_cast<unsigned char>(bytes_[at + 1]) & 0xF0) != 0x10) {
            return std::nullopt;
        }
        const std::size_t size = std::size_t{1} << (static_cast<unsigned char>(bytes_[at + 1]) & 0x0F);
        const auto length = bigEndian(at + 2, size);
        if (!length) {
            return std::nullopt;
        }
        return std::pair<std::uint64_t, std::size_t>{*length, at + 2 + size};
    }

    bool fits(std::size_t at, std::uint64_t count, std::size_t unit) const {
        return at <= tableOffset_ && count <= (tableOffset_ - at) / unit;
    }

    std::optional<PropertyValue> reference(std::size_t at, int depth) {
        const auto index = bigEndian(at, referenceSize_);
        return index ? object(*index, depth + 1) : std::nullopt;
    }

    std::optional<PropertyValue> object(std::uint64_t index, int depth) {
        if (index >= objectCount_ || depth > maximumDepth || ++nodes_ > maximumNodes || onPath_[index]) {
            return std::nullopt;  // out of range, too deep or too large, or a cycle
        }
        const auto offset = bigEndian(tableOffset_ + index * offsetSize_, offsetSize_);
        if (!offset || *offset < 8 || *offset >= tableOffset_) {
            return std::nullopt;
        }
        onPath_[index] = true;
        auto value = objectAt(static_cast<std::size_t>(*offset), depth);
        onPath_[index] = false;
        return value;
    }

    std::optional<PropertyValue> objectAt(std::size_t at, int depth) {
        const auto marker = static_cast<unsigned char>(bytes_[at]);
        const unsigned info = marker & 0x0F;
        switch (marker >> 4) {
            case 0x0:
                if (marker == 0x08 || marker == 0x09) {
                    return PropertyValue(marker == 0x09);
                }
                return std::nullopt;
            case 0x1: {
                const std::size_t size = std::size_t{1} << info;
                if (info > 4 || !fits(at + 1, size, 1)) {
                    return std::nullopt;
                }
                // 16-byte integers carry values past the signed 64-bit range; their low half is the bit
                // pattern of the signed value, as the writer stores negative numbers.
                const auto value = bigEndian(at + 1 + (size == 16 ? 8 : 0), size == 16 ? 8 : size);
                return value ? std::optional<PropertyValue>(static_cast<std::int64_t>(*value)) : std::nullopt;
            }
            case 0x2: {
                if ((info != 2 && info != 3) || !fits(at + 1, std::size_t{1} << info, 1)) {
                    return std::nullopt;
                }
                return PropertyValue(info == 2 ? static_cast<double>(floatAt(at + 1)) : doubleAt(at + 1));
            }
            case 0x3: {
                if (marker != 0x33 || !fits(at + 1, 8, 1)) {
                    return std::nullopt;
                }
                const double seconds = doubleAt(at + 1);
                if (!std::isfinite(seconds) || std::abs(seconds) > 1e14) {
                    return std::nullopt;
                }
                return PropertyValue(Date::fromMillisecondsSince1970(std::llround(seconds * 1000.0) +
                                                                     referenceDateMilliseconds));
            }
            case 0x4: {
                const auto length = lengthAt(at);
                if (!length || !fits(length->second, length->first, 1)) {
                    return std::nullopt;
                }
                return PropertyValue(
                    Data(bytes_.data() + length->second, static_cast<std::size_t>(length->first)));
            }
            case 0x5:
            case 0x6: {
                auto text = stringAt(at);
                return text ? std::optional<PropertyValue>(std::move(*text)) : std::nullopt;
            }
            case 0x8: {
                const auto value = bigEndian(at + 1, info + 1);
                return value && fits(at + 1, info + 1, 1) ? std::optional<PropertyValue>(PropertyUid{*value})
                                                          : std::nullopt;
            }
            case 0xA: {
                const auto length = lengthAt(at);
                if (!length || !fits(length->second, length->first, referenceSize_)) {
                    return std::nullopt;
                }
                PropertyValue::Array array;
                for (std::uint64_t i = 0; i < length->first; ++i) {
                    auto item = reference(length->second + i * referenceSize_, depth);
                    if (!item) {
                        return std::nullopt;
                    }
                    array.push_back(std::move(*item));
                }
                return PropertyValue(std::move(array));
            }
            case 0xD: {
                const auto length = lengthAt(at);
                if (!length || length->first > SIZE_MAX / 2 ||
                    !fits(length->second, 2 * length->first, referenceSize_)) {
                    return std::nullopt;
                }
                PropertyValue::Dictionary dictionary;
                const std::size_t values = length->second + length->first * referenceSize_;
                for (std::uint64_t i = 0; i < length->first; ++i) {
                    auto key = reference(length->second + i * referenceSize_, depth);
                    auto value = reference(values + i * referenceSize_, depth);
                    if (!key || !value || !key->is<std::string>()) {
                        return std::nullopt;
                    }
                    dictionary.insert_or_assign(*key->getIf<std::string>(), std::move(*value));
                }
                return PropertyValue(std::move(dictionary));
            }
            default:
                return std::nullopt;  // sets, and kinds no writer of the format uses
        }
    }

    // ASCII (0x5) or UTF-16 big-endian (0x6) text, as UTF-8. Text with NUL characters or invalid code units
    // is refused: it could not be written back.
    std::optional<std::string> stringAt(std::size_t at) const {
        const bool wide = (static_cast<unsigned char>(bytes_[at]) >> 4) == 0x6;
        const auto length = lengthAt(at);
        if (!length || !fits(length->second, length->first, wide ? 2 : 1)) {
            return std::nullopt;
        }
        std::string text;
        if (!wide) {
            text.assign(bytes_.data() + length->second, static_cast<std::size_t>(length->first));
            for (const char c : text) {
                if (c == '\0' || static_cast<unsigned char>(c) > 0x7F) {
                    return std::nullopt;
                }
            }
            return text;
        }
        for (std::uint64_t i = 0; i < length->first; ++i) {
            std::uint32_t unit = static_cast<std::uint32_t>(*bigEndian(length->second + 2 * i, 2));
            if (unit >= 0xD800 && unit <= 0xDBFF) {
                if (i + 1 >= length->first) {
                    return std::nullopt;
                }
                const auto low = static_cast<std::uint32_t>(*bigEndian(length->second + 2 * (i + 1), 2));
                if (low < 0xDC00 || low > 0xDFFF) {
                    return std::nullopt;
                }
                unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
                ++i;
            } else if ((unit >= 0xDC00 && unit <= 0xDFFF) || unit == 0) {
                return std::nullopt;
            }
            appendUtf8(text, unit);
        }
        return text;
    }

    static void appendUtf8(std::string& out, std::uint32_t codePoint) {
        if (codePoint < 0x80) {
            out += static_cast<char>(codePoint);
        } else if (codePoint < 0x800) {
            out += static_cast<char>(0xC0 | (codePoint >> 6));
            out += static_cast<char>(0x80 | (codePoint & 0x3F));
        } else if (codePoint < 0x10000) {
            out += static_cast<char>(0xE0 | (codePoint >> 12));
            out += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (codePoint & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (codePoint >> 18));
            out += static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (codePoint & 0x3F));
        }
    }

    double doubleAt(std::size_t at) const {
        const std::uint64_t bits = *bigEndian(at, 8);
        double value = 0;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    }

    float floatAt(std::size_t at) const {
        const auto bits = static_cast<std::uint32_t>(*bigEndian(at, 4));
        float value = 0;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    }

    std::string_view bytes_;
    std::size_t offsetSize_ = 0;
    std::size_t referenceSize_ = 0;
    std::size_t tableOffset_ = 0;
    std::uint64_t objectCount_ = 0;
    std::vector<bool> onPath_;
    std::size_t nodes_ = 0;
};

}  // namespace

void setOrRemove(PropertyValue::Dictionary& dictionary, const std::string& key,
                 const std::optional<PropertyValue>& value) {
    if (value) {
        dictionary.insert_or_assign(key, *value);
    } else {
        dictionary.erase(key);
    }
}

std::string textOf(const PropertyValue& value) {
    if (const auto* s = value.getIf<std::string>()) {
        return *s;
    }
    if (const auto* d = value.getIf<Data>()) {
        return std::to_string(d->size()) + " bytes";
    }
    if (const auto* date = value.getIf<Date>()) {
        static const auto& formatter = *new DateFormatter("yyyy-MM-dd HH:mm:ss '+0000'");
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
    return BinaryPropertyListReader(bytes).read();
}

}  // namespace velmora::platform
