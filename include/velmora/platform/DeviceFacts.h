#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "velmora/Export.h"

namespace velmora::platform {

// The facts about the device and process that analytics events carry. Hosts on other systems install
// their own through Environment::deviceFacts; tests install fixed readings.
class VELMORA_EXPORT DeviceFacts {
  public:
    virtual ~DeviceFacts() = default;

    virtual std::string systemName() const = 0;
    virtual std::string systemVersion() const = 0;
    // The hardware identifier ("x86_64", "aarch64", a phone's model code).
    virtual std::string machineIdentifier() const = 0;
    virtual std::optional<std::uint64_t> residentMemoryBytes() const = 0;
    virtual std::optional<std::uint64_t> physicalMemoryBytes() const = 0;
    // 0.0 to 1.0; absent when the device has no battery or does not say.
    virtual std::optional<double> batteryLevel() const = 0;
    // BCP 47 tags, most preferred first ("en-US", "fr"); never empty.
    virtual std::vector<std::string> preferredLanguages() const = 0;

    // The facts in force: the environment's, or the Linux readings.
    static std::shared_ptr<const DeviceFacts> current();
};

class VELMORA_EXPORT LinuxDeviceFacts : public DeviceFacts {
  public:
    std::string systemName() const override;
    std::string systemVersion() const override;
    std::string machineIdentifier() const override;
    std::optional<std::uint64_t> residentMemoryBytes() const override;
    std::optional<std::uint64_t> physicalMemoryBytes() const override;
    std::optional<double> batteryLevel() const override;
    std::vector<std::string> preferredLanguages() const override;
};

// "en_US.UTF-8@euro" -> "en-US"; "C", "POSIX" and empty settings give nothing.
VELMORA_EXPORT std::optional<std::string> languageTagFromLocale(std::string_view locale);

}  // namespace velmora::platform
