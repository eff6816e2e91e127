#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

namespace httplib {
class Server;
}

namespace velmora::mock {

// One request as the server received it.
struct RecordedRequest {
    std::string method;
    std::string target;  // path with the raw query
    std::multimap<std::string, std::string> headers;
    std::string body = {};
    int status = 0;  // what it was answered with

    std::string path() const { return target.substr(0, target.find('?')); }
    // The first value of a header, matched without regard to case.
    std::optional<std::string> header(std::string_view name) const;
    nlohmann::json json() const;  // the body parsed, or null
    // {"method", "path" (with the query), "headers", "body", "status"}: what the executable's request log
    // holds.
    nlohmann::json logEntry() const;
};

// What the server answers the next matching request with, instead of its ordinary behaviour.
struct ScriptedAnswer {
    int status = 200;
    std::string body = {};
    std::map<std::string, std::string> headers = {};
    std::chrono::milliseconds delay{0};  // before anything is sent
    // Sent as separate chunks with `chunkDelay` between them (chunked transfer encoding); overrides `body`.
    std::vector<std::string> chunks = {};
    std::chrono::milliseconds chunkDelay{30};
    bool truncate = false;  // declare twice the body's length, send the body, close the connection
    bool drop = false;      // send the status line and headers, then close the connection
    // How many requests it answers before it is used up; absent: every one, holding its place at the head of
    // its path's queue.
    std::optional<int> times = 1;
};

// A scripted answer with the requests it is for.
struct ScriptEntry {
    std::string method;  // "" for any
    std::string path;    // without the query
    ScriptedAnswer answer = {};
};

// Reads scripted answers from their JSON form, one object or an array of them: {"method", "path", "status",
// "headers", "body" (a string as it is, any other value as its compact dump), "delay_ms", "chunks",
// "chunk_gap_ms", "truncate", "drop", "times"}, where an absent "times" means for ever. Throws
// std::invalid_argument naming the first thing wrong; reads all or nothing.
std::vector<ScriptEntry> parseScriptedAnswers(const nlohmann::json& answers);

// The support account's REST interface for tests, the demo and host developers: every endpoint the library
// calls, with in-memory state, a log of every request, and scriptable answers. Listens on loopback unless
// told otherwise.
class AccountServer {
  public:
    struct Options {
        std::string host = "127.0.0.1";
        int port = 0;  // 0: any free port
        // TLS: certificate and key in PEM files. Absent: plain HTTP.
        std::optional<std::filesystem::path> certificate;
        std::optional<std::filesystem::path> privateKey;
        // Called for every request once its answer is chosen, in order, with the server's lock held: it must
        // not call the server.
        std::function<void(const RecordedRequest&)> onRequest = {};
    };

    AccountServer();
    explicit AccountServer(Options options);
    ~AccountServer();
    AccountServer(const AccountServer&) = delete;
    AccountServer& operator=(const AccountServer&) = delete;

    int port() const { return port_; }
    // "http://127.0.0.1:<port>", the account URL to give the library.
    std::string url() const;
    void stop();

    // The next request with this method ("" for any) and path (without query) gets `answer` (for as many
    // requests as its `times`); answers for the same path queue up in order.
    void script(std::string method, std::string path, ScriptedAnswer answer);

    // Requests under /__mock/ are the executable's admin calls: never recorded and never scripted.
    static constexpr std::string_view adminPrefix = "/__mock/";
    // reset() goes back to the state and scripted answers as they are now (a fresh server otherwise).
    void markStart();
    // The state and scripted answers as at markStart(), and an empty request log.
    void reset();

    std::vector<RecordedRequest> requests() const;
    std::vector<RecordedRequest> requests(std::string_view method, std::string_view path) const;
    void clearRequests();
    // Waits until at least `count` requests have arrived in all.
    bool waitForRequests(std::size_t count,
                         std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

    // The decoded events whose user action is `action`; every event when it is empty.
    std::vector<nlohmann::json> events(std::string_view action = {}) const;
    bool waitForEvents(std::string_view action, std::size_t count,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

    // The settings document served for every application id.
    void setSettings(nlohmann::json settings);
    static nlohmann::json defaultSettings();
    // User-field definitions served by the user-fields endpoint.
    void setUserFields(nlohmann::json definitions);

    // The state, as JSON: "users" (by user id), "devices" (registered push identifiers), "events" (decoded).
    nlohmann::json state() const;
    // Restores a state saved with state(), so the executable can keep accounts between runs. Absent parts are
    // left as they are; a state of the wrong shape throws std::invalid_argument (see checkState) and changes
    // nothing.
    void loadState(const nlohmann::json& state);
    // Throws std::invalid_argument naming the first part of `state` that loadState() cannot take (identities
    // and tokens must name users of the same state).
    static void checkState(const nlohmann::json& state);

  private:
    struct Reply;
    std::vector<nlohmann::json> eventsLocked(std::string_view action) const;
    Reply handle(const RecordedRequest& request);
    Reply route(const RecordedRequest& request);
    Reply admin(const RecordedRequest& request);
    nlohmann::json stateLocked() const;
    void applyStateLocked(const nlohmann::json& state);
    Reply access(const RecordedRequest& request, bool jwt);
    std::optional<std::int64_t> authenticatedUser(const RecordedRequest& request) const;
    nlohmann::json userEnvelope(std::int64_t id) const;
    bool pause(std::chrono::milliseconds duration) const;

    std::unique_ptr<httplib::Server> server_;
    std::thread thread_;
    int port_ = 0;
    bool tls_ = false;
    std::string host_;
    std::function<void(const RecordedRequest&)> onRequest_;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    bool stopping_ = false;
    std::vector<RecordedRequest> requests_;
    std::map<std::string, std::deque<std::pair<std::string, ScriptedAnswer>>> scripts_;  // by path
    nlohmann::json settings_;
    nlohmann::json userFields_;
    std::map<std::string, std::int64_t> usersByIdentity_;
    std::map<std::string, std::int64_t> usersByToken_;
    std::map<std::int64_t, nlohmann::json> users_;
    std::map<std::string, nlohmann::json> devices_;
    std::vector<nlohmann::json> events_;
    std::int64_t nextUserId_ = 1000;
    std::uint64_t nextToken_ = 1;
    nlohmann::json startState_ = nlohmann::json::object();
    std::map<std::string, std::deque<std::pair<std::string, ScriptedAnswer>>> startScripts_;
};

}  // namespace velmora::mock
