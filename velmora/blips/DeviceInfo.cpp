#include "velmora/blips/DeviceInfo.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <limits>

#include "velmora/platform/DeviceFacts.h"
#include "velmora/platform/Environment.h"
#include "velmora/platform/Fatal.h"
#include "velmora/platform/FileManager.h"

namespace velmora {
namespace {

constexpr double perMebibyte = 1.0 / 1024.0;

std::string wholeNumber(double value) {
    const double truncated = std::trunc(value);
    if (!std::isfinite(truncated) || truncated >= 9.2233720368547758e18 ||
        truncated < -9.2233720368547758e18) {
        return "-1";  // a reading that is no number (a host's device facts may give one) is unknown
    }
    return std::to_string(static_cast<std::int64_t>(truncated));
}

std::optional<platform::FileSystemSpace> documentsFileSystem() {
    const auto documents = platform::Environment::current()->documentsDirectory;
    if (!documents) {
        return std::nullopt;
    }
    auto space = platform::FileManager::fileSystemSpace(*documents);
    return space.isSuccess() ? std::optional(space.value()) : std::nullopt;
}

std::string usedDisk(const std::optional<platform::FileSystemSpace>& space) {
    return space ? DeviceUtil::usedMebibytes(static_cast<double>(space->totalBytes),
                                             static_cast<double>(space->freeBytes))
                 : "-1";
}

std::string totalDisk(const std::optional<platform::FileSystemSpace>& space) {
    return space ? DeviceUtil::mebibytes(static_cast<double>(space->totalBytes)) : "-1";
}

}  // namespace

std::string DeviceUtil::mebibytes(double bytes) {
    return wholeNumber(bytes * perMebibyte * perMebibyte);
}

std::string DeviceUtil::roundedTotalMemory(double bytes) {
    const double m = bytes * perMebibyte * perMebibyte;
    const double r = std::fmod(m, 256.0);
    const double rounded = m - r + (r >= 128.0 ? 256.0 : 0.0);
    return rounded > 0 ? wholeNumber(rounded) : "-1";
}

std::string DeviceUtil::usedMebibytes(double size, double free) {
    return wholeNumber((size - free) * perMebibyte * perMebibyte);
}

std::string DeviceUtil::batteryPercent(std::optional<double> level) {
    // The platform's float reading, widened before scaling, as the platform does it.
    return wholeNumber(static_cast<double>(static_cast<float>(level.value_or(-1.0))) * 100.0);
}

std::string DeviceUtil::deviceTypeNumber() {
    const auto machine = platform::DeviceFacts::current()->machineIdentifier();
    std::string text;
    std::copy_if(machine.begin(), machine.end(), std::back_inserter(text), [](char c) { return c != '\0'; });
    return text;
}

std::string DeviceUtil::deviceUsedMemory() {
    const auto resident = platform::DeviceFacts::current()->residentMemoryBytes();
    return resident ? mebibytes(static_cast<double>(*resident)) : "-1";
}

std::string DeviceUtil::deviceTotalMemory() {
    const auto physical = platform::DeviceFacts::current()->physicalMemoryBytes();
    return physical ? roundedTotalMemory(static_cast<double>(*physical)) : "-1";
}

std::string DeviceUtil::deviceUsedDiskSpace() {
    return usedDisk(documentsFileSystem());
}

std::string DeviceUtil::deviceTotalDiskSpace() {
    return totalDisk(documentsFileSystem());
}

std::string DeviceUtil::deviceBatteryLevel() {
    return batteryPercent(platform::DeviceFacts::current()->batteryLevel());
}

std::string DeviceUtil::systemLocale() {
    const auto languages = platform::DeviceFacts::current()->preferredLanguages();
    if (languages.empty()) {
        return "-1";
    }
    std::string first = languages.front();
    std::transform(first.begin(), first.end(), first.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return first;
}

DeviceInfo DeviceInfo::current() {
    // One look at the file system serves both disk figures: every event pays for it.
    const auto space = documentsFileSystem();
    return DeviceInfo{platform::DeviceFacts::current()->systemVersion(),
                      DeviceUtil::deviceTypeNumber(),
                      DeviceUtil::deviceUsedMemory(),
                      DeviceUtil::deviceTotalMemory(),
                      usedDisk(space),
                      totalDisk(space),
                      DeviceUtil::deviceBatteryLevel(),
                      DeviceUtil::systemLocale()};
}

nlohmann::ordered_json DeviceInfo::toJson() const {
    // Member by member, into room for all ten: an initializer list would copy every text twice more, and
    // every event pays for it.
    nlohmann::ordered_json json(nlohmann::ordered_json::value_t::object);
    json.get_ref<nlohmann::ordered_json::object_t&>().reserve(10);
    for (const auto& [key, value] :
         {std::pair{"os", &os}, std::pair{"model", &model}, std::pair{"memory_used", &memory_used},
          std::pair{"memory_total", &memory_total}, std::pair{"disk_used", &disk_used},
          std::pair{"disk_total", &disk_total}, std::pair{"battery_level", &battery_level},
          std::pair{"sys_locale", &sys_locale}, std::pair{"manufacturer", &manufacturer},
          std::pair{"platform", &platform}}) {
        json.emplace(key, *value);
    }
    return json;
}

}  // namespace velmora
