"""The shared library and the prototypes of its C interface (velmora/VelmoraC.h), through ctypes.

The library is looked for, in this order: the path given to load(), the file named by the environment
variable VELMORA_CORE_LIBRARY, the library installed with this package (cmake --install, component
python), and the system's library path (ctypes.util.find_library).
"""

import atexit
import ctypes
import ctypes.util
import itertools
import json
import os
import threading

from .errors import VelmoraError

_c_bool, _c_int, _c_int64, _c_size_t, _c_void_p = (
    ctypes.c_bool, ctypes.c_int, ctypes.c_int64, ctypes.c_size_t, ctypes.c_void_p)
_handle = _c_void_p
_out = ctypes.POINTER(_c_void_p)  # VMKError **outError and other out-parameters

# Callbacks: the context, an integer key of the pending call, always last.
_text, _json = ctypes.c_char_p, _c_void_p  # borrowed text; an owned string for VMKStringRelease
USER_CALLBACK = ctypes.CFUNCTYPE(None, _handle, _handle, _c_void_p)
FIELDS_CALLBACK = ctypes.CFUNCTYPE(None, ctypes.POINTER(_handle), _c_size_t, _handle, _c_void_p)
PUSH_CALLBACK = ctypes.CFUNCTYPE(None, _text, _handle, _c_void_p)
SETTINGS_CALLBACK = ctypes.CFUNCTYPE(None, _handle, _c_void_p)
LOG_CALLBACK = ctypes.CFUNCTYPE(None, _c_int, _text, _c_void_p)
PAGE_CALLBACK = ctypes.CFUNCTYPE(None, _c_int, _c_void_p, _c_size_t, _handle, _c_void_p)
_texts = ctypes.POINTER(_text)
_event = [_handle, _text, _text, _text, _text, _text, _text, _c_int, _out]
_registration = [_handle, _text, _text, PUSH_CALLBACK, _c_void_p, _out]
_PROTOTYPES = {
    "VMKErrorGetDomain": (_text, [_handle]),
    "VMKErrorGetCode": (_c_int64, [_handle]),
    "VMKErrorGetDescription": (_text, [_handle]),
    "VMKErrorCopyUserInfoJSON": (_json, [_handle]),
    "VMKErrorRelease": (None, [_handle]),
    "VMKStringRelease": (None, [_c_void_p]),
    "VMKEnvironmentInstall": (_c_bool, [_text, _text, _text, _out]),
    "VMKCoreLoggerSetEnabled": (None, [_c_bool]),
    "VMKCoreLoggerIsEnabled": (_c_bool, []),
    "VMKCoreLoggerSetLogLevel": (_c_bool, [_c_int, _out]),
    "VMKCoreLoggerGetLogLevel": (_c_int, []),
    "VMKCoreLoggerLog": (_c_bool, [_c_int, _text, _out]),
    "VMKCoreLoggerSetCallback": (None, [LOG_CALLBACK, _c_void_p]),
    "VMKVelmoraInitialize": (_c_bool, [_text, _text, _text, _out]),
    "VMKVelmoraCopyInstance": (_handle, [_out]),
    "VMKVelmoraRelease": (None, [_handle]),
    "VMKVelmoraGetApplicationId": (_text, [_handle]),
    "VMKVelmoraGetClientId": (_text, [_handle]),
    "VMKVelmoraGetAccountURL": (_text, [_handle]),
    "VMKVelmoraSetJwtIdentity": (_c_bool, [_handle, _handle, _out]),
    "VMKVelmoraSetAnonymousIdentity": (_c_bool, [_handle, _handle, _out]),
    "VMKVelmoraCopyObjCIdentity": (_c_bool, [_handle, _out, _out, _out]),
    "VMKVelmoraWaitForPendingRequests": (_c_bool, [_c_int64]),
    "VMKObjCJwtCreate": (_handle, [_text, _out]),
    "VMKObjCJwtGetToken": (_text, [_handle]),
    "VMKObjCJwtRelease": (None, [_handle]),
    "VMKObjCAnonymousCreate": (_handle, [_text, _text, _out]),
    "VMKObjCAnonymousGetName": (_text, [_handle]),
    "VMKObjCAnonymousGetEmail": (_text, [_handle]),
    "VMKObjCAnonymousGetGuid": (_text, [_handle]),
    "VMKObjCAnonymousRelease": (None, [_handle]),
    "VMKUserProviderGetUser": (_c_bool, [_handle, USER_CALLBACK, _c_void_p, _out]),
    "VMKUserProviderAddTags": (_c_bool, [_handle, _texts, _c_size_t, USER_CALLBACK, _c_void_p, _out]),
    "VMKUserProviderDeleteTags": (_c_bool, [_handle, _texts, _c_size_t, USER_CALLBACK, _c_void_p, _out]),
    "VMKUserProviderSetUserFields": (_c_bool, [_handle, _text, USER_CALLBACK, _c_void_p, _out]),
    "VMKUserProviderGetUserFields": (_c_bool, [_handle, FIELDS_CALLBACK, _c_void_p, _out]),
    "VMKUserCopyJSON": (_json, [_handle]),
    "VMKUserFieldCopyJSON": (_json, [_handle]),
    "VMKPushProviderRegisterWithDeviceIdentifier": (_c_bool, _registration),
    "VMKPushProviderRegisterWithUAIdentifier": (_c_bool, _registration),
    "VMKPushProviderUnregisterForPush": (_c_bool, [_handle, _out]),
    "VMKPushProviderUnregisterDeviceIdentifier": (_c_bool, [_handle, _text, _out]),
    "VMKSettingsProviderGetCoreSettings": (_c_bool, [_handle, SETTINGS_CALLBACK, _c_void_p, _out]),
    "VMKSettingsProviderGetBlipsSettings": (_c_bool, [_handle, SETTINGS_CALLBACK, _c_void_p, _out]),
    "VMKCoreSettingsCopyJSON": (_json, [_handle]),
    "VMKBlipsSettingsCopyJSON": (_json, [_handle]),
    "VMKBlipsProviderSendUserAction": (_c_bool, _event),
    "VMKBlipsProviderSendPageView": (_c_bool, _event),
    "VMKHelpCenterUtilRegisterAuthenticationProtocol": (None, []),
    "VMKHelpCenterUtilUnregisterAuthenticationProtocol": (None, []),
    "VMKHelpCenterUtilCopyVelmoraURL": (_json, []),
    "VMKHelpCenterUtilHasAuth": (_c_bool, []),
    "VMKHelpCenterUtilCanAuthenticateRequest": (_c_bool, [_text, _text]),
    "VMKHelpCenterUtilCopyCanonicalRequestHeadersJSON": (_json, [_text, _text, _out]),
    "VMKHelpCenterUtilLoadURL": (_c_bool, [_text, PAGE_CALLBACK, _c_void_p, _out]),
    "VMKDebugLiveHandleCount": (_c_size_t, []),
}
for _provider in ("User", "Push", "Settings", "Blips"):
    _PROTOTYPES[f"VMK{_provider}ProviderCreate"] = (_handle, [_handle, _out])
    _PROTOTYPES[f"VMK{_provider}ProviderRelease"] = (None, [_handle])

_lock = threading.Lock()
_library = None


def _candidates():
    if os.environ.get("VELMORA_CORE_LIBRARY"):
        yield os.environ["VELMORA_CORE_LIBRARY"]
    try:
        from . import _installed  # written by cmake --install

        yield os.path.normpath(os.path.join(os.path.dirname(__file__), _installed.LIBRARY))
    except ImportError:
        pass
    found = ctypes.util.find_library("velmora_core")
    if found:
        yield found


def load(path=None):
    """The library, loaded once per process (from `path` when given, on the first call)."""
    global _library
    with _lock:
        if _library is not None:
            return _library
        tried = []
        for candidate in [path] if path else _candidates():
            try:
                library = ctypes.CDLL(candidate)
            except OSError as error:
                tried.append(f"{candidate}: {error}")
                continue
            for name, (restype, argtypes) in _PROTOTYPES.items():
                function = getattr(library, name)
                function.restype, function.argtypes = restype, argtypes
            _library = library
            return library
        raise OSError(
            "libvelmora_core not found; pass its path to velmora.load() or set VELMORA_CORE_LIBRARY"
            + "".join(f"\n  {attempt}" for attempt in tried)
        )


def lib():
    return _library if _library is not None else load()


def encode(text):
    if text is not None and "\0" in text:
        # C would end the text there and pass on a shorter one without a word.
        raise ValueError("text holding NUL cannot cross into the library")
    return None if text is None else text.encode("utf-8")


def decode(raw):
    return None if raw is None else raw.decode("utf-8", errors="replace")


def take_string(pointer):
    """The text of a string the library handed over, which is released."""
    if not pointer:
        raise RuntimeError("the library handed over no text (a refused handle or no memory)")
    try:
        return ctypes.string_at(pointer).decode("utf-8", errors="replace")
    finally:
        lib().VMKStringRelease(pointer)


def error_from(handle):
    """A VelmoraError for a borrowed VMKError."""
    library = lib()
    return VelmoraError(
        decode(library.VMKErrorGetDomain(handle)),
        library.VMKErrorGetCode(handle),
        decode(library.VMKErrorGetDescription(handle)),
        json.loads(take_string(library.VMKErrorCopyUserInfoJSON(handle))),
    )


def call(function, *arguments):
    """Calls a function whose last argument is VMKError **outError; raises VelmoraError for the error."""
    error = _c_void_p()
    result = function(*arguments, ctypes.byref(error))
    if error.value:
        try:
            raise error_from(error.value)
        finally:
            lib().VMKErrorRelease(error.value)
    return result


# Calls under way: their context is the key of the Python function that takes the callback's arguments.
_pending = {}
_keys = itertools.count(1)


def register(deliver):
    key = next(_keys)
    _pending[key] = deliver
    return key


def discard(key):
    _pending.pop(key, None)


def pending_count():
    return len(_pending)


_exiting = False


def _dispatch(context, *arguments):
    if _exiting:
        return  # the interpreter is going away: nothing of Python may run on the library's threads now
    deliver = _pending.pop(context, None)
    if deliver is not None:
        deliver(*arguments)


# One trampoline per callback type for the whole process, so none is collected while the library holds it.
on_user = USER_CALLBACK(lambda user, error, context: _dispatch(context, user, error))
on_fields = FIELDS_CALLBACK(
    lambda fields, count, error, context: _dispatch(context, [fields[i] for i in range(count)], error)
)
on_push = PUSH_CALLBACK(lambda identifier, error, context: _dispatch(context, identifier, error))
on_settings = SETTINGS_CALLBACK(lambda settings, context: _dispatch(context, settings))
on_page = PAGE_CALLBACK(
    lambda status, body, length, error, context: _dispatch(
        context, status, ctypes.string_at(body, length) if length else b"", error
    )
)

_log_function = None


def _log(level, message, _context):
    function = _log_function
    if function is not None and not _exiting:
        function(level, decode(message))


on_log = LOG_CALLBACK(_log)


def set_log_function(function):
    global _log_function
    _log_function = function
    lib().VMKCoreLoggerSetCallback(on_log if function is not None else LOG_CALLBACK(), None)


@atexit.register
def _stop_calling_python():
    """At exit, callbacks still under way would run Python on a library thread while the interpreter is
    torn down: stop the log callback, give requests in flight a moment, then drop whatever comes later."""
    global _exiting
    if _library is not None:
        _library.VMKCoreLoggerSetCallback(LOG_CALLBACK(), None)
        _library.VMKVelmoraWaitForPendingRequests(500)
    _exiting = True
