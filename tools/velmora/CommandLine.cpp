#include "tools/velmora/CommandLine.h"

#include <cmath>
#include <cstdlib>

#include "velmora/platform/URL.h"

namespace velmora::cli {

const char* const usage =
    R"(usage: velmora --app-id ID --client-id ID --url URL [--data-dir DIR] [--cache-dir DIR]
               [--log-level error|warn|info|debug|verbose] [--timeout SECONDS] COMMAND ...
  init
  identity anonymous [--name NAME] [--email EMAIL]
  identity jwt TOKEN
  identity show
  user get
  user tags add TAG...
  user tags delete TAG...
  user fields set KEY=VALUE...      (VALUE is JSON when it parses as JSON, else a string)
  user fields list
  settings core|blips
  push register IDENTIFIER [--locale LOCALE] [--ua]
  push unregister [IDENTIFIER]
  blip action --version V --channel C --category CAT --action A [--label L] [--group required|behavioural|trailmark]
  blip page --version V --channel C --url U --title T --language L [--group ...]
  reinit --app-id ID --client-id ID --url URL      (a second initialize in the same launch: a warm start)
  helpcenter get URL                (a page as a web view loads it: the account's pages with the user's token)
)";

namespace {

LogLevel logLevelNamed(const std::string& name) {
    static const std::map<std::string, LogLevel> levels = {{"error", LogLevel::error},
                                                           {"warn", LogLevel::warn},
                                                           {"info", LogLevel::info},
                                                           {"debug", LogLevel::debug},
                                                           {"verbose", LogLevel::verbose}};
    const auto found = levels.find(name);
    if (found == levels.end()) {
        throw UsageError("unknown log level '" + name + "'");
    }
    return found->second;
}

double secondsFrom(const std::string& text) {
    char* end = nullptr;
    const double seconds = std::strtod(text.c_str(), &end);
    // A day at most: a deadline further out than the clock can count would read as one already past.
    if (text.empty() || *end != '\0' || !std::isfinite(seconds) || seconds <= 0 || seconds > 86'400) {
        throw UsageError("--timeout needs a number of seconds above 0 and at most 86400, not '" + text + "'");
    }
    return seconds;
}

}  // namespace

void requireUrl(const std::string& text) {
    // The library treats an account URL it cannot extend as a programming error and stops the process.
    if (!platform::URL::fromString(text)) {
        throw UsageError("'" + text + "' is not a URL");
    }
}

Invocation parseInvocation(const std::vector<std::string>& arguments) {
    Invocation invocation;
    std::optional<std::string> appId;
    std::optional<std::string> clientId;
    std::optional<std::string> url;
    std::size_t i = 0;
    for (; i < arguments.size() && arguments[i].starts_with("--"); ++i) {
        const auto& name = arguments[i];
        if (i + 1 >= arguments.size()) {
            throw UsageError(name + " needs a value");
        }
        const auto& value = arguments[++i];
        if (name == "--app-id") {
            appId = value;
        } else if (name == "--client-id") {
            clientId = value;
        } else if (name == "--url") {
            url = value;
        } else if (name == "--data-dir") {
            invocation.dataDir = value;
        } else if (name == "--cache-dir") {
            invocation.cacheDir = value;
        } else if (name == "--log-level") {
            invocation.logLevel = logLevelNamed(value);
        } else if (name == "--timeout") {
            invocation.timeoutSeconds = secondsFrom(value);
        } else {
            throw UsageError("unknown option " + name);
        }
    }
    if (!appId || !clientId || !url) {
        throw UsageError("--app-id, --client-id and --url are required");
    }
    if (i == arguments.size()) {
        throw UsageError("no command given");
    }
    requireUrl(*url);
    invocation.appId = *appId;
    invocation.clientId = *clientId;
    invocation.url = *url;
    invocation.command.assign(arguments.begin() + static_cast<std::ptrdiff_t>(i), arguments.end());
    return invocation;
}

std::optional<std::string> CommandArguments::option(const std::string& name) const {
    const auto found = options.find(name);
    return found == options.end() ? std::nullopt : std::optional(found->second);
}

const std::string& CommandArguments::required(const std::string& name) const {
    const auto found = options.find(name);
    if (found == options.end()) {
        throw UsageError("--" + name + " is required");
    }
    return found->second;
}

CommandArguments parseCommandArguments(const std::string& words, const std::vector<std::string>& arguments,
                                       const std::set<std::string>& valueOptions,
                                       const std::set<std::string>& flagOptions) {
    CommandArguments parsed;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const auto& argument = arguments[i];
        if (!argument.starts_with("--")) {
            parsed.positional.push_back(argument);
            continue;
        }
        const auto name = argument.substr(2);
        if (flagOptions.contains(name)) {
            parsed.flags.insert(name);
        } else if (valueOptions.contains(name)) {
            if (i + 1 >= arguments.size()) {
                throw UsageError(argument + " needs a value");
            }
            parsed.options[name] = arguments[++i];
        } else {
            throw UsageError("'" + words + "' has no option " + argument);
        }
    }
    return parsed;
}

}  // namespace velmora::cli
