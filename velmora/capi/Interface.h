#pragma once

// The glue behind velmora/VelmoraC.h: what every handle has in common, the one way an entry runs (no
// exception leaves it; a refusal becomes an error or a log line), the checks on arguments coming in, and the
// delivery of host callbacks on the main queue.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "velmora/VelmoraC.h"
#include "velmora/core/Velmora.h"
#include "velmora/identity/ObjCIdentity.h"
#include "velmora/settings/Settings.h"
#include "velmora/user/UserProvider.h"

namespace velmora::capi {

enum class Kind : std::uint32_t {
    velmora = 0x564d4b00,
    jwt,
    anonymous,
    userProvider,
    user,
    userField,
    userFieldOption,
    pushProvider,
    settingsProvider,
    coreSettings,
    blipsSettings,
    blipsProvider,
    error
};

// The head of every handle: its type, checked whenever a handle comes in (a binding passing one handle for
// another gets a refusal, not a misread), and its reference count (Copy of an immutable record is a share).
struct Handle {
    explicit Handle(Kind handleKind);
    ~Handle();
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    const Kind kind;
    mutable std::atomic<std::size_t> references{1};
};

// An argument or a call this interface refuses, with the code it is reported under.
class Refusal : public std::runtime_error {
  public:
    Refusal(std::int64_t refusalCode, const std::string& message)
        : std::runtime_error(message), code(refusalCode) {}
    std::int64_t code;
};

// Counts the entries running on this thread: a callback the library makes before the entry returns is
// posted to the main queue instead of running on the host's stack.
extern thread_local int entryDepth;

// What a failed entry leaves: *outError when the caller asked for it, else a line in the library's log.
void report(const char* function, VMKError** outError, std::int64_t code, const char* message) noexcept;

// Runs one entry of the interface. Every extern "C" function goes through here (or through get below).
template <class R, class F>
R entry(const char* function, VMKError** outError, R fallback, F&& body) noexcept {
    ++entryDepth;
    struct Leave {
        ~Leave() { --entryDepth; }
    } leave;
    if (outError != nullptr) {
        *outError = nullptr;
    }
    try {
        return body();
    } catch (const Refusal& refusal) {
        report(function, outError, refusal.code, refusal.what());
    } catch (const std::exception& e) {
        report(function, outError, VMKErrorCodeInternal, e.what());
    } catch (...) {
        report(function, outError, VMKErrorCodeInternal, "an exception of unknown type");
    }
    return fallback;
}

// The handle behind a pointer from the host, after checking it is one of its type.
template <class T>
const T& use(const T* handle) {
    if (handle == nullptr) {
        throw Refusal(VMKErrorCodeNullArgument, std::string("the ") + T::name + " is NULL");
    }
    if (static_cast<const Handle*>(handle)->kind != T::tag) {
        throw Refusal(VMKErrorCodeInvalidArgument, std::string("the argument is not a ") + T::name);
    }
    return *handle;
}

// A getter: the value read from a checked handle, or the fallback with a logged refusal.
template <class R, class T, class F>
R get(const char* function, const T* handle, R fallback, F&& reader) noexcept {
    return entry<R>(function, nullptr, fallback, [&]() -> R { return reader(use(handle)); });
}

inline const char* cString(const std::string& value) {
    return value.c_str();
}
inline const char* cString(const std::optional<std::string>& value) {
    return value ? value->c_str() : nullptr;
}

// Texts from the host: NULL and text that is not UTF-8 are refused, naming the argument.
std::string text(const char* value, const char* name);
std::optional<std::string> optionalText(const char* value, const char* name);
std::vector<std::string> textList(const char* const* values, std::size_t count, const char* name);
nlohmann::json jsonText(const char* value, const char* name);
std::size_t checkedIndex(std::size_t index, std::size_t count);

// A string the host releases with VMKStringRelease.
char* copyString(std::string_view value);
char* copyJson(const nlohmann::json& value);

template <class T>
void unreference(const T* handle) noexcept {
    if (handle != nullptr && handle->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete handle;
    }
}

struct Unreference {
    template <class T>
    void operator()(const T* handle) const noexcept {
        unreference(handle);
    }
};
// A handle held by the library for the length of a callback.
template <class T>
using Owned = std::unique_ptr<T, Unreference>;

template <class T>
T* share(const char* function, const T* handle) noexcept {
    return get<T*>(function, handle, nullptr, [](const T& checked) {
        checked.references.fetch_add(1, std::memory_order_relaxed);
        return const_cast<T*>(&checked);
    });
}

// Release: NULL is accepted; a handle of another type is refused with a log line and left alone.
template <class T>
void release(const char* function, T* handle) noexcept {
    if (handle != nullptr && get<bool>(function, handle, false, [](const T&) { return true; })) {
        unreference(handle);
    }
}

// Runs a host callback on the main queue: at once when the library already called back there outside any
// entry, posted otherwise. Posted callbacks are counted until they have run (or were dropped).
void deliver(std::function<void()> call);
void post(std::function<void()> call);
bool waitForDeliveries(std::chrono::steady_clock::time_point deadline);
std::size_t deliveriesPending();

// The instance behind a handle, while it is still the installed one. An instance replaced by a later
// initialize (another account URL) would read the new account's token from the shared store and send it to
// its own URL, so its handles are refused.
template <class Instance>
const std::shared_ptr<Instance>& installed(const std::shared_ptr<Instance>& instance) {
    if (Velmora::instance() != instance) {
        throw Refusal(VMKErrorCodeRefused,
                      "a later initialize replaced this instance: read the instance again");
    }
    return instance;
}

// A handle that holds one value of the library's: a record, an identity, or the instance it was made from
// (a provider keeps its instance, as the object runtime's providers do).
template <Kind K, class T>
struct ValueHandle : Handle {
    static constexpr Kind tag = K;
    explicit ValueHandle(T held) : Handle(K), value(std::move(held)) {}
    T value;
};
template <Kind K>
using ProviderHandle = ValueHandle<K, std::shared_ptr<const Velmora>>;

}  // namespace velmora::capi

// The handles. Each names its type for refusals and carries its tag.

struct VMKError : velmora::capi::Handle {
    static constexpr velmora::capi::Kind tag = velmora::capi::Kind::error;
    static constexpr const char* name = "VMKError";
    explicit VMKError(velmora::Error value);
    velmora::Error error;
    std::string description;
};

struct VMKVelmora
    : velmora::capi::ValueHandle<velmora::capi::Kind::velmora, std::shared_ptr<velmora::Velmora>> {
    static constexpr const char* name = "VMKVelmora";
    using ValueHandle::ValueHandle;
};

struct VMKObjCJwt : velmora::capi::ValueHandle<velmora::capi::Kind::jwt, velmora::VMKObjCJwt> {
    static constexpr const char* name = "VMKObjCJwt";
    using ValueHandle::ValueHandle;
};

struct VMKObjCAnonymous
    : velmora::capi::ValueHandle<velmora::capi::Kind::anonymous, velmora::VMKObjCAnonymous> {
    static constexpr const char* name = "VMKObjCAnonymous";
    using ValueHandle::ValueHandle;
};

struct VMKUserProvider : velmora::capi::ProviderHandle<velmora::capi::Kind::userProvider> {
    static constexpr const char* name = "VMKUserProvider";
    using ValueHandle::ValueHandle;
};
struct VMKPushProvider : velmora::capi::ProviderHandle<velmora::capi::Kind::pushProvider> {
    static constexpr const char* name = "VMKPushProvider";
    using ValueHandle::ValueHandle;
};
struct VMKSettingsProvider : velmora::capi::ProviderHandle<velmora::capi::Kind::settingsProvider> {
    static constexpr const char* name = "VMKSettingsProvider";
    using ValueHandle::ValueHandle;
};
struct VMKBlipsProvider : velmora::capi::ProviderHandle<velmora::capi::Kind::blipsProvider> {
    static constexpr const char* name = "VMKBlipsProvider";
    using ValueHandle::ValueHandle;
};

struct VMKUser : velmora::capi::ValueHandle<velmora::capi::Kind::user, velmora::User> {
    static constexpr const char* name = "VMKUser";
    using ValueHandle::ValueHandle;
};

struct VMKUserFieldOption
    : velmora::capi::ValueHandle<velmora::capi::Kind::userFieldOption, velmora::UserFieldOption> {
    static constexpr const char* name = "VMKUserFieldOption";
    using ValueHandle::ValueHandle;
};

struct VMKUserField : velmora::capi::Handle {
    static constexpr velmora::capi::Kind tag = velmora::capi::Kind::userField;
    static constexpr const char* name = "VMKUserField";
    explicit VMKUserField(velmora::UserField value);
    velmora::UserField field;
    std::string type;
    // Borrowed by the host for as long as the field lives.
    std::vector<std::unique_ptr<VMKUserFieldOption>> options;
};

struct VMKCoreSettings : velmora::capi::Handle {
    static constexpr velmora::capi::Kind tag = velmora::capi::Kind::coreSettings;
    static constexpr const char* name = "VMKCoreSettings";
    explicit VMKCoreSettings(velmora::CoreSettings value);
    velmora::CoreSettings settings;
    std::optional<std::string> authentication;
};

struct VMKBlipsSettings
    : velmora::capi::ValueHandle<velmora::capi::Kind::blipsSettings, velmora::BlipsSettings> {
    static constexpr const char* name = "VMKBlipsSettings";
    using ValueHandle::ValueHandle;
};
