#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "velmora/Export.h"

namespace velmora {

// Device and process facts as text, read afresh on every call. A reading that cannot be taken is "-1".
class VELMORA_EXPORT DeviceUtil {
  public:
    static std::string deviceTypeNumber();
    static std::string deviceUsedMemory();
    static std::string deviceTotalMemory();
    static std::string deviceUsedDiskSpace();
    static std::string deviceTotalDiskSpace();
    static std::string deviceBatteryLevel();
    static std::string systemLocale();

    // The units and rounding, on raw readings.
    static std::string mebibytes(double bytes);
    // Physical memory in MiB rounded to a multiple of 256 (half up); "-1" when that is not above zero.
    static std::string roundedTotalMemory(double bytes);
    static std::string usedMebibytes(double size, double free);
    // 0.0...1.0 as a whole percentage; unknown (-1.0) stays as it comes out: "-100".
    static std::string batteryPercent(std::optional<double> level);
};

// The device facts an analytics event carries; every member is text.
struct VELMORA_EXPORT DeviceInfo {
    std::string os;
    std::string model;
    std::string memory_used;
    std::string memory_total;
    std::string disk_used;
    std::string disk_total;
    std::string battery_level;
    std::string sys_locale;
    std::string manufacturer = "Apple";
    std::string platform = "iOS";

    static DeviceInfo current();
    nlohmann::ordered_json toJson() const;
};

}  // namespace velmora
