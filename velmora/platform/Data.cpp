#include "velmora/platform/Data.h"

#include <cstring>

namespace velmora::platform {

Data::Data(const void* bytes, std::size_t size) {
    append(bytes, size);
}

Data Data::fromString(std::string_view text) {
    return Data(text.data(), text.size());
}

void Data::append(const void* bytes, std::size_t size) {
    if (size == 0) {
        return;
    }
    const auto* first = static_cast<const std::uint8_t*>(bytes);
    bytes_.insert(bytes_.end(), first, first + size);
}

std::string_view Data::view() const {
    return {reinterpret_cast<const char*>(bytes_.data()), bytes_.size()};
}

}  // namespace velmora::platform
