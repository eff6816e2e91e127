// A host application in a terminal. Every run is one launch of an app: initialise, run one command, wait for
// its callback and for the work still in flight, print, exit. State persists between runs in the data
// directory, as it would between launches of an app.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <mutex>
#include <optional>
#include <variant>

#include "tools/velmora/CommandLine.h"
#include "velmora/Velmora.h"
#include "velmora/blips/DeviceInfo.h"
#include "velmora/core/VMKAuthenticationURLProtocol.h"
#include "velmora/platform/Json.h"
#include "velmora/platform/URLConnection.h"

using namespace velmora;
using namespace velmora::cli;
using nlohmann::json;
using Clock = std::chrono::steady_clock;

namespace {

enum ExitCode { success = 0, failure = 1, usageError = 2, timedOut = 3 };

// The value or error a command's callback delivers, waited for by the main thread.
class Outcome {
  public:
    void succeed(json value) { settle(std::move(value)); }
    void fail(Error error) { settle(std::move(error)); }

    std::optional<std::variant<json, Error>> waitUntil(Clock::time_point deadline) {
        std::unique_lock lock(mutex_);
        changed_.wait_until(lock, deadline, [&] { return value_.has_value(); });
        return value_;
    }

  private:
    void settle(std::variant<json, Error> value) {
        std::lock_guard lock(mutex_);
        if (!value_) {
            value_ = std::move(value);
        }
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::optional<std::variant<json, Error>> value_;
};

// A provider callback that settles the outcome with the value's JSON or the error.
template <class T, class ToJson>
std::function<void(Result<T>)> deliver(const std::shared_ptr<Outcome>& outcome, ToJson toJson) {
    return [outcome, toJson](Result<T> result) {
        if (result.isSuccess()) {
            outcome->succeed(toJson(result.value()));
        } else {
            outcome->fail(result.error());
        }
    };
}

void expectArguments(const std::string& words, const std::vector<std::string>& positional, std::size_t least,
                     std::size_t most) {
    if (positional.size() < least) {
        throw UsageError("'" + words + "' needs more arguments");
    }
    if (positional.size() > most) {
        throw UsageError("'" + words + "' does not take '" + positional[most] + "'");
    }
}

std::string word(const std::vector<std::string>& command, std::size_t index, const std::string& words) {
    if (index >= command.size()) {
        throw UsageError("'" + words + "' needs a subcommand");
    }
    return command[index];
}

std::vector<std::string> rest(const std::vector<std::string>& command, std::size_t from) {
    return {command.begin() + static_cast<std::ptrdiff_t>(std::min(from, command.size())), command.end()};
}

BlipsGroup groupNamed(const std::optional<std::string>& name) {
    if (!name || *name == "required") {
        return BlipsGroup::required;
    }
    if (*name == "behavioural") {
        return BlipsGroup::behavioural;
    }
    if (*name == "trailmark") {
        return BlipsGroup::trailmark;
    }
    throw UsageError("unknown event group '" + *name + "'");
}

json listJson(const std::vector<UserField>& fields) {
    json list = json::array();
    for (const auto& field : fields) {
        list.push_back(field.toJson());
    }
    return list;
}

// A parsed command, run once the library is initialised. Parsing comes first so that a usage error
// leaves the stored state untouched.
using Action = std::function<void(const Velmora&, const std::shared_ptr<Outcome>&)>;

Action succeedWith(std::function<json(const Velmora&)> body) {
    return [body = std::move(body)](const Velmora& velmora, const std::shared_ptr<Outcome>& outcome) {
        outcome->succeed(body(velmora));
    };
}

// The outcome of a command whose whole point is a stored change: a change the library could not store
// (a full disk, a read-only data directory) fails the command, with the reason already logged.
void settleStored(const std::shared_ptr<Outcome>& outcome, bool stored, const std::string& what) {
    if (stored) {
        outcome->succeed(json::object());
    } else {
        outcome->fail(Error("velmora.cli", 1,
                            {{std::string(Error::localizedDescriptionKey), what + " could not be stored"}}));
    }
}

Action setIdentityAction(Identity identity) {
    return [identity = std::move(identity)](const Velmora& velmora, const std::shared_ptr<Outcome>& outcome) {
        settleStored(outcome, velmora.setIdentity(identity), "the identity");
    };
}

Action identityCommand(const std::vector<std::string>& command) {
    const auto kind = word(command, 1, "identity");
    const auto words = "identity " + kind;
    if (kind == "anonymous") {
        const auto arguments = parseCommandArguments(words, rest(command, 2), {"name", "email"});
        expectArguments(words, arguments.positional, 0, 0);
        return setIdentityAction(
            Identity::createAnonymous(arguments.option("name"), arguments.option("email")));
    }
    if (kind == "jwt") {
        const auto arguments = parseCommandArguments(words, rest(command, 2), {});
        expectArguments(words, arguments.positional, 1, 1);
        return setIdentityAction(Identity::createJwt(arguments.positional[0]));
    }
    if (kind == "show") {
        expectArguments(words, rest(command, 2), 0, 0);
        return succeedWith([](const Velmora& velmora) {
            const auto identity = velmora.identity();
            return identity ? identity->toJson() : json(nullptr);
        });
    }
    throw UsageError("unknown command 'identity " + kind + "'");
}

Action userCommand(const std::vector<std::string>& command) {
    const auto userJson = [](const User& user) { return user.toJson(); };
    const auto what = word(command, 1, "user");
    if (what == "get") {
        expectArguments("user get", rest(command, 2), 0, 0);
        return [userJson](const Velmora& velmora, const std::shared_ptr<Outcome>& outcome) {
            velmora.providerModule().user().getUser(deliver<User>(outcome, userJson));
        };
    }
    if (what != "tags" && what != "fields") {
        throw UsageError("unknown command 'user " + what + "'");
    }
    const auto action = word(command, 2, "user " + what);
    const auto words = "user " + what + " " + action;
    const auto arguments = rest(command, 3);
    if (what == "tags" && (action == "add" || action == "delete")) {
        expectArguments(words, arguments, 1, arguments.size());
        return [userJson, arguments, add = action == "add"](const Velmora& velmora,
                                                            const std::shared_ptr<Outcome>& outcome) {
            const auto& users = velmora.providerModule().user();
            add ? users.addTags(arguments, deliver<User>(outcome, userJson))
                : users.deleteTags(arguments, deliver<User>(outcome, userJson));
        };
    }
    if (what == "fields" && action == "set") {
        expectArguments(words, arguments, 1, arguments.size());
        std::map<std::string, json> fields;
        for (const auto& pair : arguments) {
            const auto equals = pair.find('=');
            if (equals == std::string::npos || equals == 0) {
                throw UsageError("'" + pair + "' is not KEY=VALUE");
            }
            const auto text = pair.substr(equals + 1);
            const auto parsed = json::parse(text, nullptr, false);
            fields[pair.substr(0, equals)] = parsed.is_discarded() ? json(text) : parsed;
        }
        return [userJson, fields](const Velmora& velmora, const std::shared_ptr<Outcome>& outcome) {
            velmora.providerModule().user().setUserFields(fields, deliver<User>(outcome, userJson));
        };
    }
    if (what == "fields" && action == "list") {
        expectArguments(words, arguments, 0, 0);
        return [](const Velmora& velmora, const std::shared_ptr<Outcome>& outcome) {
            velmora.providerModule().user().getUserFields(deliver<std::vector<UserField>>(outcome, listJson));
        };
    }
    throw UsageError("unknown command '" + words + "'");
}

Action settingsCommand(const std::vector<std::string>& command) {
    const auto section = word(command, 1, "settings");
    expectArguments("settings " + section, rest(command, 2), 0, 0);
    if (section == "core") {
        return [](const Velmora& velmora, const std::shared_ptr<Outcome>& outcome) {
            velmora.providerModule().settings().getSettings<CoreSettings>(
                [outcome](const CoreSettings& settings) { outcome->succeed(settings.toJson()); });
        };
    }
    if (section == "blips") {
        return [](const Velmora& velmora, const std::shared_ptr<Outcome>& outcome) {
            velmora.providerModule().settings().getSettings<BlipsSettings>(
                [outcome](const BlipsSettings& settings) { outcome->succeed(settings.toJson()); });
        };
    }
    throw UsageError("unknown settings section '" + section + "'");
}

Action pushCommand(const std::vector<std::string>& command) {
    const auto what = word(command, 1, "push");
    if (what == "register") {
        const auto arguments = parseCommandArguments("push register", rest(command, 2), {"locale"}, {"ua"});
        expectArguments("push register", arguments.positional, 1, 1);
        return [identifier = arguments.positional[0], locale = arguments.option("locale"),
                channel = arguments.flags.contains("ua")](const Velmora& velmora,
                                                          const std::shared_ptr<Outcome>& outcome) {
            const auto& push = velmora.providerModule().push();
            auto language = locale.value_or(DeviceUtil::systemLocale());
            if (language == "-1") {
                language = "en";
            }
            auto callback =
                deliver<PushRegistrationResponse>(outcome, [](const PushRegistrationResponse& response) {
                    return json{{"identifier", response.identifier}};
                });
            channel ? push.registerForPushWithUAChannelId(identifier, language, callback)
                    : push.registerForPush(identifier, language, callback);
        };
    }
    if (what == "unregister") {
        const auto arguments = rest(command, 2);
        expectArguments("push unregister", arguments, 0, 1);
        return succeedWith([arguments](const Velmora& velmora) {
            const auto& push = velmora.providerModule().push();
            arguments.empty() ? push.unregisterForPush() : push.unregisterForPush(arguments[0]);
            return json::object();
        });
    }
    throw UsageError("unknown command 'push " + what + "'");
}

// An event is fire and forget: the command succeeds once it is handed over (and, like every request, waited
// for before the launch ends).
template <class Event>
Action sendEvent(Event event, BlipsGroup group) {
    return succeedWith([event = std::move(event), group](const Velmora& velmora) {
        velmora.providerModule().blip().send(event, group);
        return json::object();
    });
}

Action blipCommand(const std::vector<std::string>& command) {
    const auto kind = word(command, 1, "blip");
    const auto words = "blip " + kind;
    if (kind != "action" && kind != "page") {
        throw UsageError("unknown command '" + words + "'");
    }
    const auto action = kind == "action";
    const auto a = parseCommandArguments(
        words, rest(command, 2),
        action ? std::set<std::string>{"version", "channel", "category", "action", "label", "group"}
               : std::set<std::string>{"version", "channel", "url", "title", "language", "group"});
    expectArguments(words, a.positional, 0, 0);
    const auto group = groupNamed(a.option("group"));
    if (action) {
        return sendEvent(UserAction{a.required("version"), a.required("action"), a.required("channel"),
                                    a.required("category"), a.option("label"), std::nullopt},
                         group);
    }
    return sendEvent(PageView{a.required("version"), a.required("channel"), a.required("url"),
                              a.required("title"), a.required("language"), std::nullopt},
                     group);
}

// A page loaded as a host's web view would: through the URL loading system, with the help-centre protocol
// registered, so that pages under the account URL carry the user's token. Any HTTP answer succeeds.
Action helpCenterCommand(const std::vector<std::string>& command) {
    const auto what = word(command, 1, "helpcenter");
    if (what != "get") {
        throw UsageError("unknown command 'helpcenter " + what + "'");
    }
    const auto arguments = rest(command, 2);
    expectArguments("helpcenter get", arguments, 1, 1);
    requireUrl(arguments[0]);
    return [url = *platform::URL::fromString(arguments[0])](const Velmora&,
                                                            const std::shared_ptr<Outcome>& outcome) {
        platform::URLProtocol::registerClass<VMKAuthenticationURLProtocol>();
        platform::URLConnection::sendAsynchronousRequest(
            platform::URLRequest(url), platform::DispatchQueue::global(),
            [outcome](const std::shared_ptr<const platform::HTTPURLResponse>& response, const Data& data,
                      const std::optional<Error>& error) {
                if (error || !response) {
                    outcome->fail(
                        error.value_or(Error(std::string(errors::urlDomain), errors::url::unknown)));
                    return;
                }
                // Bytes that are not UTF-8 become U+FFFD, so that the answer stays one JSON document.
                const auto text = velmora::platform::dumpJson(json(data.toString()));
                outcome->succeed(json{{"status", response->statusCode()}, {"body", json::parse(text)}});
            });
    };
}

Action parseCommand(const std::vector<std::string>& command) {
    const auto& name = command[0];
    if (name == "init") {
        expectArguments("init", rest(command, 1), 0, 0);
        return succeedWith([](const Velmora&) { return json::object(); });
    }
    if (name == "identity") {
        return identityCommand(command);
    }
    if (name == "user") {
        return userCommand(command);
    }
    if (name == "settings") {
        return settingsCommand(command);
    }
    if (name == "push") {
        return pushCommand(command);
    }
    if (name == "helpcenter") {
        return helpCenterCommand(command);
    }
    if (name == "blip") {
        return blipCommand(command);
    }
    if (name == "reinit") {
        const auto a = parseCommandArguments("reinit", rest(command, 1), {"app-id", "client-id", "url"});
        expectArguments("reinit", a.positional, 0, 0);
        requireUrl(a.required("url"));
        return [appId = a.required("app-id"), clientId = a.required("client-id"), url = a.required("url")](
                   const Velmora&, const std::shared_ptr<Outcome>& outcome) {
            settleStored(outcome, Velmora::initialize(appId, clientId, url), "the new account");
        };
    }
    throw UsageError("unknown command '" + name + "'");
}

void installEnvironment(const Invocation& invocation) {
    auto environment = platform::Environment::linuxDefaults("velmora-cli");
    if (invocation.dataDir) {
        environment.dataDirectory = *invocation.dataDir;
    }
    if (invocation.cacheDir) {
        environment.cachesDirectory = *invocation.cacheDir;
    }
    platform::Environment::install(std::move(environment));
    CoreLogger::setEnabled(invocation.logLevel.has_value());
    if (invocation.logLevel) {
        CoreLogger::setLogLevel(*invocation.logLevel);
    }
}

// Ends the launch without running exit handlers: after a time-out requests are still in flight, and
// libcurl's threads must not find OpenSSL torn down under them by its exit handler.
[[noreturn]] void finish(int code) {
    std::cout.flush();
    std::cerr.flush();
    std::_Exit(code);
}

[[noreturn]] void usageFailure(const std::string& message) {
    std::cerr << "velmora: " << message << "\n" << usage;
    finish(usageError);
}

}  // namespace

int main(int argc, char** argv) {
    Invocation invocation;
    Action action;
    try {
        invocation = parseInvocation({argv + 1, argv + argc});
        action = parseCommand(invocation.command);
    } catch (const UsageError& error) {
        usageFailure(error.what());
    }
    const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                             std::chrono::duration<double>(invocation.timeoutSeconds));

    installEnvironment(invocation);
    Velmora::initialize(invocation.appId, invocation.clientId, invocation.url);
    const auto velmora = Velmora::instance();
    if (!velmora) {
        std::cerr << "velmora: the library could not be initialised\n";
        finish(failure);
    }

    const auto outcome = std::make_shared<Outcome>();
    action(*velmora, outcome);

    const auto result = outcome->waitUntil(deadline);
    const auto remaining = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (!result) {
        std::cerr << "velmora: timed out after " << invocation.timeoutSeconds
                  << " s waiting for the answer\n";
        finish(timedOut);
    }
    if (!Velmora::waitForPendingRequests(std::max(remaining, std::chrono::milliseconds(0)))) {
        std::cerr << "velmora: timed out after " << invocation.timeoutSeconds
                  << " s waiting for requests still in flight\n";
        finish(timedOut);
    }
    if (const auto* error = std::get_if<Error>(&*result)) {
        std::cerr << json{{"domain", error->domain()},
                          {"code", error->code()},
                          {"description", error->localizedDescription()}}
                         .dump(2)
                  << "\n";
        finish(failure);
    }
    std::cout << std::get<json>(*result).dump(2) << "\n";
    finish(success);
}
