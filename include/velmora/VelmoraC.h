#ifndef VELMORA_VELMORA_C_H
#define VELMORA_VELMORA_C_H

/*
 * The library for C and for every language with a C foreign-function interface. C11; also compiles as C++.
 *
 * Ownership. What a function named Create or Copy returns belongs to the caller, who releases it with the
 * Release function of its type (strings: VMKStringRelease); NULL is accepted by every Release. What a
 * function named Get returns is borrowed: it stays valid for as long as the object it was read from. What a
 * callback receives is borrowed for the duration of the call; Copy it to keep it (VMKUserCopy, VMKErrorCopy,
 * ...). Handles are thread-safe: records are immutable and may be read and released from any thread.
 *
 * Callbacks. A callback receives its `void *context` as its last argument; a function that takes a callback
 * takes it with its context, `(callback, context)`, just before `outError`. A callback runs on the library's
 * main queue (a thread of the library), once per call that returned true, and never inside the call that
 * asked for it. It may call back into the library, except VMKVelmoraWaitForPendingRequests, which refuses on
 * the main queue. It must never wait for another callback (a future's result, a semaphore): every callback
 * and every login answer arrives on that same queue, so the whole library would wait with it. A NULL
 * callback discards the result. Callbacks still owed when the process exits are dropped;
 * VMKVelmoraWaitForPendingRequests waits for them. Lines the log callback logs itself go to standard error.
 *
 * Errors. A function that can fail returns false (or NULL) and, when `outError` is not NULL, stores a new
 * VMKError there for the caller to release; on success it stores NULL. Functions without `outError` refuse
 * bad arguments with a line in the library's log and return NULL, 0 or false. A NULL argument, a handle of
 * another type and an out-of-range value are never a crash, and no exception crosses this interface. A
 * handle already released, or released by the host while it was only lent to a callback, is the host's bug.
 * Handles of an instance that a later initialize replaced are refused (VMKErrorCodeRefused): read the
 * instance again.
 *
 * Strings are UTF-8 and NUL-terminated; text that is not UTF-8 is refused. Times are seconds since
 * 1970-01-01T00:00:00Z. Records also have a JSON text form (...CopyJSON), the account's own.
 */

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "velmora/Export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct VMKVelmora VMKVelmora;
typedef struct VMKObjCJwt VMKObjCJwt;
typedef struct VMKObjCAnonymous VMKObjCAnonymous;
typedef struct VMKUserProvider VMKUserProvider;
typedef struct VMKUser VMKUser;
typedef struct VMKUserField VMKUserField;
typedef struct VMKUserFieldOption VMKUserFieldOption;
typedef struct VMKPushProvider VMKPushProvider;
typedef struct VMKSettingsProvider VMKSettingsProvider;
typedef struct VMKCoreSettings VMKCoreSettings;
typedef struct VMKBlipsSettings VMKBlipsSettings;
typedef struct VMKBlipsProvider VMKBlipsProvider;
typedef struct VMKError VMKError;

/* ---- Errors ------------------------------------------------------------------------------------------- */

/* The domains and codes a host may meet, as in the C++ header velmora/Errors.h. */
#define VMKErrorDomainCore "com.velmora.sdk.core"
#define VMKErrorDomainAccess "com.velmora.core.access"
#define VMKErrorDomainDecoding "NSCocoaErrorDomain"
#define VMKErrorDomainURL "NSURLErrorDomain"
#define VMKErrorDomainPOSIX "NSPOSIXErrorDomain"
#define VMKErrorDomainAuthentication "VelmoraCoreSDK.Authentication.AuthenticationError"
#define VMKErrorDomainIdentity "VelmoraCoreSDK.Identity.IdentityError"
#define VMKErrorDomainObjCIdentity "VelmoraCoreSDK.ObjCIdentityError"
#define VMKErrorDomainCacheManager "VelmoraCoreSDK.CacheManagerError"
#define VMKErrorDomainAccountStore "VelmoraCoreSDK.AccountStoreError"
#define VMKErrorDomainSDK "VelmoraCoreSDK.SDKError"
/* This interface's own refusals: an argument it cannot pass on, or a call it cannot make. */
#define VMKErrorDomainInterface "com.velmora.core.c-interface"

/* The user-info key of the HTTP status of a failed answer. */
#define VMKErrorUserInfoHTTPStatusCodeKey "HTTP Status code"

enum {
    /* VMKErrorDomainCore */
    VMKErrorCodeAccessFailed = 1000,
    VMKErrorCodePushRegistrationFailed = 2000,
    VMKErrorCodeUserNoData = 3000,
    /* VMKErrorDomainAccess: no identity is stored; set one first. */
    VMKErrorCodeNoIdentity = 100,
    /* VMKErrorDomainDecoding */
    VMKErrorCodeNotJSON = 3840,
    VMKErrorCodeDataCorrupted = 4864,
    VMKErrorCodeValueNotFound = 4865,
    VMKErrorCodeEncodingFailed = 4866,
    /* VMKErrorDomainURL */
    VMKErrorCodeURLUnknown = -1,
    VMKErrorCodeURLCancelled = -999,
    VMKErrorCodeURLBadURL = -1000,
    VMKErrorCodeURLTimedOut = -1001,
    VMKErrorCodeURLCannotFindHost = -1003,
    VMKErrorCodeURLCannotConnectToHost = -1004,
    VMKErrorCodeURLNetworkConnectionLost = -1005,
    VMKErrorCodeURLHTTPTooManyRedirects = -1007,
    VMKErrorCodeURLBadServerResponse = -1011,
    VMKErrorCodeURLSecureConnectionRequired = -1022,
    VMKErrorCodeURLDataLengthExceedsMaximum = -1103,
    VMKErrorCodeURLSecureConnectionFailed = -1200,
    VMKErrorCodeURLServerCertificateUntrusted = -1202,
    /* The library's own error enumerations, each in its domain. */
    VMKErrorCodeMalformedUserId = 0,
    VMKErrorCodeUnknownIdentityType = 0,
    VMKErrorCodeIncompatibleIdentityType = 0,
    VMKErrorCodeNilCacheURL = 0,
    VMKErrorCodeBase64EncodingFailed = 0,
    /* VMKErrorDomainInterface */
    VMKErrorCodeNullArgument = 1,    /* a required argument is NULL */
    VMKErrorCodeInvalidArgument = 2, /* text not UTF-8, JSON that does not parse, a value out of range */
    VMKErrorCodeNotInitialised = 3,  /* no instance: call VMKVelmoraInitialize first */
    VMKErrorCodeInternal = 4,        /* the library failed inside (out of memory) */
    VMKErrorCodeRefused = 5 /* the library refused the call or could not store it; the log says why */
};

VELMORA_EXPORT const char* VMKErrorGetDomain(const VMKError* error);
VELMORA_EXPORT int64_t VMKErrorGetCode(const VMKError* error);
/* The description meant for people. */
VELMORA_EXPORT const char* VMKErrorGetDescription(const VMKError* error);
/* The user info: a JSON object. */
VELMORA_EXPORT char* VMKErrorCopyUserInfoJSON(const VMKError* error);
VELMORA_EXPORT VMKError* VMKErrorCopy(const VMKError* error);
VELMORA_EXPORT void VMKErrorRelease(VMKError* error);

/* Releases a string a ...Copy... function returned. */
VELMORA_EXPORT void VMKStringRelease(char* string);

/* ---- The place the library runs in ----------------------------------------------------------------------
 */

/* Call before VMKVelmoraInitialize, if at all. The application name names the directories of its state;
 * NULL arguments take the defaults ($XDG_DATA_HOME/<name>, $XDG_CACHE_HOME/<name>, the executable's name). */
VELMORA_EXPORT bool VMKEnvironmentInstall(const char* applicationName, const char* dataDirectory,
                                          const char* cachesDirectory, VMKError** outError);

/* ---- Logging --------------------------------------------------------------------------------------------
 */

typedef enum VMKLogLevel {
    VMKLogLevelError = 0,
    VMKLogLevelWarn = 1,
    VMKLogLevelInfo = 2,
    VMKLogLevelDebug = 3,
    VMKLogLevelVerbose = 4
} VMKLogLevel;

/* One line of the library's log ("[DEBUG]: ..." from the logger, and the library's own reports), in order. */
typedef void (*VMKLogCallback)(VMKLogLevel level, const char* message, void* context);

/* The logger is off until enabled; its level, once on, is debug. */
VELMORA_EXPORT void VMKCoreLoggerSetEnabled(bool enabled);
VELMORA_EXPORT bool VMKCoreLoggerIsEnabled(void);
VELMORA_EXPORT bool VMKCoreLoggerSetLogLevel(VMKLogLevel level, VMKError** outError);
VELMORA_EXPORT VMKLogLevel VMKCoreLoggerGetLogLevel(void);
/* Whether a message of this level would be logged now. */
VELMORA_EXPORT bool VMKCoreLoggerIsLogging(VMKLogLevel level);
/* Logs the message at the level, as the library's own messages are. */
VELMORA_EXPORT bool VMKCoreLoggerLog(VMKLogLevel level, const char* message, VMKError** outError);
/* Every line of the log goes to the callback instead of standard error; NULL goes back to standard error. */
VELMORA_EXPORT void VMKCoreLoggerSetCallback(VMKLogCallback callback, void* context);

/* ---- The facade -----------------------------------------------------------------------------------------
 */

/* Builds the library for the account and installs it, unless the installed instance already serves it
 * (same account URL and application id). Refused (VMKErrorCodeRefused) when the URL is not a plain http or
 * https base, the application id is not one URL path segment, or the stored state could not be replaced;
 * an installed instance then stays. */
VELMORA_EXPORT bool VMKVelmoraInitialize(const char* appId, const char* clientId, const char* velmoraUrl,
                                         VMKError** outError);
/* The installed instance; NULL and VMKErrorCodeNotInitialised before VMKVelmoraInitialize. */
VELMORA_EXPORT VMKVelmora* VMKVelmoraCopyInstance(VMKError** outError);
VELMORA_EXPORT void VMKVelmoraRelease(VMKVelmora* velmora);

VELMORA_EXPORT const char* VMKVelmoraGetApplicationId(const VMKVelmora* velmora);
VELMORA_EXPORT const char* VMKVelmoraGetClientId(const VMKVelmora* velmora);
VELMORA_EXPORT const char* VMKVelmoraGetAccountURL(const VMKVelmora* velmora);

/* Another user than the stored one clears the old one's session first; login waits for the first request.
 * VMKErrorCodeRefused when the identity could not be stored: the previous identity and session then stay. */
VELMORA_EXPORT bool VMKVelmoraSetJwtIdentity(const VMKVelmora* velmora, const VMKObjCJwt* identity,
                                             VMKError** outError);
VELMORA_EXPORT bool VMKVelmoraSetAnonymousIdentity(const VMKVelmora* velmora,
                                                   const VMKObjCAnonymous* identity, VMKError** outError);
/* The stored identity: a new object in *outJwt or *outAnonymous (the other NULL), or both NULL when none is
 * set. An anonymous identity carries the installation's GUID. */
VELMORA_EXPORT bool VMKVelmoraCopyObjCIdentity(const VMKVelmora* velmora, VMKObjCJwt** outJwt,
                                               VMKObjCAnonymous** outAnonymous, VMKError** outError);

/* Waits until every request made so far, events and unregistrations included, has completed and every
 * callback owed has run. False when the time-out passed first, and at once on the main queue. */
VELMORA_EXPORT bool VMKVelmoraWaitForPendingRequests(int64_t timeoutMilliseconds);

/* ---- Identities -----------------------------------------------------------------------------------------
 */

VELMORA_EXPORT VMKObjCJwt* VMKObjCJwtCreate(const char* token, VMKError** outError);
VELMORA_EXPORT const char* VMKObjCJwtGetToken(const VMKObjCJwt* jwt);
VELMORA_EXPORT void VMKObjCJwtRelease(VMKObjCJwt* jwt);

/* Name and e-mail may be NULL. */
VELMORA_EXPORT VMKObjCAnonymous* VMKObjCAnonymousCreate(const char* name, const char* email,
                                                        VMKError** outError);
/* NULL when absent. */
VELMORA_EXPORT const char* VMKObjCAnonymousGetName(const VMKObjCAnonymous* anonymous);
VELMORA_EXPORT const char* VMKObjCAnonymousGetEmail(const VMKObjCAnonymous* anonymous);
VELMORA_EXPORT const char* VMKObjCAnonymousGetGuid(const VMKObjCAnonymous* anonymous);
/* The same name with another e-mail (NULL: none) and no GUID. */
VELMORA_EXPORT VMKObjCAnonymous* VMKObjCAnonymousCopyUpdatingEmail(const VMKObjCAnonymous* anonymous,
                                                                   const char* email, VMKError** outError);
VELMORA_EXPORT void VMKObjCAnonymousRelease(VMKObjCAnonymous* anonymous);

/* ---- The user -------------------------------------------------------------------------------------------
 */

typedef void (*VMKUserCallback)(const VMKUser* user, const VMKError* error, void* context);
typedef void (*VMKUserFieldsCallback)(const VMKUserField* const* fields, size_t count, const VMKError* error,
                                      void* context);

VELMORA_EXPORT VMKUserProvider* VMKUserProviderCreate(const VMKVelmora* velmora, VMKError** outError);
VELMORA_EXPORT void VMKUserProviderRelease(VMKUserProvider* provider);

/* Each calls back with the user (and a NULL error) or with an error (and a NULL user). */
VELMORA_EXPORT bool VMKUserProviderGetUser(const VMKUserProvider* provider, VMKUserCallback callback,
                                           void* context, VMKError** outError);
VELMORA_EXPORT bool VMKUserProviderAddTags(const VMKUserProvider* provider, const char* const* tags,
                                           size_t count, VMKUserCallback callback, void* context,
                                           VMKError** outError);
VELMORA_EXPORT bool VMKUserProviderDeleteTags(const VMKUserProvider* provider, const char* const* tags,
                                              size_t count, VMKUserCallback callback, void* context,
                                              VMKError** outError);
/* A JSON object from field key to value, e.g. {"plan": "gold", "seats": 12}. */
VELMORA_EXPORT bool VMKUserProviderSetUserFields(const VMKUserProvider* provider, const char* userFieldsJSON,
                                                 VMKUserCallback callback, void* context,
                                                 VMKError** outError);
VELMORA_EXPORT bool VMKUserProviderGetUserFields(const VMKUserProvider* provider,
                                                 VMKUserFieldsCallback callback, void* context,
                                                 VMKError** outError);

VELMORA_EXPORT const char* VMKUserGetId(const VMKUser* user);
VELMORA_EXPORT const char* VMKUserGetName(const VMKUser* user);
VELMORA_EXPORT bool VMKUserIsAgent(const VMKUser* user);
VELMORA_EXPORT const char* VMKUserGetContentURL(const VMKUser* user);
VELMORA_EXPORT size_t VMKUserGetTagCount(const VMKUser* user);
VELMORA_EXPORT const char* VMKUserGetTag(const VMKUser* user, size_t index);
/* The user's field values as text, by key (in key order). */
VELMORA_EXPORT size_t VMKUserGetUserFieldCount(const VMKUser* user);
VELMORA_EXPORT const char* VMKUserGetUserFieldKey(const VMKUser* user, size_t index);
/* NULL when the user has no value for the key. */
VELMORA_EXPORT const char* VMKUserGetUserFieldValue(const VMKUser* user, const char* key);
VELMORA_EXPORT char* VMKUserCopyJSON(const VMKUser* user);
VELMORA_EXPORT VMKUser* VMKUserCopy(const VMKUser* user);
VELMORA_EXPORT void VMKUserRelease(VMKUser* user);

VELMORA_EXPORT const char* VMKUserFieldGetId(const VMKUserField* field);
VELMORA_EXPORT const char* VMKUserFieldGetURL(const VMKUserField* field);
VELMORA_EXPORT const char* VMKUserFieldGetKey(const VMKUserField* field);
/* "checkbox", "date", "decimal", "dropdown", "integer", "regexp", "text" or "textarea". */
VELMORA_EXPORT const char* VMKUserFieldGetType(const VMKUserField* field);
VELMORA_EXPORT const char* VMKUserFieldGetTitle(const VMKUserField* field);
VELMORA_EXPORT const char* VMKUserFieldGetRawTitle(const VMKUserField* field);
VELMORA_EXPORT const char* VMKUserFieldGetDescription(const VMKUserField* field);
VELMORA_EXPORT const char* VMKUserFieldGetRawDescription(const VMKUserField* field);
VELMORA_EXPORT int64_t VMKUserFieldGetPosition(const VMKUserField* field);
VELMORA_EXPORT bool VMKUserFieldIsActive(const VMKUserField* field);
VELMORA_EXPORT bool VMKUserFieldIsSystem(const VMKUserField* field);
VELMORA_EXPORT const char* VMKUserFieldGetRegexpForValidation(const VMKUserField* field);
VELMORA_EXPORT double VMKUserFieldGetCreatedAt(const VMKUserField* field);
VELMORA_EXPORT double VMKUserFieldGetUpdatedAt(const VMKUserField* field);
/* Whether the account sent a list of options (a drop-down field does). */
VELMORA_EXPORT bool VMKUserFieldHasOptions(const VMKUserField* field);
VELMORA_EXPORT size_t VMKUserFieldGetOptionCount(const VMKUserField* field);
VELMORA_EXPORT const VMKUserFieldOption* VMKUserFieldGetOption(const VMKUserField* field, size_t index);
VELMORA_EXPORT char* VMKUserFieldCopyJSON(const VMKUserField* field);
VELMORA_EXPORT VMKUserField* VMKUserFieldCopy(const VMKUserField* field);
VELMORA_EXPORT void VMKUserFieldRelease(VMKUserField* field);

/* Options are borrowed from their field. */
VELMORA_EXPORT const char* VMKUserFieldOptionGetId(const VMKUserFieldOption* option);
VELMORA_EXPORT const char* VMKUserFieldOptionGetName(const VMKUserFieldOption* option);
VELMORA_EXPORT const char* VMKUserFieldOptionGetRawName(const VMKUserFieldOption* option);
VELMORA_EXPORT const char* VMKUserFieldOptionGetURL(const VMKUserFieldOption* option);
VELMORA_EXPORT const char* VMKUserFieldOptionGetValue(const VMKUserFieldOption* option);
VELMORA_EXPORT int64_t VMKUserFieldOptionGetPosition(const VMKUserFieldOption* option);
VELMORA_EXPORT char* VMKUserFieldOptionCopyJSON(const VMKUserFieldOption* option);

/* ---- Push notifications ---------------------------------------------------------------------------------
 */

/* The identifier registered, or an error (domain core, VMKErrorCodePushRegistrationFailed with the HTTP
 * status in the user info, for an answer outside 2xx). */
typedef void (*VMKPushRegistrationCallback)(const char* identifier, const VMKError* error, void* context);

VELMORA_EXPORT VMKPushProvider* VMKPushProviderCreate(const VMKVelmora* velmora, VMKError** outError);
VELMORA_EXPORT void VMKPushProviderRelease(VMKPushProvider* provider);

/* A device token. Registering the identifier already registered succeeds without a request. */
VELMORA_EXPORT bool VMKPushProviderRegisterWithDeviceIdentifier(const VMKPushProvider* provider,
                                                                const char* identifier, const char* locale,
                                                                VMKPushRegistrationCallback callback,
                                                                void* context, VMKError** outError);
/* A channel identifier of an outside push-delivery service. */
VELMORA_EXPORT bool VMKPushProviderRegisterWithUAIdentifier(const VMKPushProvider* provider,
                                                            const char* identifier, const char* locale,
                                                            VMKPushRegistrationCallback callback,
                                                            void* context, VMKError** outError);
/* Removes the stored registration, if any. Fire and forget: the outcome is only logged. */
VELMORA_EXPORT bool VMKPushProviderUnregisterForPush(const VMKPushProvider* provider, VMKError** outError);
/* Removes the registration of the given identifier; fire and forget. */
VELMORA_EXPORT bool VMKPushProviderUnregisterDeviceIdentifier(const VMKPushProvider* provider,
                                                              const char* identifier, VMKError** outError);

/* ---- The account's settings -----------------------------------------------------------------------------
 */

/* Settings never fail: without an answer that decodes, the callback gets the defaults. */
typedef void (*VMKCoreSettingsCallback)(const VMKCoreSettings* settings, void* context);
typedef void (*VMKBlipsSettingsCallback)(const VMKBlipsSettings* settings, void* context);

VELMORA_EXPORT VMKSettingsProvider* VMKSettingsProviderCreate(const VMKVelmora* velmora, VMKError** outError);
VELMORA_EXPORT void VMKSettingsProviderRelease(VMKSettingsProvider* provider);
/* From the stored copy while it is fresh (an hour), else from the account. */
VELMORA_EXPORT bool VMKSettingsProviderGetCoreSettings(const VMKSettingsProvider* provider,
                                                       VMKCoreSettingsCallback callback, void* context,
                                                       VMKError** outError);
VELMORA_EXPORT bool VMKSettingsProviderGetBlipsSettings(const VMKSettingsProvider* provider,
                                                        VMKBlipsSettingsCallback callback, void* context,
                                                        VMKError** outError);

/* -1 by default. */
VELMORA_EXPORT int64_t VMKCoreSettingsGetBrandId(const VMKCoreSettings* settings);
VELMORA_EXPORT double VMKCoreSettingsGetUpdatedAt(const VMKCoreSettings* settings);
/* NULL when absent. */
VELMORA_EXPORT const char* VMKCoreSettingsGetIdentifier(const VMKCoreSettings* settings);
/* "jwt", "anonymous", or NULL when absent. */
VELMORA_EXPORT const char* VMKCoreSettingsGetAuthentication(const VMKCoreSettings* settings);
VELMORA_EXPORT char* VMKCoreSettingsCopyJSON(const VMKCoreSettings* settings);
VELMORA_EXPORT VMKCoreSettings* VMKCoreSettingsCopy(const VMKCoreSettings* settings);
VELMORA_EXPORT void VMKCoreSettingsRelease(VMKCoreSettings* settings);

/* Which groups of events the account accepts; all false by default. */
VELMORA_EXPORT bool VMKBlipsSettingsGetRequired(const VMKBlipsSettings* settings);
VELMORA_EXPORT bool VMKBlipsSettingsGetTrailmark(const VMKBlipsSettings* settings);
VELMORA_EXPORT bool VMKBlipsSettingsGetBehavioural(const VMKBlipsSettings* settings);
VELMORA_EXPORT char* VMKBlipsSettingsCopyJSON(const VMKBlipsSettings* settings);
VELMORA_EXPORT VMKBlipsSettings* VMKBlipsSettingsCopy(const VMKBlipsSettings* settings);
VELMORA_EXPORT void VMKBlipsSettingsRelease(VMKBlipsSettings* settings);

/* ---- Analytics events -----------------------------------------------------------------------------------
 */

typedef enum VMKBlipsGroup {
    VMKBlipsGroupRequired = 0,
    VMKBlipsGroupBehavioural = 1,
    VMKBlipsGroupTrailmark = 2
} VMKBlipsGroup;

VELMORA_EXPORT VMKBlipsProvider* VMKBlipsProviderCreate(const VMKVelmora* velmora, VMKError** outError);
VELMORA_EXPORT void VMKBlipsProviderRelease(VMKBlipsProvider* provider);

/* Fire and forget, sent when the account's stored settings permit the group. `label` and `valueJSON` (any
 * JSON value, the event's payload) may be NULL. */
VELMORA_EXPORT bool VMKBlipsProviderSendUserAction(const VMKBlipsProvider* provider, const char* version,
                                                   const char* action, const char* channel,
                                                   const char* category, const char* label,
                                                   const char* valueJSON, VMKBlipsGroup group,
                                                   VMKError** outError);
VELMORA_EXPORT bool VMKBlipsProviderSendPageView(const VMKBlipsProvider* provider, const char* version,
                                                 const char* channel, const char* url, const char* pageTitle,
                                                 const char* navigatorLanguage, const char* valueJSON,
                                                 VMKBlipsGroup group, VMKError** outError);

/* ---- Help-centre pages ----------------------------------------------------------------------------------
 */

/* A page loaded by VMKHelpCenterUtilLoadURL: the status and body of any HTTP answer (a 404 too, with a NULL
 * error), or an error (a URL error for a transport failure) with the status and body of what had arrived,
 * if anything (status 0 without a response). `body` may be NULL when `length` is 0. */
typedef void (*VMKHelpCenterPageCallback)(int status, const uint8_t* body, size_t length,
                                          const VMKError* error, void* context);

/* While registered, the library's URL loading (VMKHelpCenterUtilLoadURL) sends every request under the
 * account URL that has no "Authorization" of its own once, with "Authorization: Bearer <token>", as long as
 * the user has a token. The library never registers it itself; registering twice keeps one registration. */
VELMORA_EXPORT void VMKHelpCenterUtilRegisterAuthenticationProtocol(void);
VELMORA_EXPORT void VMKHelpCenterUtilUnregisterAuthenticationProtocol(void);
/* The account URL; NULL before VMKVelmoraInitialize. */
VELMORA_EXPORT char* VMKHelpCenterUtilCopyVelmoraURL(void);
/* Whether the library is initialised and holds an access token that is not empty. */
VELMORA_EXPORT bool VMKHelpCenterUtilHasAuth(void);

/* For a web view with a request hook of its own: whether the registered protocol would claim a GET of the
 * URL with these header fields (a JSON object of texts; NULL: none), i.e. the URL starts with the account URL
 * (letter case counts), it has no "Authorization" and the user has a token. Ask this first, then add what
 * VMKHelpCenterUtilCopyCanonicalRequestHeadersJSON gives. */
VELMORA_EXPORT bool VMKHelpCenterUtilCanAuthenticateRequest(const char* url, const char* headersJSON);
/* The header fields of the canonical request (a JSON object): the given ones (NULL: none) and, while a token
 * is held, "Authorization": "Bearer <token>" whatever the URL; without a token the given ones unchanged. */
VELMORA_EXPORT char* VMKHelpCenterUtilCopyCanonicalRequestHeadersJSON(const char* url,
                                                                      const char* headersJSON,
                                                                      VMKError** outError);
/* Loads the URL as a web view would: through the registered protocol when it claims the request, otherwise
 * straight from the network (no cookies, no response cache, none of the library's own headers). */
VELMORA_EXPORT bool VMKHelpCenterUtilLoadURL(const char* url, VMKHelpCenterPageCallback callback,
                                             void* context, VMKError** outError);

/* ---- Diagnostics ----------------------------------------------------------------------------------------
 */

/* How many handles of this interface are alive: for bindings' leak tests. */
VELMORA_EXPORT size_t VMKDebugLiveHandleCount(void);

#ifdef __cplusplus
}
#endif

#endif /* VELMORA_VELMORA_C_H */
