#include "tools/velmora-mock/AccountServer.h"

#include <httplib.h>

#include <algorithm>
#include <cctype>
#include <stdexcept>

#include "velmora/platform/Base64.h"

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

}  // namespace

struct AccountServer::Reply {
    int status = 200;
    std::string body;
    std::map<std::string, std::string> headers;
    std::optional<ScriptedAnswer> scripted;

    static Reply json(int status, const nlohmann::json& body) {
        return Reply{
            status, body.dump(), {{"Content-Type", "application/json; charset=utf-8"}}, std::nullopt};
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

AccountServer::AccountServer() : AccountServer(Options{}) {}

AccountServer::AccountServer(Options options) : host_(options.host) {
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
        RecordedRequest recorded{request.method, request.target, {}, request.body};
        for (const auto& [name, value] : request.headers) {
            recorded.headers.emplace(name, value);
        }
        Reply reply = handle(recorded);
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
    server_->Get(".*", handler);
    server_->Post(".*", handler);
    server_->Put(".*", handler);
    server_->Delete(".*", handler);
    server_->Patch(".*", handler);

    port_ = options.port == 0 ? server_->bind_to_any_port(host_)
                              : (server_->bind_to_port(host_, options.port) ? options.port : -1);
    if (port_ <= 0) {
        throw std::runtime_error("velmora-mock: cannot listen on " + host_ + ":" +
                                 std::to_string(options.port));
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
    return std::string(tls_ ? "https://" : "http://") + host_ + ":" + std::to_string(port_);
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

void AccountServer::loadState(const json& state) {
    std::lock_guard lock(mutex_);
    const json savedUsers = state.value("users", json::object());
    for (const auto& [id, user] : savedUsers.items()) {
        users_[std::stoll(id)] = user;
        nextUserId_ = std::max<std::int64_t>(nextUserId_, std::stoll(id) + 1);
    }
    const json savedIdentities = state.value("identities", json::object());
    for (const auto& [identity, id] : savedIdentities.items()) {
        usersByIdentity_[identity] = id.get<std::int64_t>();
    }
    const json savedTokens = state.value("tokens", json::object());
    for (const auto& [token, id] : savedTokens.items()) {
        usersByToken_[token] = id.get<std::int64_t>();
        nextToken_ += 1;
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
    requests_.push_back(request);
    changed_.notify_all();

    const std::string path = request.path();
    if (auto it = scripts_.find(path); it != scripts_.end()) {
        auto& queue = it->second;
        const auto match = std::find_if(queue.begin(), queue.end(), [&](const auto& entry) {
            return entry.first.empty() || entry.first == request.method;
        });
        if (match != queue.end()) {
            ScriptedAnswer answer = match->second;
            queue.erase(match);
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
