#include "velmora/platform/DeviceFacts.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include "velmora/platform/Environment.h"

namespace velmora::platform {
namespace {

utsname systemNames() {
    utsname names{};
    if (uname(&names) != 0) {
        names = utsname{};
    }
    return names;
}

std::optional<std::string> readFirstLine(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::string line;
    if (!in || !std::getline(in, line)) {
        return std::nullopt;
    }
    return line;
}

}  // namespace

std::shared_ptr<const DeviceFacts> DeviceFacts::current() {
    if (auto installed = Environment::current()->deviceFacts) {
        return installed;
    }
    static const auto linux = std::make_shared<const LinuxDeviceFacts>();
    return linux;
}

std::string LinuxDeviceFacts::systemName() const {
    const auto names = systemNames();
    return names.sysname[0] != '\0' ? std::string(names.sysname) : std::string("Linux");
}

std::string LinuxDeviceFacts::systemVersion() const {
    return systemNames().release;
}

std::string LinuxDeviceFacts::machineIdentifier() const {
    return systemNames().machine;
}

std::optional<std::uint64_t> LinuxDeviceFacts::residentMemoryBytes() const {
    // statm's second field: resident pages.
    std::ifstream in("/proc/self/statm");
    std::uint64_t size = 0;
    std::uint64_t resident = 0;
    if (!(in >> size >> resident)) {
        return std::nullopt;
    }
    const long page = sysconf(_SC_PAGESIZE);
    return page > 0 ? std::optional(resident * static_cast<std::uint64_t>(page)) : std::nullopt;
}

std::optional<std::uint64_t> LinuxDeviceFacts::physicalMemoryBytes() const {
    const long pages = sysconf(_SC_PHYS_PAGES);
    const long page = sysconf(_SC_PAGESIZE);
    if (pages <= 0 || page <= 0) {
        return std::nullopt;
    }
    return static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(page);
}

std::optional<double> LinuxDeviceFacts::batteryLevel() const {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/sys/class/power_supply", error)) {
        if (readFirstLine(entry.path() / "type") != "Battery") {
            continue;
        }
        const auto capacity = readFirstLine(entry.path() / "capacity");
        if (!capacity) {
            continue;
        }
        char* end = nullptr;
        const double percent = std::strtod(capacity->c_str(), &end);
        if (end != capacity->c_str() && percent >= 0 && percent <= 100) {
            return percent / 100.0;
        }
    }
    return std::nullopt;
}

std::optional<std::string> languageTagFromLocale(std::string_view locale) {
    const auto cut = locale.find_first_of(".@");
    std::string tag(locale.substr(0, cut));
    if (tag.empty() || tag == "C" || tag == "POSIX") {
        return std::nullopt;
    }
    std::replace(tag.begin(), tag.end(), '_', '-');
    return tag;
}

std::vector<std::string> LinuxDeviceFacts::preferredLanguages() const {
    std::vector<std::string> languages;
    auto add = [&](std::string_view locale) {
        if (auto tag = languageTagFromLocale(locale);
            tag && std::find(languages.begin(), languages.end(), *tag) == languages.end()) {
            languages.push_back(*tag);
        }
    };
    // LANGUAGE is a colon-separated priority list; the others name one locale, first set wins.
    if (const char* list = std::getenv("LANGUAGE"); list != nullptr) {
        std::stringstream stream(list);
        for (std::string item; std::getline(stream, item, ':');) {
            add(item);
        }
    }
    for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        if (const char* value = std::getenv(variable); value != nullptr && value[0] != '\0') {
            add(value);
            break;
        }
    }
    if (languages.empty()) {
        languages.emplace_back("en");
    }
    return languages;
}

}  // namespace velmora::platform
