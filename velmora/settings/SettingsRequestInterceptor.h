#pragma once

#include <memory>
#include <string>

#include "velmora/network/Interceptors.h"
#include "velmora/settings/Settings.h"
#include "velmora/storage/SettingsStore.h"

namespace velmora {

// First of every ordinary request's interceptors: makes sure settings exist before the request leaves.
class SettingsRequestInterceptor : public RequestInterceptor {
  public:
    SettingsRequestInterceptor(SettingsStore settingsStore,
                               std::shared_ptr<SettingsProviderProtocol> settingsProvider,
                               IntervalValidator validator)
        : settingsStore_(std::move(settingsStore)),
          settingsProvider_(std::move(settingsProvider)),
          validator_(validator) {}

    // True without stored settings, and - inverted on purpose - while stored settings are still fresh, so
    // that ordinary requests only go to the network for settings while none are stored.
    bool needToFetchSettings() const;

    Result<platform::URLRequest> intercept(Result<platform::URLRequest> request,
                                           const platform::DispatchGroup& group) override;
    std::string description() const override {
        return "SettingsRequestInterceptor(appId: " + settingsStore_.appId() + ")";
    }

  private:
    SettingsStore settingsStore_;
    std::shared_ptr<SettingsProviderProtocol> settingsProvider_;
    IntervalValidator validator_;
};

}  // namespace velmora
