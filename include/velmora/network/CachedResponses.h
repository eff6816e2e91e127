#pragma once

#include <memory>
#include <optional>

#include "velmora/Export.h"
#include "velmora/platform/URLRequest.h"

namespace velmora {

// What a caching delegate learns of an answer: its URL, MIME type, text encoding, status and header fields.
using CachedHTTPURLResponseDetails = platform::HTTPURLResponse;

// Decides what, if anything, the session's response cache keeps of an answer: `proposed` carries the whole
// body; what is returned is stored as it is, and later identical GETs are answered from it while it is fresh
// (revalidated with its "ETag" or "Last-Modified" once it is not).
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
        const CachedHTTPURLResponseDetails& response) = 0;
};

}  // namespace velmora
