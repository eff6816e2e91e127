#include "velmora/platform/DeviceFacts.h"

#include <fcntl.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <mutex>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
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

// Small kernel-generated files: read with plain system calls, which cost a fraction of a stream's set-up and
// matter because every analytics event reads them.
std::optional<std::string> readFirstLine(const std::filesystem::path& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return std::nullopt;
    }
    char buffer[256];
    const ssize_t length = ::read(fd, buffer, sizeof buffer - 1);
    ::close(fd);
    if (length <= 0) {
        return std::nullopt;
    }
    std::string_view text(buffer, static_cast<std::size_t>(length));
    return std::string(text.substr(0, text.find('\n')));
}

// Which power supplies are batteries changes only when one is plugged in, so the directory is scanned at most
// once a minute; the charge itself is read every time.
std::vector<std::filesystem::path> batteryCapacityFiles() {
    static std::mutex mutex;
    static std::vector<std::filesystem::path> files;
    static std::optional<std::chrono::steady_clock::time_point> scanned;
    std::lock_guard lock(mutex);
    const auto now = std::chrono::steady_clock::now();
    if (!scanned || now - *scanned > std::chrono::minutes(1)) {
        files.clear();
        std::error_code error;
        for (const auto& entry : std::filesystem::directory_iterator("/sys/class/power_supply", error)) {
            if (readFirstLine(entry.path() / "type") == "Battery") {
                files.push_back(entry.path() / "capacity");
            }
        }
        scanned = now;
    }
    return files;
}

}  // namespace

std::shared_ptr<const DeviceFacts> DeviceFacts::current() {
    if (auto installed = Environment::current()->deviceFacts) {
        return installed;
    }
    static const auto& linux =
        *new std::shared_ptr<const LinuxDeviceFacts>(std::make_shared<LinuxDeviceFacts>());
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
    // statm's second field: resident pages. Looking the file up costs more than generating it, so the file
    // stays open (per process: a forked child must not read its parent's) and is read again from the start.
    static std::mutex mutex;
    static int fd = -1;
    static pid_t owner = 0;
    char buffer[128];
    ssize_t length = -1;
    {
        std::lock_guard lock(mutex);
        if (fd < 0 || owner != ::getpid()) {
            if (fd >= 0) {
                ::close(fd);
            }
            fd = ::open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
            owner = ::getpid();
        }
        length = fd < 0 ? -1 : ::pread(fd, buffer, sizeof buffer - 1, 0);
    }
    std::uint64_t size = 0;
    std::uint64_t resident = 0;
    if (length <= 0) {
        return std::nullopt;
    }
    buffer[length] = '\0';
    if (std::sscanf(buffer, "%" SCNu64 " %" SCNu64, &size, &resident) != 2) {
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
    for (const auto& file : batteryCapacityFiles()) {
        const auto capacity = readFirstLine(file);
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
