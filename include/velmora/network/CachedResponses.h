#pragma once

#include <memory>
#include <optional>

#include "velmora/Export.h"
#include "velmora/platform/URLRequest.h"

namespace velmora {

// Decides what, if anything, the session's response cache keeps of an answer.
class VELMORA_EXPORT CachedHTTPURLResponseTransformer {
  public:
    virtual ~CachedHTTPURLResponseTransformer() = default;
    virtual std::optional<platform::CachedURLResponse> transform(
        const platform::CachedURLResponse& proposed) = 0;
};

// Kits that want answers cached attach one of these to their requests.
class VELMORA_EXPORT CachedHTTPURLResponseDelegate {
  public:
    virtual ~CachedHTTPURLResponseDelegate() = default;
    virtual std::shared_ptr<CachedHTTPURLResponseTransformer> transformer(
        const platform::HTTPURLResponse& response) = 0;
};

}  // namespace velmora
