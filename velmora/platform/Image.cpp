#include "velmora/platform/Image.h"

#include <cstdint>
#include <fstream>
#include <iterator>
#include <vector>

#include "velmora/platform/Environment.h"

namespace velmora::platform {
namespace {

std::optional<std::filesystem::path> openBundle(const std::filesystem::path& bundleUrl) {
    std::error_code error;
    return std::filesystem::is_directory(bundleUrl, error) ? std::optional(bundleUrl) : std::nullopt;
}

// The file of that name in the bundle, tried as given and then with the usual image suffixes. A name is one
// file name: nothing outside the bundle is read for it.
std::optional<Image> imageInDirectory(std::string_view name, const std::filesystem::path& bundle) {
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string_view::npos) {
        return std::nullopt;
    }
    for (const char* suffix : {"", ".png", "@2x.png", "@3x.png", ".jpg", ".jpeg"}) {
        const auto file = bundle / (std::string(name) + suffix);
        std::error_code error;
        if (!std::filesystem::is_regular_file(file, error)) {
            continue;
        }
        std::ifstream in(file, std::ios::binary);
        std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                        std::istreambuf_iterator<char>());
        if (in.bad()) {
            return std::nullopt;
        }
        return Image{std::string(name), Data(std::move(bytes))};
    }
    return std::nullopt;
}

}  // namespace

std::optional<Image> Image::named(std::string_view imageName, const std::filesystem::path& bundleUrl) {
    const auto environment = Environment::current();
    const auto bundle =
        environment->bundleLoader ? environment->bundleLoader(bundleUrl) : openBundle(bundleUrl);
    if (!bundle) {
        return std::nullopt;
    }
    return environment->imageLoader ? environment->imageLoader(imageName, *bundle)
                                    : imageInDirectory(imageName, *bundle);
}

}  // namespace velmora::platform
