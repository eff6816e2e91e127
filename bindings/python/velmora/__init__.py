"""The Velmora customer-support core library for Python: a thin layer over its C interface.

    import velmora
    sdk = velmora.Velmora.initialize("app-id", "client-id", "https://acme.example")
    sdk.set_identity(velmora.Anonymous(name="Ann"))
    user = sdk.user.get_user().result(timeout=30)

Asynchronous calls return a concurrent.futures.Future (await one with asyncio.wrap_future) and also take an
optional callback(value, error). Callbacks run on the library's main queue, a thread of the library, never
Python's main thread; a failed call raises (or hands the callback) a VelmoraError.
"""

import concurrent.futures
import ctypes
import json
import sys
import traceback

from . import _native
from ._native import load
from .errors import VelmoraError
from .records import (
    Anonymous,
    BlipsGroup,
    BlipsPermissions,
    BlipsSettings,
    CoreSettings,
    Jwt,
    LogLevel,
    Page,
    PageView,
    User,
    UserAction,
    UserField,
    UserFieldOption,
)

__version__ = "2.0.0"

__all__ = [
    "Anonymous", "BlipsGroup", "BlipsPermissions", "BlipsSettings", "CoreSettings", "Jwt", "LogLevel", "Page",
    "PageView", "User", "UserAction", "UserField", "UserFieldOption", "Velmora", "VelmoraError", "configure",
    "debug_live_handle_count", "help_center", "load", "logger", "wait_for_pending_requests",
]


def configure(application_name=None, data_directory=None, caches_directory=None):
    """Where the library keeps its state; call before Velmora.initialize, if at all. None takes the default."""
    lib = _native.lib()
    _native.call(
        lib.VMKEnvironmentInstall,
        _native.encode(application_name),
        _native.encode(None if data_directory is None else str(data_directory)),
        _native.encode(None if caches_directory is None else str(caches_directory)),
    )


def wait_for_pending_requests(timeout=10.0):
    """Waits until every request made so far has completed and its callback has run; False on time-out."""
    return _native.lib().VMKVelmoraWaitForPendingRequests(int(timeout * 1000))


def debug_live_handle_count():
    """How many handles of the C interface are alive (for leak tests)."""
    return _native.lib().VMKDebugLiveHandleCount()


class _Logger:
    """The library's one logger: off until enabled; `callback(level, message)` receives every line."""

    @property
    def enabled(self):
        return _native.lib().VMKCoreLoggerIsEnabled()

    @enabled.setter
    def enabled(self, value):
        _native.lib().VMKCoreLoggerSetEnabled(bool(value))

    @property
    def level(self):
        return LogLevel(_native.lib().VMKCoreLoggerGetLogLevel())

    @level.setter
    def level(self, value):
        _native.call(_native.lib().VMKCoreLoggerSetLogLevel, int(value))

    def log(self, level, message):
        _native.call(_native.lib().VMKCoreLoggerLog, int(level), _native.encode(message))

    def set_callback(self, callback):
        """Lines go to `callback(LogLevel, str)` on the library's main queue; None: back to standard error."""
        _native.set_log_function(None if callback is None else lambda level, text: callback(LogLevel(level), text))


logger = _Logger()


def _headers(headers):
    return None if headers is None else _native.encode(json.dumps(dict(headers)))


class _HelpCenter:
    """The account's help-centre pages, loaded with the end user's token."""

    def register_authentication_protocol(self):
        """From now on load() sends every page under the account URL that has no "Authorization" of its own
        with "Authorization: Bearer <token>", while the user has a token."""
        _native.lib().VMKHelpCenterUtilRegisterAuthenticationProtocol()

    def unregister_authentication_protocol(self):
        _native.lib().VMKHelpCenterUtilUnregisterAuthenticationProtocol()

    @property
    def velmora_url(self):
        """The account URL, or None before Velmora.initialize."""
        pointer = _native.lib().VMKHelpCenterUtilCopyVelmoraURL()
        return _native.take_string(pointer) if pointer else None

    @property
    def has_auth(self):
        return _native.lib().VMKHelpCenterUtilHasAuth()

    def can_authenticate(self, url, headers=None):
        """Whether the protocol would claim a GET of `url` with these headers: a web view's own request hook
        asks this before it adds canonical_headers()."""
        return _native.lib().VMKHelpCenterUtilCanAuthenticateRequest(_native.encode(url), _headers(headers))

    def canonical_headers(self, url, headers=None):
        """`headers` and, while the user has a token, "Authorization": "Bearer <token>"."""
        function = _native.lib().VMKHelpCenterUtilCopyCanonicalRequestHeadersJSON
        return json.loads(_native.take_string(_native.call(function, _native.encode(url), _headers(headers))))

    def load(self, url, callback=None):
        """The Page as a web view would load it (any HTTP answer); a VelmoraError for a transport failure."""

        def convert(status, body, error):
            if error:
                raise _native.error_from(error)
            return Page(status, body)

        function = _native.lib().VMKHelpCenterUtilLoadURL
        return _start(
            lambda key: _native.call(function, _native.encode(url), _native.on_page, key), convert, callback
        )


help_center = _HelpCenter()


class _Handle:
    """Owns one handle of the C interface and releases it with the object."""

    def __init__(self, handle, release):
        self._handle, self._release = handle, release

    def __del__(self):
        handle, self._handle = getattr(self, "_handle", None), None
        if handle:
            self._release(handle)


def _json(copy, handle):
    return json.loads(_native.take_string(copy(handle)))


def _result(convert):
    """The callback arguments of a Result (value handle, error handle) to a value, or a raised error."""

    def converted(value, error):
        if error:
            raise _native.error_from(error)
        return convert(value)

    return converted


def _start(start, convert, callback):
    """Starts one asynchronous call: `start(key)` hands the library the callback context."""
    future = concurrent.futures.Future()

    def deliver(*arguments):
        try:
            value, error = convert(*arguments), None
        except Exception as raised:  # a VelmoraError, or an answer this package cannot read
            value, error = None, raised
        if callback is not None:
            try:
                callback(value, error)
            except BaseException:  # a callback's own failure must not lose the future's outcome
                traceback.print_exc(file=sys.stderr)
        if not future.set_running_or_notify_cancel():
            return  # the host cancelled it
        if error is not None:
            future.set_exception(error)
        else:
            future.set_result(value)

    key = _native.register(deliver)
    try:
        start(key)
    except BaseException:
        _native.discard(key)
        raise
    return future


class _Provider(_Handle):
    def __init__(self, velmora, kind):
        lib = _native.lib()
        create, release = getattr(lib, f"VMK{kind}ProviderCreate"), getattr(lib, f"VMK{kind}ProviderRelease")
        super().__init__(_native.call(create, velmora._handle), release)


class UserProvider(_Provider):
    """The end user's record, tags and custom fields on the account."""

    def __init__(self, velmora):
        super().__init__(velmora, "User")

    def _user_call(self, function, *arguments, callback=None):
        convert = _result(lambda user: User.from_json(_json(_native.lib().VMKUserCopyJSON, user)))
        return _start(
            lambda key: _native.call(function, self._handle, *arguments, _native.on_user, key), convert, callback
        )

    def get_user(self, callback=None):
        return self._user_call(_native.lib().VMKUserProviderGetUser, callback=callback)

    def add_tags(self, tags, callback=None):
        return self._user_call(_native.lib().VMKUserProviderAddTags, *_texts(tags), callback=callback)

    def delete_tags(self, tags, callback=None):
        return self._user_call(_native.lib().VMKUserProviderDeleteTags, *_texts(tags), callback=callback)

    def set_user_fields(self, fields, callback=None):
        """`fields` maps field keys to JSON-serialisable values."""
        text = _native.encode(json.dumps(dict(fields)))
        return self._user_call(_native.lib().VMKUserProviderSetUserFields, text, callback=callback)

    def get_user_fields(self, callback=None):
        lib = _native.lib()
        convert = _result(lambda fields: [UserField.from_json(_json(lib.VMKUserFieldCopyJSON, f)) for f in fields])
        return _start(
            lambda key: _native.call(lib.VMKUserProviderGetUserFields, self._handle, _native.on_fields, key),
            convert,
            callback,
        )


def _texts(items):
    encoded = [_native.encode(item) for item in items]
    return (ctypes.c_char_p * len(encoded))(*encoded), len(encoded)


class PushProvider(_Provider):
    """Registration of the device for the account's push notifications."""

    def __init__(self, velmora):
        super().__init__(velmora, "Push")

    def register(self, identifier, locale, channel=False, callback=None):
        """Registers a device token (or, with channel=True, a push service's channel id); the value is the
        identifier registered."""
        lib = _native.lib()
        if channel:
            function = lib.VMKPushProviderRegisterWithUAIdentifier
        else:
            function = lib.VMKPushProviderRegisterWithDeviceIdentifier
        arguments = (self._handle, _native.encode(identifier), _native.encode(locale), _native.on_push)
        return _start(lambda key: _native.call(function, *arguments, key), _result(_native.decode), callback)

    def unregister(self, identifier=None):
        """Removes the stored registration (or that of `identifier`); fire and forget."""
        lib = _native.lib()
        if identifier is None:
            _native.call(lib.VMKPushProviderUnregisterForPush, self._handle)
        else:
            _native.call(lib.VMKPushProviderUnregisterDeviceIdentifier, self._handle, _native.encode(identifier))


class SettingsProvider(_Provider):
    """The account's settings: never an error, the defaults instead."""

    def __init__(self, velmora):
        super().__init__(velmora, "Settings")

    def _get(self, function, copy, record, callback):
        return _start(
            lambda key: _native.call(function, self._handle, _native.on_settings, key),
            lambda settings: record.from_json(_json(copy, settings)),
            callback,
        )

    def core(self, callback=None):
        lib = _native.lib()
        return self._get(lib.VMKSettingsProviderGetCoreSettings, lib.VMKCoreSettingsCopyJSON, CoreSettings, callback)

    def blips(self, callback=None):
        lib = _native.lib()
        return self._get(
            lib.VMKSettingsProviderGetBlipsSettings, lib.VMKBlipsSettingsCopyJSON, BlipsSettings, callback
        )


class BlipsProvider(_Provider):
    """Analytics events, sent as far as the account's settings permit; fire and forget."""

    def __init__(self, velmora):
        super().__init__(velmora, "Blips")

    def send(self, event, group=BlipsGroup.REQUIRED):
        lib = _native.lib()
        value = None if event.value is None else _native.encode(json.dumps(event.value))
        if isinstance(event, UserAction):
            texts = (event.version, event.action, event.channel, event.category, event.label)
            function = lib.VMKBlipsProviderSendUserAction
        else:
            texts = (event.version, event.channel, event.url, event.page_title, event.navigator_language)
            function = lib.VMKBlipsProviderSendPageView
        _native.call(function, self._handle, *map(_native.encode, texts), value, int(group))


class Velmora(_Handle):
    """The library for one account: the end user's identity and the providers."""

    def __init__(self, handle):
        super().__init__(handle, _native.lib().VMKVelmoraRelease)
        self.user = UserProvider(self)
        self.push = PushProvider(self)
        self.settings = SettingsProvider(self)
        self.blips = BlipsProvider(self)

    @staticmethod
    def initialize(app_id, client_id, url):
        """Builds the library for the account (unless it already serves it) and returns the instance."""
        lib = _native.lib()
        _native.call(lib.VMKVelmoraInitialize, *map(_native.encode, (app_id, client_id, url)))
        return Velmora.instance()

    @staticmethod
    def instance():
        """The installed instance; VelmoraError (NOT_INITIALISED) before initialize."""
        return Velmora(_native.call(_native.lib().VMKVelmoraCopyInstance))

    @property
    def application_id(self):
        return _native.decode(_native.lib().VMKVelmoraGetApplicationId(self._handle))

    @property
    def client_id(self):
        return _native.decode(_native.lib().VMKVelmoraGetClientId(self._handle))

    @property
    def account_url(self):
        return _native.decode(_native.lib().VMKVelmoraGetAccountURL(self._handle))

    def set_identity(self, identity):
        """A Jwt or an Anonymous; another user than the stored one clears the old one's session first."""
        lib = _native.lib()
        if isinstance(identity, Jwt):
            handle = _native.call(lib.VMKObjCJwtCreate, _native.encode(identity.token))
            release, setter = lib.VMKObjCJwtRelease, lib.VMKVelmoraSetJwtIdentity
        else:
            handle = _native.call(
                lib.VMKObjCAnonymousCreate, _native.encode(identity.name), _native.encode(identity.email)
            )
            release, setter = lib.VMKObjCAnonymousRelease, lib.VMKVelmoraSetAnonymousIdentity
        try:
            _native.call(setter, self._handle, handle)
        finally:
            release(handle)

    @property
    def identity(self):
        """The stored identity (an Anonymous carries the installation's GUID), or None."""
        lib = _native.lib()
        jwt, anonymous = ctypes.c_void_p(), ctypes.c_void_p()
        _native.call(lib.VMKVelmoraCopyObjCIdentity, self._handle, ctypes.byref(jwt), ctypes.byref(anonymous))
        if jwt.value:
            try:
                return Jwt(_native.decode(lib.VMKObjCJwtGetToken(jwt.value)))
            finally:
                lib.VMKObjCJwtRelease(jwt.value)
        if anonymous.value:
            try:
                getters = (lib.VMKObjCAnonymousGetName, lib.VMKObjCAnonymousGetEmail, lib.VMKObjCAnonymousGetGuid)
                return Anonymous(*(_native.decode(get(anonymous.value)) for get in getters))
            finally:
                lib.VMKObjCAnonymousRelease(anonymous.value)
        return None
