#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "velmora/Export.h"

namespace velmora::platform {

// An immutable-by-convention byte buffer: request and response bodies, stored settings, base64 input.
class VELMORA_EXPORT Data {
  public:
    Data() = default;
    explicit Data(std::vector<std::uint8_t> bytes) : bytes_(std::move(bytes)) {}
    Data(const void* bytes, std::size_t size);

    static Data fromString(std::string_view text);

    const std::uint8_t* data() const { return bytes_.data(); }
    std::size_t size() const { return bytes_.size(); }
    bool empty() const { return bytes_.empty(); }
    const std::vector<std::uint8_t>& bytes() const { return bytes_; }

    void append(const void* bytes, std::size_t size);
    void append(const Data& other) { append(other.data(), other.size()); }

    // The bytes as text, unchanged (no decoding or validation).
    std::string toString() const { return std::string(bytes_.begin(), bytes_.end()); }
    std::string_view view() const;

    friend bool operator==(const Data&, const Data&) = default;

  private:
    std::vector<std::uint8_t> bytes_;
};

}  // namespace velmora::platform

namespace velmora {
using platform::Data;
}
