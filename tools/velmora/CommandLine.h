#pragma once

#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "velmora/support/CoreLogger.h"

namespace velmora::cli {

// A command line the tool cannot run; the message is one line for the user.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

extern const char* const usage;

// The options before the command.
struct Invocation {
    std::string appId;
    std::string clientId;
    std::string url;
    std::optional<std::string> dataDir;
    std::optional<std::string> cacheDir;
    std::optional<LogLevel> logLevel;
    double timeoutSeconds = 30;
    // The command and everything after it.
    std::vector<std::string> command;
};

Invocation parseInvocation(const std::vector<std::string>& arguments);

// Fails with a usage error when the account URL is not a URL.
void requireUrl(const std::string& text);

// A command's own arguments: options (with a value, or flags) anywhere among the positional ones.
struct CommandArguments {
    std::vector<std::string> positional;
    std::map<std::string, std::string> options;
    std::set<std::string> flags;

    std::optional<std::string> option(const std::string& name) const;
    // Fails with a usage error naming the option when it was not given.
    const std::string& required(const std::string& name) const;
};

// `words` are the command's words (for messages); `arguments` what follows them.
CommandArguments parseCommandArguments(const std::string& words, const std::vector<std::string>& arguments,
                                       const std::set<std::string>& valueOptions,
                                       const std::set<std::string>& flagOptions = {});

}  // namespace velmora::cli
