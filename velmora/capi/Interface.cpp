// The C interface's glue, errors, environment and logger.
#include "velmora/capi/Interface.h"

#include <cxxabi.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>

#include "velmora/Errors.h"
#include "velmora/blips/BlipRecords.h"
#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Environment.h"
#include "velmora/platform/Json.h"
#include "velmora/platform/PendingCount.h"
#include "velmora/platform/SystemLog.h"
#include "velmora/platform/Utf8.h"
#include "velmora/support/CoreLogger.h"

namespace velmora::capi {

// The C header spells out the constants a C host matches on; they must stay those the library raises.
static_assert(std::string_view(VMKErrorDomainCore) == errors::coreDomain);
static_assert(std::string_view(VMKErrorDomainAccess) == errors::accessDomain);
static_assert(std::string_view(VMKErrorDomainDecoding) == errors::decodingDomain);
static_assert(std::string_view(VMKErrorDomainURL) == errors::urlDomain);
static_assert(std::string_view(VMKErrorDomainPOSIX) == errors::posixDomain);
static_assert(std::string_view(VMKErrorDomainAuthentication) == errors::authenticationDomain);
static_assert(std::string_view(VMKErrorDomainIdentity) == errors::identityDomain);
static_assert(std::string_view(VMKErrorDomainObjCIdentity) == errors::objCIdentityDomain);
static_assert(std::string_view(VMKErrorDomainCacheManager) == errors::cacheManagerDomain);
static_assert(std::string_view(VMKErrorDomainAccountStore) == errors::accountStoreDomain);
static_assert(std::string_view(VMKErrorDomainSDK) == errors::sdkDomain);
static_assert(std::string_view(VMKErrorUserInfoHTTPStatusCodeKey) == errors::httpStatusCodeKey);
static_assert(VMKErrorCodeAccessFailed == errors::accessFailed);
static_assert(VMKErrorCodePushRegistrationFailed == errors::pushRegistrationFailed);
static_assert(VMKErrorCodeUserNoData == errors::userNoData);
static_assert(VMKErrorCodeNoIdentity == errors::noIdentity);
static_assert(VMKErrorCodeNotJSON == errors::notJson);
static_assert(VMKErrorCodeDataCorrupted == errors::dataCorrupted);
static_assert(VMKErrorCodeValueNotFound == errors::valueNotFound);
static_assert(VMKErrorCodeEncodingFailed == errors::encodingFailed);
static_assert(VMKErrorCodeURLUnknown == errors::url::unknown);
static_assert(VMKErrorCodeURLCancelled == errors::url::cancelled);
static_assert(VMKErrorCodeURLBadURL == errors::url::badURL);
static_assert(VMKErrorCodeURLTimedOut == errors::url::timedOut);
static_assert(VMKErrorCodeURLCannotFindHost == errors::url::cannotFindHost);
static_assert(VMKErrorCodeURLCannotConnectToHost == errors::url::cannotConnectToHost);
static_assert(VMKErrorCodeURLNetworkConnectionLost == errors::url::networkConnectionLost);
static_assert(VMKErrorCodeURLHTTPTooManyRedirects == errors::url::httpTooManyRedirects);
static_assert(VMKErrorCodeURLBadServerResponse == errors::url::badServerResponse);
static_assert(VMKErrorCodeURLSecureConnectionRequired == errors::url::secureConnectionRequired);
static_assert(VMKErrorCodeURLDataLengthExceedsMaximum == errors::url::dataLengthExceedsMaximum);
static_assert(VMKErrorCodeURLSecureConnectionFailed == errors::url::secureConnectionFailed);
static_assert(VMKErrorCodeURLServerCertificateUntrusted == errors::url::serverCertificateUntrusted);
static_assert(VMKErrorCodeMalformedUserId == errors::malformedUserId);
static_assert(VMKErrorCodeUnknownIdentityType == errors::unknownIdentityType);
static_assert(VMKErrorCodeIncompatibleIdentityType == errors::incompatibleIdentityType);
static_assert(VMKErrorCodeNilCacheURL == errors::nilCacheURL);
static_assert(VMKErrorCodeBase64EncodingFailed == errors::base64EncodingFailed);
static_assert(VMKLogLevelError == static_cast<int>(LogLevel::error) &&
              VMKLogLevelVerbose == static_cast<int>(LogLevel::verbose));
static_assert(VMKBlipsGroupRequired == static_cast<int>(BlipsGroup::required) &&
              VMKBlipsGroupBehavioural == static_cast<int>(BlipsGroup::behavioural) &&
              VMKBlipsGroupTrailmark == static_cast<int>(BlipsGroup::trailmark));

namespace {

std::atomic<std::size_t> liveHandles{0};

// Callbacks posted to the main queue and not yet run: VMKVelmoraWaitForPendingRequests waits for them. A
// posted block holds a ticket, which ends its count when the block is destroyed: after it ran, or when it
// was dropped. Leaked: blocks may still run during static destruction.
platform::PendingCount& deliveries() {
    static auto* instance = new platform::PendingCount();
    return *instance;
}

// Not noexcept: a host runtime that ends its thread inside a callback (an interpreter shutting down calls
// pthread_exit) unwinds through here, and swallowing that unwind would abort the process.
void runSafely(const std::function<void()>& call) {
    try {
        call();
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& e) {
        report("callback", nullptr, VMKErrorCodeInternal, e.what());
    } catch (...) {
        report("callback", nullptr, VMKErrorCodeInternal, "an exception of unknown type");
    }
}

// The host's log callback. Lines reach it through the main queue, read at delivery, so a callback that is
// replaced or removed is never called again, and a host callback never runs under a lock of the library.
struct LogForwarding {
    std::mutex mutex;
    VMKLogCallback callback = nullptr;
    void* context = nullptr;
    bool installed = false;  // the environment's sink is ours
};

LogForwarding& logForwarding() {
    static auto* instance = new LogForwarding();
    return *instance;
}

// Set while the host's log callback runs: what it logs itself goes to standard error, not back to it, or a
// callback that logs would feed itself for ever.
thread_local bool inLogCallback = false;

void forwardLine(platform::LogLevel level, std::string_view line) noexcept {
    if (inLogCallback) {
        std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
        return;
    }
    try {
        post([level, message = std::string(line)] {
            auto& forwarding = logForwarding();
            VMKLogCallback callback = nullptr;
            void* context = nullptr;
            {
                std::lock_guard lock(forwarding.mutex);
                callback = forwarding.callback;
                context = forwarding.context;
            }
            if (callback != nullptr) {
                inLogCallback = true;
                struct Reset {
                    ~Reset() { inLogCallback = false; }
                } reset;
                callback(static_cast<VMKLogLevel>(level), message.c_str(), context);
            }
        });
    } catch (...) {
        // A sink must not throw; a line that cannot be queued is lost.
    }
}

// Installs the environment with the forwarding sink when the host has a log callback. Without one, a sink
// of the forwarding's own is removed and any other (a C++ host's) is kept.
void installEnvironment(platform::Environment environment, bool keepOtherSink) {
    auto& forwarding = logForwarding();
    std::lock_guard lock(forwarding.mutex);
    if (forwarding.callback != nullptr) {
        environment.logSink = forwardLine;
    } else if (forwarding.installed || !keepOtherSink) {
        environment.logSink = nullptr;
    }
    forwarding.installed = forwarding.callback != nullptr;
    platform::Environment::install(std::move(environment));
}

LogLevel checkedLevel(VMKLogLevel level) {
    const auto checked = logLevelFromRawValue(static_cast<int>(level));
    if (!checked) {
        throw Refusal(VMKErrorCodeInvalidArgument,
                      "the log level " + std::to_string(static_cast<int>(level)) + " is not 0...4");
    }
    return *checked;
}

}  // namespace

thread_local int entryDepth = 0;

Handle::Handle(Kind handleKind) : kind(handleKind) {
    liveHandles.fetch_add(1, std::memory_order_relaxed);
}

Handle::~Handle() {
    liveHandles.fetch_sub(1, std::memory_order_relaxed);
}

void report(const char* function, VMKError** outError, std::int64_t code, const char* message) noexcept {
    try {
        if (outError != nullptr) {
            *outError = new VMKError(
                Error::withDescription(std::string(VMKErrorDomainInterface), code, std::string(message)));
            return;
        }
        platform::systemLogLine(LogLevel::error, std::string(function) + ": " + message);
    } catch (...) {
        // Out of memory while reporting: nothing more can be said.
    }
}

std::string text(const char* value, const char* name) {
    if (value == nullptr) {
        throw Refusal(VMKErrorCodeNullArgument, std::string(name) + " is NULL");
    }
    const std::string_view view(value);
    if (!platform::isValidUtf8(view)) {
        throw Refusal(VMKErrorCodeInvalidArgument, std::string(name) + " is not UTF-8");
    }
    return std::string(view);
}

std::optional<std::string> optionalText(const char* value, const char* name) {
    return value == nullptr ? std::nullopt : std::optional(text(value, name));
}

std::vector<std::string> textList(const char* const* values, std::size_t count, const char* name) {
    if (values == nullptr && count > 0) {
        throw Refusal(VMKErrorCodeNullArgument, std::string(name) + " is NULL");
    }
    std::vector<std::string> list;
    for (std::size_t i = 0; i < count; ++i) {
        list.push_back(text(values[i], (std::string(name) + "[" + std::to_string(i) + "]").c_str()));
    }
    return list;
}

nlohmann::json jsonText(const char* value, const char* name) {
    auto parsed = platform::parseJson(text(value, name));
    if (parsed.is_discarded()) {
        throw Refusal(VMKErrorCodeInvalidArgument, std::string(name) + " is not JSON, or nests deeper than " +
                                                       std::to_string(platform::maximumJsonDepth) +
                                                       " levels");
    }
    return parsed;
}

std::size_t checkedIndex(std::size_t index, std::size_t count) {
    if (index >= count) {
        throw Refusal(VMKErrorCodeInvalidArgument, "the index " + std::to_string(index) +
                                                       " is past the end (" + std::to_string(count) + ")");
    }
    return index;
}

char* copyString(std::string_view value) {
    auto* copy = static_cast<char*>(std::malloc(value.size() + 1));
    if (copy == nullptr) {
        throw std::bad_alloc();
    }
    std::memcpy(copy, value.data(), value.size());
    copy[value.size()] = '\0';
    return copy;
}

char* copyJson(const nlohmann::json& value) {
    return copyString(platform::dumpJson(value));
}

void post(std::function<void()> call) {
    platform::DispatchQueue::main().async(
        [call = std::move(call), ticket = std::make_shared<platform::PendingCount::Ticket>(deliveries())] {
            runSafely(call);
        });
}

void deliver(std::function<void()> call) {
    if (entryDepth == 0 && platform::DispatchQueue::main().isCurrent()) {
        runSafely(call);
        return;
    }
    post(std::move(call));
}

bool waitForDeliveries(std::chrono::steady_clock::time_point deadline) {
    return deliveries().waitUntilDrained(deadline);
}

std::size_t deliveriesPending() {
    return deliveries().count();
}

}  // namespace velmora::capi

namespace capi = velmora::capi;

VMKError::VMKError(velmora::Error value)
    : Handle(tag), error(std::move(value)), description(error.localizedDescription()) {}

extern "C" {

const char* VMKErrorGetDomain(const VMKError* error) {
    return capi::get<const char*>(__func__, error, nullptr,
                                  [](const VMKError& e) { return e.error.domain().c_str(); });
}

int64_t VMKErrorGetCode(const VMKError* error) {
    return capi::get<int64_t>(__func__, error, 0, [](const VMKError& e) { return e.error.code(); });
}

const char* VMKErrorGetDescription(const VMKError* error) {
    return capi::get<const char*>(__func__, error, nullptr,
                                  [](const VMKError& e) { return e.description.c_str(); });
}

char* VMKErrorCopyUserInfoJSON(const VMKError* error) {
    return capi::get<char*>(__func__, error, nullptr,
                            [](const VMKError& e) { return capi::copyJson(e.error.userInfo()); });
}

VMKError* VMKErrorCopy(const VMKError* error) {
    return capi::share(__func__, error);
}

void VMKErrorRelease(VMKError* error) {
    capi::release(__func__, error);
}

void VMKStringRelease(char* string) {
    std::free(string);
}

bool VMKEnvironmentInstall(const char* applicationName, const char* dataDirectory,
                           const char* cachesDirectory, VMKError** outError) {
    return capi::entry(__func__, outError, false, [&] {
        auto environment = velmora::platform::Environment::linuxDefaults(
            capi::optionalText(applicationName, "applicationName").value_or(""));
        if (const auto data = capi::optionalText(dataDirectory, "dataDirectory")) {
            environment.dataDirectory = std::filesystem::path(*data);
        }
        if (const auto caches = capi::optionalText(cachesDirectory, "cachesDirectory")) {
            environment.cachesDirectory = std::filesystem::path(*caches);
        }
        capi::installEnvironment(std::move(environment), false);
        return true;
    });
}

void VMKCoreLoggerSetEnabled(bool enabled) {
    velmora::CoreLogger::setEnabled(enabled);
}

bool VMKCoreLoggerIsEnabled(void) {
    return velmora::CoreLogger::enabled();
}

bool VMKCoreLoggerSetLogLevel(VMKLogLevel level, VMKError** outError) {
    return capi::entry(__func__, outError, false, [&] {
        velmora::CoreLogger::setLogLevel(capi::checkedLevel(level));
        return true;
    });
}

VMKLogLevel VMKCoreLoggerGetLogLevel(void) {
    return static_cast<VMKLogLevel>(velmora::CoreLogger::logLevel());
}

bool VMKCoreLoggerIsLogging(VMKLogLevel level) {
    return capi::entry(__func__, nullptr, false,
                       [&] { return velmora::CoreLogger::isLogging(capi::checkedLevel(level)); });
}

bool VMKCoreLoggerLog(VMKLogLevel level, const char* message, VMKError** outError) {
    return capi::entry(__func__, outError, false, [&] {
        using velmora::CoreLogger;
        static constexpr void (*const byLevel[])(std::string_view) = {
            CoreLogger::error, CoreLogger::warn, CoreLogger::info, CoreLogger::debug, CoreLogger::verbose};
        const auto checked = capi::checkedLevel(level);
        byLevel[static_cast<int>(checked)](capi::text(message, "message"));
        return true;
    });
}

void VMKCoreLoggerSetCallback(VMKLogCallback callback, void* context) {
    capi::entry(__func__, nullptr, false, [&] {
        auto& forwarding = capi::logForwarding();
        {
            std::lock_guard lock(forwarding.mutex);
            forwarding.callback = callback;
            forwarding.context = context;
        }
        capi::installEnvironment(*velmora::platform::Environment::current(), true);
        return true;
    });
}

size_t VMKDebugLiveHandleCount(void) {
    return capi::liveHandles.load(std::memory_order_relaxed);
}

}  // extern "C"
