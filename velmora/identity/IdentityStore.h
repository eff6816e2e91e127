#pragma once

#include <string_view>

#include "velmora/Export.h"
#include "velmora/storage/AppStorable.h"

namespace velmora {

// Everything known about the current end user between launches, per app id.
class VELMORA_EXPORT IdentityStore : public AppStorable {
  public:
    static constexpr std::string_view suite = "com.velmora.core.identity";

    explicit IdentityStore(std::string appId) : AppStorable(suite, std::move(appId)) {}
};

}  // namespace velmora
