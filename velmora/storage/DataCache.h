#pragma once

#include <optional>

#include "velmora/platform/Data.h"
#include "velmora/platform/Date.h"

namespace velmora {

// A cached document and when it was last written: how the settings provider sees its store.
class DataCache {
  public:
    virtual ~DataCache() = default;
    virtual std::optional<Data> data() const = 0;
    // Writing nothing leaves the cache as it is.
    virtual void setData(const std::optional<Data>& data) const = 0;
    virtual Date updatedAt() const = 0;
};

// Read access to the raw settings document.
class SettingsData {
  public:
    virtual ~SettingsData() = default;
    virtual std::optional<Data> settings() const = 0;
};

}  // namespace velmora
