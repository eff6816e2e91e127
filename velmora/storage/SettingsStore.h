#pragma once

#include <string_view>

#include "velmora/storage/AppStorable.h"
#include "velmora/storage/DataCache.h"

namespace velmora {

// The account's raw settings document per app id, and when settings were last stored for any app id.
class SettingsStore : public AppStorable, public DataCache, public SettingsData {
  public:
    static constexpr std::string_view suite = "com.velmora.core.settings";
    static constexpr std::string_view updatedAtKey = "updated_at";
    static constexpr std::string_view name = "settings";

    explicit SettingsStore(std::string appId) : AppStorable(suite, std::move(appId)) {}

    bool storeSettings(const Data& settings) const;
    std::optional<Data> settings() const override;

    std::optional<Data> data() const override { return settings(); }
    void setData(const std::optional<Data>& data) const override;
    // When settings were last stored; the present moment when that is not known.
    Date updatedAt() const override;
};

}  // namespace velmora
