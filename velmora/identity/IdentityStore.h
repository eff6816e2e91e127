#pragma once

#include <string_view>

#include "velmora/Export.h"
#include "velmora/storage/AppStorable.h"

namespace velmora {

// Everything known about the current end user between launches, per app id.
class VELMORA_EXPORT IdentityStore : public AppStorable {
  public:
    static constexpr std::string_view suite = "com.velmora.core.identity";

    using AppStorable::AppStorable;
    std::string_view suiteName() const override { return suite; }
};

}  // namespace velmora
