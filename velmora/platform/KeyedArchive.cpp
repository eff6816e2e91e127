#include "velmora/platform/KeyedArchive.h"

namespace velmora::platform {
namespace {

constexpr std::int64_t archiveVersion = 100000;
constexpr std::string_view archiverName = "NSKeyedArchiver";

using Dictionary = PropertyValue::Dictionary;
using Array = PropertyValue::Array;

const PropertyValue* member(const Dictionary& dictionary, std::string_view key) {
    const auto it = dictionary.find(key);
    return it == dictionary.end() ? nullptr : &it->second;
}

// The object a reference points at; null for a value that is not a reference or points outside the table.
const PropertyValue* dereference(const PropertyValue& reference, const Array& objects) {
    const auto* uid = reference.getIf<PropertyUid>();
    if (uid == nullptr || uid->index >= objects.size()) {
        return nullptr;
    }
    return &objects[uid->index];
}

// A string object: a plain string, or a string class record ({"NS.string": ...}) as mutable strings are
// archived. `depth` bounds how far references are followed, which also ends any cycle.
std::optional<PropertyValue> resolveValue(const PropertyValue& reference, const Array& objects, int depth) {
    const PropertyValue* object = dereference(reference, objects);
    if (object == nullptr || depth > 4) {
        return std::nullopt;
    }
    if (const auto* dictionary = object->getIf<Dictionary>()) {
        if (const auto* inner = member(*dictionary, "NS.string")) {
            return inner->is<PropertyUid>() ? resolveValue(*inner, objects, depth + 1)
                                            : std::optional(*inner);
        }
    }
    return *object;
}

}  // namespace

void KeyedEncoder::encode(const std::optional<std::string>& value, std::string_view key) {
    members_.emplace_back(std::string(key), value);
}

Data KeyedArchiver::archivedData(std::string_view className, const std::vector<std::string>& classHierarchy,
                                 const KeyedEncoder& encoder) {
    Array objects{PropertyValue("$null")};
    Dictionary root;
    objects.emplace_back();  // the root record, filled in below so that it keeps index 1
    for (const auto& [key, value] : encoder.members_) {
        if (!value) {
            root.insert_or_assign(key, PropertyUid{0});
            continue;
        }
        root.insert_or_assign(key, PropertyUid{objects.size()});
        objects.emplace_back(*value);
    }
    Array classes;
    for (const auto& name : classHierarchy) {
        classes.emplace_back(name);
    }
    root.insert_or_assign("$class", PropertyUid{objects.size()});
    objects.emplace_back(
        Dictionary{{"$classname", std::string(className)}, {"$classes", std::move(classes)}});
    objects[1] = std::move(root);

    return encodeBinaryPropertyList(Dictionary{
        {"$version", archiveVersion},
        {"$archiver", std::string(archiverName)},
        {"$top", Dictionary{{"root", PropertyUid{1}}}},
        {"$objects", std::move(objects)},
    });
}

std::optional<KeyedDecoder> KeyedDecoder::forRootObject(const Data& archive) {
    const auto plist = decodeBinaryPropertyList(archive);
    const auto* top = plist ? plist->getIf<Dictionary>() : nullptr;
    if (top == nullptr) {
        return std::nullopt;
    }
    const auto* archiver = member(*top, "$archiver");
    const auto* topObjects = member(*top, "$top");
    const auto* objectTable = member(*top, "$objects");
    if (archiver == nullptr || archiver->getIf<std::string>() == nullptr ||
        *archiver->getIf<std::string>() != archiverName || topObjects == nullptr || objectTable == nullptr ||
        !topObjects->is<Dictionary>() || !objectTable->is<Array>()) {
        return std::nullopt;
    }
    const auto& objects = *objectTable->getIf<Array>();
    const auto* rootReference = member(*topObjects->getIf<Dictionary>(), "root");
    const PropertyValue* rootObject =
        rootReference != nullptr ? dereference(*rootReference, objects) : nullptr;
    const auto* root = rootObject != nullptr ? rootObject->getIf<Dictionary>() : nullptr;
    if (root == nullptr) {
        return std::nullopt;
    }
    const auto* classReference = member(*root, "$class");
    const PropertyValue* classObject =
        classReference != nullptr ? dereference(*classReference, objects) : nullptr;
    // A class record that is the root itself is a cycle, not a class.
    if (classObject == nullptr || classObject == rootObject) {
        return std::nullopt;
    }
    const auto* classRecord = classObject->getIf<Dictionary>();
    const auto* className = classRecord != nullptr ? member(*classRecord, "$classname") : nullptr;
    if (className == nullptr || !className->is<std::string>()) {
        return std::nullopt;
    }

    KeyedDecoder decoder;
    decoder.className_ = *className->getIf<std::string>();
    for (const auto& [key, value] : *root) {
        if (key == "$class") {
            continue;
        }
        if (!value.is<PropertyUid>()) {
            decoder.members_.insert_or_assign(key, value);  // scalars are stored inline
            continue;
        }
        if (dereference(value, objects) == nullptr) {
            return std::nullopt;
        }
        const bool isNull = value.getIf<PropertyUid>()->index == 0;
        decoder.members_.insert_or_assign(key, isNull ? std::nullopt : resolveValue(value, objects, 0));
    }
    return decoder;
}

std::optional<std::string> KeyedDecoder::decodeString(std::string_view key) const {
    const auto it = members_.find(key);
    if (it == members_.end() || !it->second) {
        return std::nullopt;
    }
    const auto* text = it->second->getIf<std::string>();
    return text != nullptr ? std::optional(*text) : std::nullopt;
}

bool KeyedDecoder::containsValue(std::string_view key) const {
    const auto it = members_.find(key);
    return it != members_.end() && it->second.has_value();
}

}  // namespace velmora::platform
