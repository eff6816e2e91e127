#include "tools/velmora-mock/AccountServer.h"

#include <httplib.h>

#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <iterator>
#include <limits>
#include <stdexcept>

#include "velmora/platform/Base64.h"
#include "velmora/platform/Json.h"
#include "velmora/support/JsonReading.h"

namespace velmora::mock {
namespace {

using nlohmann::json;

std::string lower(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

std::string percentDecode(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
            std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
            out += static_cast<char>(std::stoi(std::string(text.substr(i + 1, 2)), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

// The raw value of one query parameter, undecoded.
std::optional<std::string> rawQueryValue(const std::string& target, std::string_view name) {
    const auto query = target.find('?');
    if (query == std::string::npos) {
        return std::nullopt;
    }
    std::string_view rest = std::string_view(target).substr(query + 1);
    while (!rest.empty()) {
        const auto end = rest.find('&');
        const auto pair = rest.substr(0, end);
        if (pair.substr(0, pair.find('=')) == name) {
            return pair.find('=') == std::string_view::npos ? std::string()
                                                            : std::string(pair.substr(pair.find('=') + 1));
        }
        if (end == std::string_view::npos) {
            break;
        }
        rest.remove_prefix(end + 1);
    }
    return std::nullopt;
}

json errorBody(std::string_view error, std::string_view description) {
    return json{{"error", error}, {"description", description}};
}

// The whole of `text` as a decimal integer.
std::optional<std::int64_t> decimal(std::string_view text) {
    std::int64_t value = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || failure != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

std::string inQuotes(std::string_view key) {
    return "\"" + std::string(key) + "\"";
}

// An integer field of a scripted answer within [minimum, maximum]; absent or null: `fallback`.
std::int64_t integerField(const json& item, const char* key, std::int64_t minimum, std::int64_t maximum,
                          std::int64_t fallback) {
    const auto it = item.find(key);
    if (it == item.end() || it->is_null()) {
        return fallback;
    }
    const bool inRange =
        isInt64(*it) && it->get<std::int64_t>() >= minimum && it->get<std::int64_t>() <= maximum;
    if (!inRange) {
        throw std::invalid_argument(inQuotes(key) + " must be an integer from " + std::to_string(minimum) +
                                    " to " + std::to_string(maximum));
    }
    return it->get<std::int64_t>();
}

bool booleanField(const json& item, const char* key) {
    const auto it = item.find(key);
    if (it == item.end() || it->is_null()) {
        return false;
    }
    if (!it->is_boolean()) {
        throw std::invalid_argument(inQuotes(key) + " must be true or false");
    }
    return it->get<bool>();
}

std::string textOf(const json& value) {
    return value.is_string() ? value.get<std::string>() : platform::dumpJson(value);
}

ScriptEntry scriptEntry(const json& item) {
    if (!item.is_object()) {
        throw std::invalid_argument("an answer must be a JSON object");
    }
    static constexpr std::string_view known[] = {"method",   "path",     "status", "headers",
                                                 "body",     "delay_ms", "chunks", "chunk_gap_ms",
                                                 "truncate", "drop",     "times"};
    for (const auto& field : item.items()) {
        // A misspelt key would otherwise be ignored in silence, and the answer not be what was meant.
        if (std::find(std::begin(known), std::end(known), field.key()) == std::end(known)) {
            throw std::invalid_argument("unknown key " + inQuotes(field.key()));
        }
    }
    ScriptEntry entry;
    const auto path = item.find("path");
    if (path == item.end() || !path->is_string() || !path->get<std::string>().starts_with('/')) {
        throw std::invalid_argument("\"path\" must be a string starting with /");
    }
    entry.path = path->get<std::string>();
    if (entry.path.starts_with(AccountServer::adminPrefix)) {
        throw std::invalid_argument(std::string("paths under ") + std::string(AccountServer::adminPrefix) +
                                    " are the admin calls, which are never scripted");
    }
    if (entry.path.find('?') != std::string::npos) {
        throw std::invalid_argument("\"path\" is matched without the query: leave the query out");
    }
    if (const auto method = item.find("method"); method != item.end() && !method->is_null()) {
        if (!method->is_string() || method->get<std::string>().empty()) {
            throw std::invalid_argument("\"method\" must be a method name such as \"GET\"");
        }
        std::string name = method->get<std::string>();
        std::transform(name.begin(), name.end(), name.begin(),
                       [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
        entry.method = name;
    }
    ScriptedAnswer& answer = entry.answer;
    answer.status = static_cast<int>(integerField(item, "status", 100, 599, 200));
    if (const auto headers = item.find("headers"); headers != item.end() && !headers->is_null()) {
        const bool allText = headers->is_object() && std::all_of(headers->begin(), headers->end(),
                                                                 [](const json& v) { return v.is_string(); });
        if (!allText) {
            throw std::invalid_argument("\"headers\" must be an object of strings");
        }
        for (const auto& header : headers->items()) {
            answer.headers[header.key()] = header.value().get<std::string>();
        }
    }
    if (const auto body = item.find("body"); body != item.end()) {
        answer.body = textOf(*body);
    }
    constexpr std::int64_t day = 24 * 60 * 60 * 1000;
    answer.delay = std::chrono::milliseconds(integerField(item, "delay_ms", 0, day, 0));
    if (const auto chunks = item.find("chunks"); chunks != item.end() && !chunks->is_null()) {
        if (!chunks->is_array()) {
            throw std::invalid_argument("\"chunks\" must be an array");
        }
        for (const auto& chunk : *chunks) {
            answer.chunks.push_back(textOf(chunk));
        }
    }
    answer.chunkDelay =
        std::chrono::milliseconds(integerField(item, "chunk_gap_ms", 0, day, answer.chunkDelay.count()));
    answer.truncate = booleanField(item, "truncate");
    answer.drop = booleanField(item, "drop");
    if (const auto times = item.find("times"); times == item.end() || times->is_null()) {
        answer.times = std::nullopt;
    } else {
        answer.times = static_cast<int>(integerField(item, "times", 1, std::numeric_limits<int>::max(), 1));
    }
    return entry;
}

// The httplib adds the connection's addresses to the request's headers; the client never sent them.
bool isConnectionPseudoHeader(const std::string& name) {
    return name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" || name == "LOCAL_PORT";
}

}  // namespace

std::vector<ScriptEntry> parseScriptedAnswers(const json& answers) {
    if (answers.is_object()) {
        return {scriptEntry(answers)};
    }
    if (!answers.is_array()) {
        throw std::invalid_argument("expected an answer object or an array of them");
    }
    std::vector<ScriptEntry> entries;
    for (std::size_t i = 0; i < answers.size(); ++i) {
        try {
            entries.push_back(scriptEntry(answers[i]));
        } catch (const std::invalid_argument& e) {
            throw std::invalid_argument("answer [" + std::to_string(i) + "]: " + e.what());
        }
    }
    return entries;
}

struct AccountServer::Reply {
    int status = 200;
    std::string body;
    std::map<std::string, std::string> headers;
    std::optional<ScriptedAnswer> scripted;

    static Reply json(int status, const nlohmann::json& body) {
        return Reply{status,
                     platform::dumpJson(body),
                     {{"Content-Type", "application/json; charset=utf-8"}},
                     std::nullopt};
    }
};

std::optional<std::string> RecordedRequest::header(std::string_view name) const {
    const auto wanted = lower(name);
    for (const auto& [key, value] : headers) {
        if (lower(key) == wanted) {
            return value;
        }
    }
    return std::nullopt;
}

json RecordedRequest::json() const {
    return nlohmann::json::parse(body, nullptr, false);
}

json RecordedRequest::logEntry() const {
    // `json` names the member function in here, so the type is spelt out.
    nlohmann::json headerObject = nlohmann::json::object();
    for (const auto& [name, value] : headers) {
        // A header sent more than once reads as its values joined, as HTTP allows.
        auto& slot = headerObject[name];
        slot =
            slot.is_string() ? nlohmann::json(slot.get<std::string>() + ", " + value) : nlohmann::json(value);
    }
    return nlohmann::json{
        {"method", method}, {"path", target}, {"headers", headerObject}, {"body", body}, {"status", status}};
}

AccountServer::AccountServer() : AccountServer(Options{}) {}

AccountServer::AccountServer(Options options)
    : host_(options.host), onRequest_(std::move(options.onRequest)) {
    settings_ = defaultSettings();
    userFields_ = json::array();
    if (options.certificate && options.privateKey) {
        server_ =
            std::make_unique<httplib::SSLServer>(options.certificate->c_str(), options.privateKey->c_str());
        tls_ = true;
    } else {
        server_ = std::make_unique<httplib::Server>();
    }
    if (!server_->is_valid()) {
        throw std::runtime_error("velmora-mock: cannot set up the server (certificate or key unreadable?)");
    }
    server_->set_keep_alive_max_count(1000);
    server_->set_payload_max_length(64 * 1024 * 1024);
    // Idle keep-alive connections would otherwise hold stop() up for the default five seconds.
    server_->set_keep_alive_timeout(1);
    // Headers and body go out in separate writes; without this, delayed acknowledgements hold the body back.
    server_->set_tcp_nodelay(true);
    // Each keep-alive connection holds a worker; clients with dozens in flight must not wait for each other.
    server_->new_task_queue = [] { return new httplib::ThreadPool(64); };
    const auto handler = [this](const httplib::Request& request, httplib::Response& response) {
        RecordedRequest recorded{request.method, request.target, {}, request.body, 0};
        for (const auto& [name, value] : request.headers) {
            if (!isConnectionPseudoHeader(name)) {
                recorded.headers.emplace(name, value);
            }
        }
        Reply reply = recorded.path().starts_with(adminPrefix) ? admin(recorded) : handle(recorded);
        if (reply.scripted && reply.scripted->delay.count() > 0 && !pause(reply.scripted->delay)) {
            return;
        }
        response.status = reply.status;
        for (const auto& [name, value] : reply.headers) {
            response.set_header(name, value);
        }
        if (!reply.scripted) {
            if (!reply.body.empty() || reply.status != 204) {
                response.set_content(reply.body, response.get_header_value("Content-Type").empty()
                                                     ? "text/plain"
                                                     : response.get_header_value("Content-Type").c_str());
            }
            return;
        }
        const ScriptedAnswer answer = *reply.scripted;
        // With a charset the server does not compress JSON, which would gather the chunks into one.
        const std::string contentType = answer.headers.count("Content-Type")
                                            ? answer.headers.at("Content-Type")
                                            : "application/json; charset=utf-8";
        if (answer.drop) {
            response.set_content_provider(16, contentType,
                                          [](std::size_t, std::size_t, httplib::DataSink&) { return false; });
        } else if (answer.truncate) {
            response.set_content_provider(
                answer.body.size() * 2 + 1, contentType,
                [body = answer.body](std::size_t offset, std::size_t, httplib::DataSink& sink) {
                    if (offset == 0 && !body.empty()) {
                        sink.write(body.data(), body.size());
                        return true;
                    }
                    return false;
                });
        } else if (!answer.chunks.empty()) {
            response.set_chunked_content_provider(
                contentType,
                [this, answer, next = std::size_t{0}](std::size_t, httplib::DataSink& sink) mutable {
                    if (next > 0 && !pause(answer.chunkDelay)) {
                        return false;
                    }
                    if (next == answer.chunks.size()) {
                        sink.done();
                        return true;
                    }
                    const auto& chunk = answer.chunks[next++];
                    sink.write(chunk.data(), chunk.size());
                    return true;
                });
        } else if (!answer.body.empty() || answer.status != 204) {
            response.set_content(answer.body, contentType.c_str());
        }
    };
    // Only SO_REUSEADDR: the httplib's default adds SO_REUSEPORT, with which a second server on a port in use
    // binds as well and takes a share of its connections instead of failing.
    server_->set_socket_options([](socket_t sock) {
        const int yes = 1;
        ::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    });
    server_->Get(".*", handler);
    server_->Post(".*", handler);
    server_->Put(".*", handler);
    server_->Delete(".*", handler);
    server_->Patch(".*", handler);

    errno = 0;
    port_ = options.port == 0 ? server_->bind_to_any_port(host_)
                              : (server_->bind_to_port(host_, options.port) ? options.port : -1);
    if (port_ <= 0) {
        // errno is still bind's when binding failed; a host that did not resolve leaves no telling value.
        const int reason = errno;
        const std::string why = reason == EADDRINUSE ? "the port is in use"
                                : reason != 0        ? std::strerror(reason)
                                                     : "the address is not this machine's";
        throw std::runtime_error("velmora-mock: cannot listen on " + host_ + ":" +
                                 std::to_string(options.port) + ": " + why);
    }
    thread_ = std::thread([this] { server_->listen_after_bind(); });
    // stop() only reaches a server whose accept loop runs; a server stopped before that would never end.
    for (int i = 0; i < 5000 && !server_->is_running(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

AccountServer::~AccountServer() {
    stop();
}

std::string AccountServer::url() const {
    // An IPv6 address takes brackets in a URL.
    const std::string host = host_.find(':') == std::string::npos ? host_ : "[" + host_ + "]";
    return std::string(tls_ ? "https://" : "http://") + host + ":" + std::to_string(port_);
}

void AccountServer::stop() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    server_->stop();
    if (thread_.joinable()) {
        thread_.join();
    }
}

bool AccountServer::pause(std::chrono::milliseconds duration) const {
    std::unique_lock lock(mutex_);
    return !changed_.wait_for(lock, duration, [this] { return stopping_; });
}

void AccountServer::script(std::string method, std::string path, ScriptedAnswer answer) {
    std::lock_guard lock(mutex_);
    scripts_[std::move(path)].emplace_back(std::move(method), std::move(answer));
}

void AccountServer::markStart() {
    std::lock_guard lock(mutex_);
    startState_ = stateLocked();
    startScripts_ = scripts_;
}

void AccountServer::reset() {
    std::lock_guard lock(mutex_);
    requests_.clear();
    scripts_ = startScripts_;
    usersByIdentity_.clear();
    usersByToken_.clear();
    users_.clear();
    devices_.clear();
    events_.clear();
    settings_ = defaultSettings();
    userFields_ = json::array();
    nextUserId_ = 1000;
    nextToken_ = 1;
    applyStateLocked(startState_);
}

std::vector<RecordedRequest> AccountServer::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

std::vector<RecordedRequest> AccountServer::requests(std::string_view method, std::string_view path) const {
    std::lock_guard lock(mutex_);
    std::vector<RecordedRequest> matching;
    for (const auto& request : requests_) {
        if ((method.empty() || request.method == method) && request.path() == path) {
            matching.push_back(request);
        }
    }
    return matching;
}

void AccountServer::clearRequests() {
    std::lock_guard lock(mutex_);
    requests_.clear();
}

bool AccountServer::waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return requests_.size() >= count; });
}

std::vector<json> AccountServer::eventsLocked(std::string_view action) const {
    std::vector<json> matching;
    for (const auto& event : events_) {
        const auto userAction = event.find("userAction");
        if (action.empty() || (userAction != event.end() && userAction->is_object() &&
                               userAction->value("action", "") == action)) {
            matching.push_back(event);
        }
    }
    return matching;
}

std::vector<json> AccountServer::events(std::string_view action) const {
    std::lock_guard lock(mutex_);
    return eventsLocked(action);
}

bool AccountServer::waitForEvents(std::string_view action, std::size_t count,
                                  std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return eventsLocked(action).size() >= count; });
}

void AccountServer::setSettings(json settings) {
    std::lock_guard lock(mutex_);
    settings_ = std::move(settings);
}

void AccountServer::setUserFields(json definitions) {
    std::lock_guard lock(mutex_);
    userFields_ = std::move(definitions);
}

json AccountServer::defaultSettings() {
    return json{
        {"core",
         {{"identifier", "velmora-mock"},
          {"authentication", "anonymous"},
          {"brand_id", 1},
          {"updated_at", "2026-11-01T09:00:00Z"}}},
        {"blips", {{"permissions", {{"required", true}, {"behavioural", true}, {"trailmark", false}}}}}};
}

json AccountServer::state() const {
    std::lock_guard lock(mutex_);
    return stateLocked();
}

json AccountServer::stateLocked() const {
    json users = json::object();
    for (const auto& [id, user] : users_) {
        users[std::to_string(id)] = user;
    }
    json identities = json::object();
    for (const auto& [identity, id] : usersByIdentity_) {
        identities[identity] = id;
    }
    json tokens = json::object();
    for (const auto& [token, id] : usersByToken_) {
        tokens[token] = id;
    }
    json devices = json::object();
    for (const auto& [identifier, device] : devices_) {
        devices[identifier] = device;
    }
    return json{
        {"users", users},    {"identities", identities}, {"tokens", tokens},          {"devices", devices},
        {"events", events_}, {"settings", settings_},    {"user_fields", userFields_}};
}

void AccountServer::checkState(const json& state) {
    if (!state.is_object()) {
        throw std::invalid_argument("the state must be a JSON object");
    }
    // The part under `key` when it is there; throws when it is not of `type`.
    const auto part = [&state](const char* key, json::value_t type, const char* what) -> const json* {
        const auto it = state.find(key);
        if (it == state.end()) {
            return nullptr;
        }
        if (it->type() != type) {
            throw std::invalid_argument(inQuotes(key) + " must be " + what + ", not " + it->type_name());
        }
        return &*it;
    };
    const json* users = part("users", json::value_t::object, "an object of users by numeric id");
    if (users != nullptr) {
        for (const auto& user : users->items()) {
            if (!decimal(user.key())) {
                throw std::invalid_argument("\"users\" must be keyed by numeric id, not " +
                                            inQuotes(user.key()));
            }
            if (!user.value().is_object()) {
                throw std::invalid_argument("\"users\": user " + user.key() + " must be an object");
            }
        }
    }
    // Identities and tokens name users; one naming a user that is not there would answer with a null user.
    for (const char* key : {"identities", "tokens"}) {
        const json* names = part(key, json::value_t::object, "an object of user ids");
        if (names == nullptr) {
            continue;
        }
        for (const auto& name : names->items()) {
            const bool known = name.value().is_number_integer() && users != nullptr &&
                               users->contains(std::to_string(name.value().get<std::int64_t>()));
            if (!known) {
                throw std::invalid_argument(inQuotes(key) + ": " + inQuotes(name.key()) +
                                            " must be the id of one of the \"users\", not " +
                                            platform::dumpJson(name.value()));
            }
        }
    }
    if (const json* devices = part("devices", json::value_t::object, "an object of devices by identifier")) {
        for (const auto& device : devices->items()) {
            if (!device.value().is_object()) {
                throw std::invalid_argument("\"devices\": " + inQuotes(device.key()) + " must be an object");
            }
        }
    }
    part("events", json::value_t::array, "an array");
    part("settings", json::value_t::object, "an object");
    part("user_fields", json::value_t::array, "an array");
}

void AccountServer::loadState(const json& state) {
    checkState(state);
    std::lock_guard lock(mutex_);
    applyStateLocked(state);
}

void AccountServer::applyStateLocked(const json& state) {
    const json savedUsers = state.value("users", json::object());
    for (const auto& [id, user] : savedUsers.items()) {
        const std::int64_t number = decimal(id).value_or(0);
        users_[number] = user;
        nextUserId_ = std::max<std::int64_t>(nextUserId_, number + 1);
    }
    const json savedIdentities = state.value("identities", json::object());
    for (const auto& [identity, id] : savedIdentities.items()) {
        usersByIdentity_[identity] = id.get<std::int64_t>();
    }
    const json savedTokens = state.value("tokens", json::object());
    for (const auto& [token, id] : savedTokens.items()) {
        usersByToken_[token] = id.get<std::int64_t>();
        // Tokens issued later must not repeat a loaded one, which would hand one user's token to another.
        const auto issued =
            token.starts_with("token-") ? decimal(std::string_view(token).substr(6)) : std::nullopt;
        if (issued && *issued >= 0) {
            nextToken_ = std::max<std::uint64_t>(nextToken_, static_cast<std::uint64_t>(*issued) + 1);
        }
    }
    const json savedDevices = state.value("devices", json::object());
    for (const auto& [identifier, device] : savedDevices.items()) {
        devices_[identifier] = device;
    }
    const json savedEvents = state.value("events", json::array());
    for (const auto& event : savedEvents) {
        events_.push_back(event);
    }
    if (state.contains("settings")) {
        settings_ = state["settings"];
    }
    if (state.contains("user_fields")) {
        userFields_ = state["user_fields"];
    }
}

std::optional<std::int64_t> AccountServer::authenticatedUser(const RecordedRequest& request) const {
    const auto authorization = request.header("Authorization");
    if (!authorization || !authorization->starts_with("Bearer ")) {
        return std::nullopt;
    }
    const auto it = usersByToken_.find(authorization->substr(7));
    return it == usersByToken_.end() ? std::nullopt : std::optional(it->second);
}

json AccountServer::userEnvelope(std::int64_t id) const {
    return json{{"user", users_.at(id)}};
}

AccountServer::Reply AccountServer::access(const RecordedRequest& request, bool jwt) {
    const auto body = request.json();
    const auto user = body.is_object() ? body.value("user", json()) : json();
    if (!user.is_object()) {
        return Reply::json(400, errorBody("InvalidRequest", "expected {\"user\": {...}}"));
    }
    std::string identity;
    json record = {{"name", ""}, {"email", nullptr}};
    if (jwt) {
        if (!user.contains("token") || !user["token"].is_string() ||
            user["token"].get<std::string>().empty()) {
            return Reply::json(401, errorBody("InvalidToken", "the JWT is missing or empty"));
        }
        identity = "jwt:" + user["token"].get<std::string>();
    } else {
        identity = "anonymous:" + user.value("sdk_guid", std::string()) + ":" +
                   user.value("name", std::string()) + ":" + user.value("email", std::string());
        record["name"] = user.value("name", std::string());
        if (user.contains("email")) {
            record["email"] = user["email"];
        }
    }
    auto [it, created] = usersByIdentity_.emplace(identity, nextUserId_);
    if (created) {
        ++nextUserId_;
        users_[it->second] =
            json{{"id", it->second}, {"name", record["name"]}, {"email", record["email"]},
                 {"agent", false},   {"tags", json::array()},  {"user_fields", json::object()},
                 {"photo", nullptr}};
    }
    const std::string token = "token-" + std::to_string(nextToken_++);
    usersByToken_[token] = it->second;
    return Reply::json(
        201, json{{"authentication", {{"access_token", token}, {"user_id", std::to_string(it->second)}}}});
}

AccountServer::Reply AccountServer::handle(const RecordedRequest& request) {
    std::lock_guard lock(mutex_);
    Reply reply = route(request);
    RecordedRequest answered = request;
    answered.status = reply.status;
    // Logged before it shows in requests(), so that whoever saw it there finds it in the log as well.
    if (onRequest_) {
        onRequest_(answered);
    }
    requests_.push_back(std::move(answered));
    changed_.notify_all();
    return reply;
}

AccountServer::Reply AccountServer::admin(const RecordedRequest& request) {
    const std::string path = request.path();
    const std::string& method = request.method;
    if (path == "/__mock/requests" && method == "GET") {
        std::size_t first = 0;
        if (const auto since = rawQueryValue(request.target, "since")) {
            const auto count = decimal(*since);
            if (!count || *count < 0) {
                return Reply::json(400, errorBody("InvalidRequest", "since must be a count of requests"));
            }
            first = static_cast<std::size_t>(*count);
        }
        json entries = json::array();
        std::lock_guard lock(mutex_);
        for (std::size_t i = first; i < requests_.size(); ++i) {
            entries.push_back(requests_[i].logEntry());
        }
        return Reply::json(200, entries);
    }
    if (path == "/__mock/answers" && method == "POST") {
        const auto body = json::parse(request.body, nullptr, false);
        if (body.is_discarded()) {
            return Reply::json(400, errorBody("InvalidAnswer", "the body is not JSON"));
        }
        std::vector<ScriptEntry> entries;
        try {
            entries = parseScriptedAnswers(body);
        } catch (const std::invalid_argument& e) {
            return Reply::json(400, errorBody("InvalidAnswer", e.what()));
        }
        std::lock_guard lock(mutex_);
        for (auto& entry : entries) {
            scripts_[entry.path].emplace_back(std::move(entry.method), std::move(entry.answer));
        }
        return Reply::json(200, json{{"added", entries.size()}});
    }
    if (path == "/__mock/reset" && method == "POST") {
        reset();
        return Reply::json(200, json::object());
    }
    if (path == "/__mock/state" && method == "GET") {
        return Reply::json(200, state());
    }
    return Reply::json(404,
                       errorBody("RecordNotFound",
                                 "the admin calls are GET /__mock/requests[?since=N], POST /__mock/answers, "
                                 "POST /__mock/reset and GET /__mock/state"));
}

AccountServer::Reply AccountServer::route(const RecordedRequest& request) {
    const std::string path = request.path();
    if (auto it = scripts_.find(path); it != scripts_.end()) {
        auto& queue = it->second;
        const auto match = std::find_if(queue.begin(), queue.end(), [&](const auto& entry) {
            return entry.first.empty() || entry.first == request.method;
        });
        if (match != queue.end()) {
            ScriptedAnswer answer = match->second;
            // A counted answer is used up; one without a count stays where it is, ahead of any later ones.
            if (match->second.times && --*match->second.times <= 0) {
                queue.erase(match);
            }
            return Reply{answer.status, answer.body, answer.headers, answer};
        }
    }

    const auto& method = request.method;
    if (method == "POST" && (path == "/access/sdk/anonymous" || path == "/access/sdk/jwt")) {
        return access(request, path == "/access/sdk/jwt");
    }
    if (method == "GET" && path.starts_with("/api/private/mobile_sdk/settings/") && path.ends_with(".json")) {
        return Reply::json(200, settings_);
    }
    if (method == "GET" && path == "/embeddable_blip") {
        const auto data = rawQueryValue(request.target, "data");
        const auto decoded = data ? platform::base64Decode(percentDecode(*data)) : std::nullopt;
        const auto event = decoded ? json::parse(decoded->view(), nullptr, false) : json();
        if (event.is_discarded() || event.is_null()) {
            return Reply::json(400, errorBody("InvalidEvent", "data must be base64 of a JSON document"));
        }
        events_.push_back(event);
        return Reply{200, "", {{"Content-Type", "image/gif"}}, std::nullopt};
    }
    if (method == "GET" && (path == "/hc" || path.starts_with("/hc/"))) {
        // Help-centre pages, as a web view loads them: the home page greets a user whose bearer token the
        // server issued, articles are for such users only.
        const auto user = authenticatedUser(request);
        const auto page = [](int status, const std::string& title, const std::string& text) {
            return Reply{status,
                         "<!DOCTYPE html><html><head><title>" + title + "</title></head><body><h1>" + title +
                             "</h1><p>" + text + "</p></body></html>",
                         {{"Content-Type", "text/html; charset=utf-8"}},
                         std::nullopt};
        };
        static const std::map<std::string, std::pair<std::string, std::string>> articles = {
            {"/hc/articles/1", {"Getting started", "Set up your account in three steps."}},
            {"/hc/articles/2", {"Resetting your password", "Use the link on the sign-in page."}}};
        if (path == "/hc" || path == "/hc/") {
            return page(200, "Help Center",
                        user ? "Signed in as user " + std::to_string(*user) + "."
                             : std::string("Welcome, guest. Sign in to see your requests."));
        }
        if (const auto article = articles.find(path); article != articles.end()) {
            return user ? page(200, article->second.first, article->second.second)
                        : page(401, "Sign in required", "Sign in to read this article.");
        }
        return page(404, "Page not found", "There is no such page.");
    }
    if (!path.starts_with("/api/mobile/")) {
        return Reply::json(404, errorBody("RecordNotFound", "Not found"));
    }

    const auto userId = authenticatedUser(request);
    if (!userId) {
        return Reply::json(401, errorBody("Unauthorized", "Couldn't authenticate you"));
    }
    auto& user = users_[*userId];
    const auto body = request.json();
    if (path == "/api/mobile/users/me.json" && method == "GET") {
        return Reply::json(200, userEnvelope(*userId));
    }
    if (path == "/api/mobile/users/me.json" && method == "PUT") {
        const auto fields =
            body.is_object() ? body.value("user", json::object()).value("user_fields", json()) : json();
        if (!fields.is_object()) {
            return Reply::json(422,
                               errorBody("InvalidRequest", "expected {\"user\": {\"user_fields\": {...}}}"));
        }
        for (const auto& [key, value] : fields.items()) {
            user["user_fields"][key] = value;
        }
        return Reply::json(200, userEnvelope(*userId));
    }
    if (path == "/api/mobile/user_tags.json" && method == "POST") {
        if (!body.is_object() || !body.value("tags", json()).is_array()) {
            return Reply::json(422, errorBody("InvalidRequest", "expected {\"tags\": [...]}"));
        }
        for (const auto& tag : body["tags"]) {
            if (tag.is_string() &&
                std::find(user["tags"].begin(), user["tags"].end(), tag) == user["tags"].end()) {
                user["tags"].push_back(tag);
            }
        }
        return Reply::json(200, userEnvelope(*userId));
    }
    if (path == "/api/mobile/user_tags/destroy_many.json" && method == "DELETE") {
        const auto tags = percentDecode(rawQueryValue(request.target, "tags").value_or(""));
        std::size_t start = 0;
        while (start <= tags.size()) {
            const auto end = tags.find(',', start);
            const auto tag = tags.substr(start, end == std::string::npos ? std::string::npos : end - start);
            auto& list = user["tags"];
            list.erase(std::remove(list.begin(), list.end(), json(tag)), list.end());
            if (end == std::string::npos) {
                break;
            }
            start = end + 1;
        }
        return Reply::json(200, userEnvelope(*userId));
    }
    if (path == "/api/mobile/user_fields.json" && method == "GET") {
        return Reply::json(200, json{{"user_fields", userFields_}});
    }
    if (path == "/api/mobile/push_notification_devices.json" && method == "POST") {
        const auto device = body.is_object() ? body.value("push_notification_device", json()) : json();
        if (!device.is_object() || !device.value("identifier", json()).is_string()) {
            return Reply::json(422,
                               errorBody("InvalidRequest",
                                         "expected {\"push_notification_device\": {\"identifier\": ...}}"));
        }
        auto stored = device;
        stored["user_id"] = *userId;
        devices_[device["identifier"].get<std::string>()] = stored;
        return Reply::json(201, json{{"push_notification_device", stored}});
    }
    const std::string devicePrefix = "/api/mobile/push_notification_devices/";
    if (path.starts_with(devicePrefix) && path.ends_with(".json") && method == "DELETE") {
        const auto identifier =
            percentDecode(path.substr(devicePrefix.size(), path.size() - devicePrefix.size() - 5));
        if (devices_.erase(identifier) == 0) {
            return Reply::json(404, errorBody("RecordNotFound", "Not found"));
        }
        return Reply::json(200, json::object());
    }
    return Reply::json(404, errorBody("RecordNotFound", "Not found"));
}

}  // namespace velmora::mock
