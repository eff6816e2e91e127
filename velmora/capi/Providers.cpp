// The C interface's providers (user, push, settings, events) and their records.
#include <iterator>
#include <map>

#include "velmora/blips/BlipRecords.h"
#include "velmora/capi/Interface.h"

namespace capi = velmora::capi;

VMKUserField::VMKUserField(velmora::UserField value)
    : Handle(tag), field(std::move(value)), type(field.fieldType()) {
    if (field.custom_field_options) {
        for (const auto& option : *field.custom_field_options) {
            options.push_back(std::make_unique<VMKUserFieldOption>(option));
        }
    }
}

VMKCoreSettings::VMKCoreSettings(velmora::CoreSettings value) : Handle(tag), settings(std::move(value)) {
    if (settings.authentication) {
        authentication = *settings.authentication == velmora::AuthenticationType::jwt ? "jwt" : "anonymous";
    }
}

namespace {

template <class Provider>
Provider* createProvider(const char* function, const VMKVelmora* velmora, VMKError** outError) {
    return capi::entry<Provider*>(function, outError, nullptr,
                                  [&] { return new Provider(capi::installed(capi::use(velmora).value)); });
}

// One call on a provider: the arguments are checked by `body` before it hands anything to the library.
template <class Provider, class F>
bool call(const char* function, const Provider* provider, VMKError** outError, F&& body) {
    return capi::entry(function, outError, false, [&] {
        body(capi::installed(capi::use(provider).value)->providerModule());
        return true;
    });
}

// The library's callback for a Result: the host's callback gets a borrowed value handle (made by
// `invoke`) or a borrowed error, on the main queue.
template <class Value, class Callback, class Invoke>
std::function<void(velmora::Result<Value>)> resultCallback(Callback callback, void* context, Invoke invoke) {
    return [callback, context, invoke](velmora::Result<Value> result) {
        if (callback == nullptr) {
            return;
        }
        capi::deliver([callback, context, invoke, result = std::move(result)] {
            capi::Owned<VMKError> error(result.isError() ? new VMKError(result.error()) : nullptr);
            invoke(callback, context, result.isSuccess() ? &result.value() : nullptr, error.get());
        });
    };
}

std::function<void(velmora::Result<velmora::User>)> userCallback(VMKUserCallback callback, void* context) {
    return resultCallback<velmora::User>(
        callback, context,
        [](VMKUserCallback host, void* hostContext, const velmora::User* user, const VMKError* e) {
            capi::Owned<VMKUser> handle(user != nullptr ? new VMKUser(*user) : nullptr);
            host(handle.get(), e, hostContext);
        });
}

// Settings never fail: the host's callback gets a borrowed handle of the view.
template <class HandleType, class Settings, class Callback>
std::function<void(Settings)> settingsCallback(Callback callback, void* context) {
    return [callback, context](Settings settings) {
        if (callback == nullptr) {
            return;
        }
        capi::deliver([callback, context, settings] {
            capi::Owned<HandleType> handle(new HandleType(settings));
            callback(handle.get(), context);
        });
    };
}

std::optional<nlohmann::json> payload(const char* valueJSON) {
    return valueJSON == nullptr ? std::nullopt : std::optional(capi::jsonText(valueJSON, "valueJSON"));
}

velmora::BlipsGroup checkedGroup(VMKBlipsGroup value) {
    const auto checked = velmora::blipsGroupFromRawValue(static_cast<int>(value));
    if (!checked) {
        throw capi::Refusal(VMKErrorCodeInvalidArgument,
                            "the group " + std::to_string(static_cast<int>(value)) + " is not 0...2");
    }
    return *checked;
}

template <class R, class T, class F>
R record(const char* function, const T* handle, R fallback, F&& reader) {
    return capi::get<R>(function, handle, fallback, std::forward<F>(reader));
}

template <class T, class F>
const char* stringField(const char* function, const T* handle, F&& reader) {
    return capi::get<const char*>(function, handle, nullptr,
                                  [&](const T& checked) { return capi::cString(reader(checked)); });
}

}  // namespace

extern "C" {

VMKUserProvider* VMKUserProviderCreate(const VMKVelmora* velmora, VMKError** outError) {
    return createProvider<VMKUserProvider>(__func__, velmora, outError);
}

void VMKUserProviderRelease(VMKUserProvider* provider) {
    capi::release(__func__, provider);
}

bool VMKUserProviderGetUser(const VMKUserProvider* provider, VMKUserCallback callback, void* context,
                            VMKError** outError) {
    return call(__func__, provider, outError, [&](const velmora::ProviderModule& module) {
        module.user().getUser(userCallback(callback, context));
    });
}

bool VMKUserProviderAddTags(const VMKUserProvider* provider, const char* const* tags, size_t count,
                            VMKUserCallback callback, void* context, VMKError** outError) {
    return call(__func__, provider, outError, [&](const velmora::ProviderModule& module) {
        module.user().addTags(capi::textList(tags, count, "tags"), userCallback(callback, context));
    });
}

bool VMKUserProviderDeleteTags(const VMKUserProvider* provider, const char* const* tags, size_t count,
                               VMKUserCallback callback, void* context, VMKError** outError) {
    return call(__func__, provider, outError, [&](const velmora::ProviderModule& module) {
        module.user().deleteTags(capi::textList(tags, count, "tags"), userCallback(callback, context));
    });
}

bool VMKUserProviderSetUserFields(const VMKUserProvider* provider, const char* userFieldsJSON,
                                  VMKUserCallback callback, void* context, VMKError** outError) {
    return call(__func__, provider, outError, [&](const velmora::ProviderModule& module) {
        const auto fields = capi::jsonText(userFieldsJSON, "userFieldsJSON");
        if (!fields.is_object()) {
            throw capi::Refusal(VMKErrorCodeInvalidArgument, "userFieldsJSON is not a JSON object");
        }
        module.user().setUserFields(fields.get<std::map<std::string, nlohmann::json>>(),
                                    userCallback(callback, context));
    });
}

bool VMKUserProviderGetUserFields(const VMKUserProvider* provider, VMKUserFieldsCallback callback,
                                  void* context, VMKError** outError) {
    using Fields = std::vector<velmora::UserField>;
    return call(__func__, provider, outError, [&](const velmora::ProviderModule& module) {
        module.user().getUserFields(resultCallback<Fields>(
            callback, context,
            [](VMKUserFieldsCallback host, void* hostContext, const Fields* fields, const VMKError* e) {
                std::vector<capi::Owned<VMKUserField>> handles;
                std::vector<const VMKUserField*> pointers;
                for (std::size_t i = 0; fields != nullptr && i < fields->size(); ++i) {
                    handles.emplace_back(new VMKUserField((*fields)[i]));
                    pointers.push_back(handles.back().get());
                }
                host(pointers.data(), pointers.size(), e, hostContext);
            }));
    });
}

const char* VMKUserGetId(const VMKUser* user) {
    return stringField(__func__, user, [](const VMKUser& u) -> const std::string& { return u.value.id; });
}

const char* VMKUserGetName(const VMKUser* user) {
    return stringField(__func__, user, [](const VMKUser& u) -> const std::string& { return u.value.name; });
}

bool VMKUserIsAgent(const VMKUser* user) {
    return record(__func__, user, false, [](const VMKUser& u) { return u.value.agent; });
}

const char* VMKUserGetContentURL(const VMKUser* user) {
    return stringField(__func__, user,
                       [](const VMKUser& u) -> const std::string& { return u.value.content_url; });
}

size_t VMKUserGetTagCount(const VMKUser* user) {
    return record(__func__, user, size_t{0}, [](const VMKUser& u) { return u.value.tags.size(); });
}

const char* VMKUserGetTag(const VMKUser* user, size_t index) {
    return stringField(__func__, user, [index](const VMKUser& u) -> const std::string& {
        return u.value.tags[capi::checkedIndex(index, u.value.tags.size())];
    });
}

size_t VMKUserGetUserFieldCount(const VMKUser* user) {
    return record(__func__, user, size_t{0}, [](const VMKUser& u) { return u.value.user_fields.size(); });
}

const char* VMKUserGetUserFieldKey(const VMKUser* user, size_t index) {
    return stringField(__func__, user, [index](const VMKUser& u) -> const std::string& {
        const auto& fields = u.value.user_fields;
        return std::next(fields.begin(),
                         static_cast<std::ptrdiff_t>(capi::checkedIndex(index, fields.size())))
            ->first;
    });
}

const char* VMKUserGetUserFieldValue(const VMKUser* user, const char* key) {
    return record(__func__, user, static_cast<const char*>(nullptr), [key](const VMKUser& u) -> const char* {
        const auto found = u.value.user_fields.find(capi::text(key, "key"));
        return found == u.value.user_fields.end() ? nullptr : found->second.c_str();
    });
}

char* VMKUserCopyJSON(const VMKUser* user) {
    return record(__func__, user, static_cast<char*>(nullptr),
                  [](const VMKUser& u) { return capi::copyJson(u.value.toJson()); });
}

VMKUser* VMKUserCopy(const VMKUser* user) {
    return capi::share(__func__, user);
}

void VMKUserRelease(VMKUser* user) {
    capi::release(__func__, user);
}

const char* VMKUserFieldGetId(const VMKUserField* field) {
    return stringField(__func__, field,
                       [](const VMKUserField& f) -> const std::string& { return f.field.id; });
}

const char* VMKUserFieldGetURL(const VMKUserField* field) {
    return stringField(__func__, field,
                       [](const VMKUserField& f) -> const std::string& { return f.field.url; });
}

const char* VMKUserFieldGetKey(const VMKUserField* field) {
    return stringField(__func__, field,
                       [](const VMKUserField& f) -> const std::string& { return f.field.key; });
}

const char* VMKUserFieldGetType(const VMKUserField* field) {
    return stringField(__func__, field, [](const VMKUserField& f) -> const std::string& { return f.type; });
}

const char* VMKUserFieldGetTitle(const VMKUserField* field) {
    return stringField(__func__, field,
                       [](const VMKUserField& f) -> const std::string& { return f.field.title; });
}

const char* VMKUserFieldGetRawTitle(const VMKUserField* field) {
    return stringField(__func__, field,
                       [](const VMKUserField& f) -> const std::string& { return f.field.raw_title; });
}

const char* VMKUserFieldGetDescription(const VMKUserField* field) {
    return stringField(__func__, field,
                       [](const VMKUserField& f) -> const std::string& { return f.field.fieldDescription; });
}

const char* VMKUserFieldGetRawDescription(const VMKUserField* field) {
    return stringField(__func__, field,
                       [](const VMKUserField& f) -> const std::string& { return f.field.raw_description; });
}

int64_t VMKUserFieldGetPosition(const VMKUserField* field) {
    return record(__func__, field, int64_t{0}, [](const VMKUserField& f) { return f.field.position; });
}

bool VMKUserFieldIsActive(const VMKUserField* field) {
    return record(__func__, field, false, [](const VMKUserField& f) { return f.field.active; });
}

bool VMKUserFieldIsSystem(const VMKUserField* field) {
    return record(__func__, field, false, [](const VMKUserField& f) { return f.field.system; });
}

const char* VMKUserFieldGetRegexpForValidation(const VMKUserField* field) {
    return stringField(__func__, field, [](const VMKUserField& f) -> const std::string& {
        return f.field.regexp_for_validation;
    });
}

double VMKUserFieldGetCreatedAt(const VMKUserField* field) {
    return record(__func__, field, 0.0,
                  [](const VMKUserField& f) { return f.field.created_at.timeIntervalSince1970(); });
}

double VMKUserFieldGetUpdatedAt(const VMKUserField* field) {
    return record(__func__, field, 0.0,
                  [](const VMKUserField& f) { return f.field.updated_at.timeIntervalSince1970(); });
}

bool VMKUserFieldHasOptions(const VMKUserField* field) {
    return record(__func__, field, false,
                  [](const VMKUserField& f) { return f.field.custom_field_options.has_value(); });
}

size_t VMKUserFieldGetOptionCount(const VMKUserField* field) {
    return record(__func__, field, size_t{0}, [](const VMKUserField& f) { return f.options.size(); });
}

const VMKUserFieldOption* VMKUserFieldGetOption(const VMKUserField* field, size_t index) {
    return record(__func__, field, static_cast<const VMKUserFieldOption*>(nullptr),
                  [index](const VMKUserField& f) -> const VMKUserFieldOption* {
                      return f.options[capi::checkedIndex(index, f.options.size())].get();
                  });
}

char* VMKUserFieldCopyJSON(const VMKUserField* field) {
    return record(__func__, field, static_cast<char*>(nullptr),
                  [](const VMKUserField& f) { return capi::copyJson(f.field.toJson()); });
}

VMKUserField* VMKUserFieldCopy(const VMKUserField* field) {
    return capi::share(__func__, field);
}

void VMKUserFieldRelease(VMKUserField* field) {
    capi::release(__func__, field);
}

const char* VMKUserFieldOptionGetId(const VMKUserFieldOption* option) {
    return stringField(__func__, option,
                       [](const VMKUserFieldOption& o) -> const std::string& { return o.value.id; });
}

const char* VMKUserFieldOptionGetName(const VMKUserFieldOption* option) {
    return stringField(__func__, option,
                       [](const VMKUserFieldOption& o) -> const std::string& { return o.value.name; });
}

const char* VMKUserFieldOptionGetRawName(const VMKUserFieldOption* option) {
    return stringField(__func__, option,
                       [](const VMKUserFieldOption& o) -> const std::string& { return o.value.raw_name; });
}

const char* VMKUserFieldOptionGetURL(const VMKUserFieldOption* option) {
    return stringField(__func__, option,
                       [](const VMKUserFieldOption& o) -> const std::string& { return o.value.url; });
}

const char* VMKUserFieldOptionGetValue(const VMKUserFieldOption* option) {
    return stringField(__func__, option,
                       [](const VMKUserFieldOption& o) -> const std::string& { return o.value.value; });
}

int64_t VMKUserFieldOptionGetPosition(const VMKUserFieldOption* option) {
    return record(__func__, option, int64_t{0}, [](const VMKUserFieldOption& o) { return o.value.position; });
}

char* VMKUserFieldOptionCopyJSON(const VMKUserFieldOption* option) {
    return record(__func__, option, static_cast<char*>(nullptr),
                  [](const VMKUserFieldOption& o) { return capi::copyJson(o.value.toJson()); });
}

VMKPushProvider* VMKPushProviderCreate(const VMKVelmora* velmora, VMKError** outError) {
    return createProvider<VMKPushProvider>(__func__, velmora, outError);
}

void VMKPushProviderRelease(VMKPushProvider* provider) {
    capi::release(__func__, provider);
}

}  // extern "C"

namespace {

bool registerForPush(const char* function, const VMKPushProvider* provider, const char* identifier,
                     const char* locale, bool channel, VMKPushRegistrationCallback callback, void* context,
                     VMKError** outError) {
    return call(function, provider, outError, [&](const velmora::ProviderModule& module) {
        auto id = capi::text(identifier, "identifier");
        auto language = capi::text(locale, "locale");
        auto answer = resultCallback<velmora::PushRegistrationResponse>(
            callback, context,
            [](VMKPushRegistrationCallback host, void* hostContext,
               const velmora::PushRegistrationResponse* response, const VMKError* e) {
                host(response != nullptr ? response->identifier.c_str() : nullptr, e, hostContext);
            });
        channel ? module.push().registerForPushWithUAChannelId(id, language, std::move(answer))
                : module.push().registerForPush(id, language, std::move(answer));
    });
}

}  // namespace

extern "C" {

bool VMKPushProviderRegisterWithDeviceIdentifier(const VMKPushProvider* provider, const char* identifier,
                                                 const char* locale, VMKPushRegistrationCallback callback,
                                                 void* context, VMKError** outError) {
    return registerForPush(__func__, provider, identifier, locale, false, callback, context, outError);
}

bool VMKPushProviderRegisterWithUAIdentifier(const VMKPushProvider* provider, const char* identifier,
                                             const char* locale, VMKPushRegistrationCallback callback,
                                             void* context, VMKError** outError) {
    return registerForPush(__func__, provider, identifier, locale, true, callback, context, outError);
}

bool VMKPushProviderUnregisterForPush(const VMKPushProvider* provider, VMKError** outError) {
    return call(__func__, provider, outError,
                [](const velmora::ProviderModule& module) { module.push().unregisterForPush(); });
}

bool VMKPushProviderUnregisterDeviceIdentifier(const VMKPushProvider* provider, const char* identifier,
                                               VMKError** outError) {
    return call(__func__, provider, outError, [&](const velmora::ProviderModule& module) {
        module.push().unregisterForPush(capi::text(identifier, "identifier"));
    });
}

VMKSettingsProvider* VMKSettingsProviderCreate(const VMKVelmora* velmora, VMKError** outError) {
    return createProvider<VMKSettingsProvider>(__func__, velmora, outError);
}

void VMKSettingsProviderRelease(VMKSettingsProvider* provider) {
    capi::release(__func__, provider);
}

bool VMKSettingsProviderGetCoreSettings(const VMKSettingsProvider* provider, VMKCoreSettingsCallback callback,
                                        void* context, VMKError** outError) {
    return call(__func__, provider, outError, [&](const velmora::ProviderModule& module) {
        module.settings().getSettings<velmora::CoreSettings>(
            settingsCallback<VMKCoreSettings, velmora::CoreSettings>(callback, context));
    });
}

bool VMKSettingsProviderGetBlipsSettings(const VMKSettingsProvider* provider,
                                         VMKBlipsSettingsCallback callback, void* context,
                                         VMKError** outError) {
    return call(__func__, provider, outError, [&](const velmora::ProviderModule& module) {
        module.settings().getSettings<velmora::BlipsSettings>(
            settingsCallback<VMKBlipsSettings, velmora::BlipsSettings>(callback, context));
    });
}

int64_t VMKCoreSettingsGetBrandId(const VMKCoreSettings* settings) {
    return record(__func__, settings, int64_t{-1},
                  [](const VMKCoreSettings& s) { return s.settings.brandId; });
}

double VMKCoreSettingsGetUpdatedAt(const VMKCoreSettings* settings) {
    return record(__func__, settings, 0.0,
                  [](const VMKCoreSettings& s) { return s.settings.updatedAt.timeIntervalSince1970(); });
}

const char* VMKCoreSettingsGetIdentifier(const VMKCoreSettings* settings) {
    return stringField(__func__, settings, [](const VMKCoreSettings& s) -> const std::optional<std::string>& {
        return s.settings.identifier;
    });
}

const char* VMKCoreSettingsGetAuthentication(const VMKCoreSettings* settings) {
    return stringField(__func__, settings, [](const VMKCoreSettings& s) -> const std::optional<std::string>& {
        return s.authentication;
    });
}

char* VMKCoreSettingsCopyJSON(const VMKCoreSettings* settings) {
    return record(__func__, settings, static_cast<char*>(nullptr),
                  [](const VMKCoreSettings& s) { return capi::copyJson(s.settings.toJson()); });
}

VMKCoreSettings* VMKCoreSettingsCopy(const VMKCoreSettings* settings) {
    return capi::share(__func__, settings);
}

void VMKCoreSettingsRelease(VMKCoreSettings* settings) {
    capi::release(__func__, settings);
}

bool VMKBlipsSettingsGetRequired(const VMKBlipsSettings* settings) {
    return record(__func__, settings, false,
                  [](const VMKBlipsSettings& s) { return s.value.permissions.required; });
}

bool VMKBlipsSettingsGetTrailmark(const VMKBlipsSettings* settings) {
    return record(__func__, settings, false,
                  [](const VMKBlipsSettings& s) { return s.value.permissions.trailmark; });
}

bool VMKBlipsSettingsGetBehavioural(const VMKBlipsSettings* settings) {
    return record(__func__, settings, false,
                  [](const VMKBlipsSettings& s) { return s.value.permissions.behavioural; });
}

char* VMKBlipsSettingsCopyJSON(const VMKBlipsSettings* settings) {
    return record(__func__, settings, static_cast<char*>(nullptr),
                  [](const VMKBlipsSettings& s) { return capi::copyJson(s.value.toJson()); });
}

VMKBlipsSettings* VMKBlipsSettingsCopy(const VMKBlipsSettings* settings) {
    return capi::share(__func__, settings);
}

void VMKBlipsSettingsRelease(VMKBlipsSettings* settings) {
    capi::release(__func__, settings);
}

VMKBlipsProvider* VMKBlipsProviderCreate(const VMKVelmora* velmora, VMKError** outError) {
    return createProvider<VMKBlipsProvider>(__func__, velmora, outError);
}

void VMKBlipsProviderRelease(VMKBlipsProvider* provider) {
    capi::release(__func__, provider);
}

bool VMKBlipsProviderSendUserAction(const VMKBlipsProvider* provider, const char* version, const char* action,
                                    const char* channel, const char* category, const char* label,
                                    const char* valueJSON, VMKBlipsGroup group, VMKError** outError) {
    return call(__func__, provider, outError, [&](const velmora::ProviderModule& module) {
        const velmora::UserAction event{capi::text(version, "version"),     capi::text(action, "action"),
                                        capi::text(channel, "channel"),     capi::text(category, "category"),
                                        capi::optionalText(label, "label"), payload(valueJSON)};
        module.blip().send(event, checkedGroup(group));
    });
}

bool VMKBlipsProviderSendPageView(const VMKBlipsProvider* provider, const char* version, const char* channel,
                                  const char* url, const char* pageTitle, const char* navigatorLanguage,
                                  const char* valueJSON, VMKBlipsGroup group, VMKError** outError) {
    return call(__func__, provider, outError, [&](const velmora::ProviderModule& module) {
        const velmora::PageView event{capi::text(version, "version"),
                                      capi::text(channel, "channel"),
                                      capi::text(url, "url"),
                                      capi::text(pageTitle, "pageTitle"),
                                      capi::text(navigatorLanguage, "navigatorLanguage"),
                                      payload(valueJSON)};
        module.blip().send(event, checkedGroup(group));
    });
}

}  // extern "C"
