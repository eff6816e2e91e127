#include "velmora/platform/Environment.h"

#include <cstdlib>
#include <mutex>

#include "velmora/platform/DeviceFacts.h"

namespace velmora::platform {
namespace {

std::optional<std::filesystem::path> xdgDirectory(const char* variable, const char* homeRelative) {
    if (const char* value = std::getenv(variable); value != nullptr && value[0] == '/') {
        return std::filesystem::path(value);
    }
    if (const char* home = std::getenv("HOME"); home != nullptr && home[0] == '/') {
        return std::filesystem::path(home) / homeRelative;
    }
    return std::nullopt;
}

std::string executableName() {
    std::error_code error;
    const auto exe = std::filesystem::read_symlink("/proc/self/exe", error);
    if (!error && !exe.filename().empty()) {
        return exe.filename().string();
    }
    return "velmora-app";
}

struct Installed {
    std::mutex mutex;
    std::shared_ptr<const Environment> environment;
};

Installed& installed() {
    // Leaked on purpose: detached library threads may still log while static destructors run.
    static auto* instance = new Installed();
    return *instance;
}

}  // namespace

Environment Environment::linuxDefaults(std::string applicationName) {
    Environment env;
    env.applicationDomainName = applicationName.empty() ? executableName() : std::move(applicationName);
    if (auto data = xdgDirectory("XDG_DATA_HOME", ".local/share")) {
        env.dataDirectory = *data / env.applicationDomainName;
    }
    if (auto caches = xdgDirectory("XDG_CACHE_HOME", ".cache")) {
        env.cachesDirectory = *caches / env.applicationDomainName;
    }
    env.documentsDirectory = xdgDirectory("XDG_DOCUMENTS_DIR", "Documents");
    return env;
}

std::shared_ptr<const Environment> Environment::current() {
    auto& state = installed();
    std::lock_guard lock(state.mutex);
    if (!state.environment) {
        state.environment = std::make_shared<const Environment>(linuxDefaults());
    }
    return state.environment;
}

void Environment::install(Environment environment) {
    auto shared = std::make_shared<const Environment>(std::move(environment));
    auto& state = installed();
    std::lock_guard lock(state.mutex);
    std::swap(state.environment, shared);  // the old one goes after the lock: it holds the host's functions
}

}  // namespace velmora::platform
