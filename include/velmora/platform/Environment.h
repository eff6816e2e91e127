#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "velmora/Export.h"
#include "velmora/platform/Image.h"
#include "velmora/platform/LogLevel.h"

namespace velmora::platform {

class DeviceFacts;

// Runs a block on the host's main thread (a Qt event loop, an Android looper...). Must not run it inline.
using MainExecutor = std::function<void(std::function<void()>)>;
// Receives each line of the library's log with its level, without a trailing newline and without a time
// stamp: the logger's messages ("[DEBUG]: ..."), the platform's own reports and fatal errors. Called on the
// thread that logs; it must not block for long and must not throw.
using LogSink = std::function<void(LogLevel level, std::string_view line)>;

// How the URL session reaches the network.
struct HTTPOptions {
    // A PEM file of the certificate authorities to trust instead of the system's.
    std::optional<std::filesystem::path> caBundle;
    // A proxy in libcurl's notation ("http://proxy:3128", "socks5h://..."). Absent: no proxy, whatever the
    // process's environment says, unless the host opts into the usual proxy variables below.
    std::optional<std::string> proxy;
    // With no proxy given: take it from http_proxy, https_proxy, no_proxy and the like.
    bool proxyFromEnvironment = false;
    // Seconds without progress after which a request fails with the time-out error.
    double timeoutInterval = 60;
    // Seconds a whole call may take, the settings and login requests it needs included, however steadily
    // the server trickles; past them it fails with the time-out error.
    double requestDeadline = 120;
    // The largest answer body, after decompression, that a request accepts; a larger one fails the request
    // with errors::url::dataLengthExceedsMaximum and what was received is released.
    std::size_t maximumResponseBytes = 16 * 1024 * 1024;
};

// What the host tells the library about the place it runs in. Set once, before initialising the library;
// every field has a Linux default (XDG base directories, standard error, a library-owned main thread).
struct VELMORA_EXPORT Environment {
    // Names the application: the file the user defaults live in and the per-application directories.
    std::string applicationDomainName;
    // Where the user-defaults database lives. Absent: storage has nowhere to persist.
    std::optional<std::filesystem::path> dataDirectory;
    // The user's caches directory for this application. Absent: the library keeps no cache directory.
    std::optional<std::filesystem::path> cachesDirectory;
    std::optional<std::filesystem::path> documentsDirectory;
    // Empty: the main queue runs on one thread the library owns.
    MainExecutor mainExecutor;
    // The one place the host receives the library's log. Empty: each line goes to standard error with a
    // time stamp and the process and thread ids.
    LogSink logSink;
    // Empty: facts read from the Linux kernel and the process's locale.
    std::shared_ptr<const DeviceFacts> deviceFacts;
    HTTPOptions http;
    // Opens the resource bundle an action names for its icon. Empty: a directory that exists opens as
    // itself.
    BundleLoader bundleLoader;
    // Loads a named image from an opened bundle. Empty: the file of that name in the bundle directory, as
    // given or with ".png", "@2x.png", "@3x.png", ".jpg" or ".jpeg" appended.
    ImageLoader imageLoader;

    // The defaults for an application of the given name (the executable's name when empty).
    static Environment linuxDefaults(std::string applicationName = {});

    // The environment in force. Before any install, linuxDefaults() of the running executable.
    static std::shared_ptr<const Environment> current();
    static void install(Environment environment);
};

}  // namespace velmora::platform
