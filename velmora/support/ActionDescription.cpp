#include "velmora/support/ActionDescription.h"

namespace velmora {

const std::optional<platform::Image>& ActionDescription::iconImage() const {
    if (!iconImage_) {
        iconImage_.emplace(iconName && bundleUrl ? platform::Image::named(*iconName, *bundleUrl)
                                                 : std::nullopt);
    }
    return *iconImage_;
}

}  // namespace velmora
