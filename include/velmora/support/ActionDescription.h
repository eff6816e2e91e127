#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <utility>

#include "velmora/Export.h"
#include "velmora/platform/Image.h"

namespace velmora {

// How an action presents itself: its title, the title for assistive technologies, and an icon that a
// resource bundle may hold. A plain value.
class VELMORA_EXPORT ActionDescription {
  public:
    ActionDescription(std::string label, std::string accessibilityLabel,
                      std::optional<std::string> icon = std::nullopt,
                      std::optional<std::filesystem::path> bundle = std::nullopt)
        : localisedLabel(std::move(label)),
          localisedAccessibilityLabel(std::move(accessibilityLabel)),
          iconName(std::move(icon)),
          bundleUrl(std::move(bundle)) {}

    std::string localisedLabel;
    std::string localisedAccessibilityLabel;
    // The name of an image resource.
    std::optional<std::string> iconName;
    // The resource bundle (a directory) that holds the image.
    std::optional<std::filesystem::path> bundleUrl;

    // Loaded on the first read (platform::Image::named) and kept for every later one, whatever it was:
    // empty when either field above is missing, the bundle does not open or holds no such image. Like any
    // value, not for first reads from two threads at once.
    const std::optional<platform::Image>& iconImage() const;
    void setIconImage(std::optional<platform::Image> image) { iconImage_.emplace(std::move(image)); }

  private:
    mutable std::optional<std::optional<platform::Image>> iconImage_;  // outer empty: not read yet
};

}  // namespace velmora
