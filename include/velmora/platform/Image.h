#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "velmora/Export.h"
#include "velmora/platform/Data.h"

namespace velmora::platform {

// An image resource as a bundle holds it: the name it was asked for and its encoded bytes (PNG, JPEG...).
// The library never decodes or draws it; that is the host's part.
struct VELMORA_EXPORT Image {
    std::string name;
    Data data;

    // The image `imageName` of the resource bundle at `bundleUrl`, through the environment's bundle and image
    // loaders: nothing when the bundle does not open or holds no such image.
    static std::optional<Image> named(std::string_view imageName, const std::filesystem::path& bundleUrl);

    friend bool operator==(const Image&, const Image&) = default;
};

// Opens the resource bundle at a location: the directory its resources are in, or nothing.
using BundleLoader =
    std::function<std::optional<std::filesystem::path>(const std::filesystem::path& bundleUrl)>;
// Loads the image of a name from an opened bundle directory, or nothing.
using ImageLoader =
    std::function<std::optional<Image>(std::string_view name, const std::filesystem::path& bundle)>;

}  // namespace velmora::platform
