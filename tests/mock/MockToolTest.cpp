// The local account server's executable, run as people run it and spoken to over HTTP.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <thread>
#include <tuple>
#include <utility>

#include <nlohmann/json.hpp>

#include "tests/support/LibraryTest.h"
#include "tests/support/PersistedDefaults.h"
#include "tests/support/Watchdog.h"

namespace velmora::testing {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

constexpr const char* me = "/api/mobile/users/me.json";

// One run of the executable, its output in files named after `prefix`; killed if it outlives the test.
struct MockProcess {
    // `arguments` with the program first.
    MockProcess(const std::string& prefix, std::vector<std::string> arguments)
        : out(prefix + ".out"), err(prefix + ".err"), pid(spawnWithOutput(std::move(arguments), out, err)) {}
    ~MockProcess() { exitCode(SIGKILL); }

    // Sends `signalNumber` (0: none), then waits up to `tries` times 10 ms for the exit status: -1 if
    // running.
    int exitCode(int signalNumber = 0, int tries = 1000) {
        if (pid > 0 && signalNumber != 0) {
            ::kill(pid, signalNumber);
        }
        for (int i = 0, status = 0; pid > 0 && i < tries; ++i, std::this_thread::sleep_for(10ms)) {
            if (::waitpid(pid, &status, WNOHANG) == pid) {
                std::tie(code, pid) = std::pair(exitStatusOf(status), 0);
            }
        }
        return pid == 0 ? code : -1;
    }
    // The URL on the first line of standard output; empty when the process ended (or stayed silent) first.
    std::string url() {
        const std::string banner = "velmora-mock listening on ";
        for (int i = 0; i < 1000 && exitCode(0, 1) == -1; ++i) {
            if (const auto text = readFile(out); text.find('\n') != std::string::npos) {
                return text.starts_with(banner) ? text.substr(0, text.find('\n')).substr(banner.size()) : "";
            }
        }
        return "";
    }

    std::string out, err;
    pid_t pid = 0;
    int code = -1;
};

struct Reply {
    int status = 0;  // 0: no answer
    json body;       // discarded when not JSON
};

// One request on a connection of its own, as a client program makes it.
Reply call(const std::string& url, const std::string& method, const std::string& path,
           const std::string& body = "", const std::string& token = "") {
    httplib::Client client(url);
    client.set_bearer_token_auth(token);  // none when empty
    const auto result = method == "GET" ? client.Get(path) : client.Post(path, body, "application/json");
    return result ? Reply{result->status, json::parse(result->body, nullptr, false)} : Reply{};
}

std::string login(const std::string& url, const std::string& name) {
    auto reply = call(url, "POST", "/access/sdk/anonymous", json{{"user", {{"name", name}}}}.dump());
    return reply.body["authentication"]["access_token"].get<std::string>();
}

std::vector<int> statuses(const std::string& url, const std::string& path, const std::string& token, int n) {
    std::vector<int> seen(n);
    std::generate(seen.begin(), seen.end(), [&] { return call(url, "GET", path, "", token).status; });
    return seen;
}

class MockToolTest : public LibraryTest {
  protected:
    MockProcess& start(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), VELMORA_MOCK_PATH);
        const auto prefix = (root / ("mock-" + std::to_string(processes.size()))).string();
        return *processes.emplace_back(std::make_unique<MockProcess>(prefix, std::move(arguments)));
    }

    Watchdog watchdog{90s, "velmora-mock test"};
    std::vector<std::unique_ptr<MockProcess>> processes;  // every one killed at the end of the test
};

// A second server on the port in use stops with status 2; what follows shows the first one still serves.
TEST_F(MockToolTest, ScriptedAnswersFromTheFileAndTheAdminCallAreUsedInOrderAsOftenAsTheySay) {
    std::ofstream(root / "script.json") << json::array(
        {json{{"method", "GET"}, {"path", me}, {"status", 503}, {"body", {{"error", "down"}}}, {"times", 2}},
         json{{"path", "/api/mobile/user_fields.json"}, {"status", 418}, {"body", "teapot"}}});
    const auto url = start({"--port", "0", "--script", (root / "script.json").string()}).url();
    ASSERT_FALSE(url.empty());
    EXPECT_EQ(start({"--port", url.substr(url.rfind(':') + 1)}).exitCode(), 2);
    const auto token = login(url, "Ann");
    EXPECT_EQ(call(url, "GET", me, "", token).body, json({{"error", "down"}})) << "a JSON body goes as JSON";
    EXPECT_EQ(statuses(url, me, token, 2), (std::vector<int>{503, 200}));
    EXPECT_EQ(statuses(url, "/api/mobile/user_fields.json", token, 3), (std::vector<int>{418, 418, 418}));

    const json once = {{"path", me}, {"status", 500}, {"times", 1}};
    EXPECT_EQ(call(url, "POST", "/__mock/answers", once.dump()).status, 200);
    EXPECT_EQ(call(url, "POST", "/__mock/answers", json::array({once, once}).dump()).status, 200);
    EXPECT_EQ(statuses(url, me, token, 4), (std::vector<int>{500, 500, 500, 200}));
    for (const char* wrong :
         {"not json", R"({"status": 503})", R"({"path": "/x", "times": 0})", R"({"path": "/x", "delay": 5})",
          R"({"path": "/__mock/state"})", R"({"path": "/x", "chunks": "b"})",
          R"([{"path": "/api/mobile/users/me.json", "status": 500}, {"path": "/x", "status": "500"}])"}) {
        const auto reply = call(url, "POST", "/__mock/answers", wrong);
        EXPECT_EQ(std::pair(reply.status, reply.body.contains("description")), std::pair(400, true)) << wrong;
    }
    EXPECT_EQ(call(url, "GET", me, "", token).status, 200) << "a refused array adds none of its answers";
}

// The state loaded from a file, a reset back to it, then saved on SIGTERM, read back and saved on SIGINT.
TEST_F(MockToolTest, TheStateAndRequestLogAreReadOverHttpResetGoesBackAndSignalsSaveTheState) {
    const json initial = {{"users", {{"1000", {{"id", 1000}, {"name", "Bo"}}}}},
                          {"tokens", {{"token-2", 1000}}}};
    const auto stateFile = (root / "state.json").string();
    std::ofstream(stateFile) << initial.dump();
    auto& mock = start({"--port", "0", "--state", stateFile, "--log", (root / "log").string()});
    const auto url = mock.url();
    ASSERT_FALSE(url.empty()) << readFile(mock.err);
    EXPECT_EQ(call(url, "GET", me, "", "token-2").body["user"]["name"], "Bo");
    EXPECT_NE(login(url, "Ann"), "token-2") << "a loaded token is never issued again";

    const auto logged = call(url, "GET", "/__mock/requests").body;
    ASSERT_EQ(logged.size(), 2u) << "admin calls are not logged: " << logged.dump();
    EXPECT_EQ(logged[0]["headers"]["Authorization"], "Bearer token-2");
    EXPECT_EQ(json({logged[0]["method"], logged[0]["path"], logged[0]["status"]}), json({"GET", me, 200}));
    EXPECT_EQ(json({logged[1]["body"], logged[1]["status"]}), json({R"({"user":{"name":"Ann"}})", 201}));
    EXPECT_EQ(call(url, "GET", "/__mock/requests?since=1").body, json::array({logged[1]}));
    EXPECT_EQ(call(url, "GET", "/__mock/requests?since=x").status, 400);
    EXPECT_EQ(readFile(root / "log"), logged[0].dump() + "\n" + logged[1].dump() + "\n")
        << "the log file holds the same entries, one a line";

    EXPECT_EQ(call(url, "POST", "/__mock/reset").status, 200);
    const auto state = call(url, "GET", "/__mock/state").body;
    EXPECT_EQ(json({state["users"], state["tokens"]}), json({initial["users"], initial["tokens"]}));
    EXPECT_EQ(call(url, "GET", "/__mock/requests").body, json::array());

    const auto cy = login(url, "Cy");
    EXPECT_EQ(mock.exitCode(SIGTERM), 0) << readFile(mock.err);
    EXPECT_FALSE(std::filesystem::exists(stateFile + ".tmp"));
    auto saved = json::parse(readFile(stateFile));
    EXPECT_EQ(saved.at("users").size(), 2u);
    saved["note"] = "a key the server does not know";
    std::ofstream(stateFile) << saved.dump();
    auto& second = start({"--port", "0", "--state", stateFile});
    const auto again = second.url();
    ASSERT_FALSE(again.empty()) << readFile(second.err);
    EXPECT_EQ(call(again, "GET", me, "", cy).body["user"]["name"], "Cy") << "the user and token came back";
    EXPECT_EQ(second.exitCode(SIGINT), 0) << readFile(second.err);
    EXPECT_EQ(json::parse(readFile(stateFile), nullptr, false), saved) << "nothing it held was dropped";
}

TEST_F(MockToolTest, ABadStateFileOrAUsageErrorStopsItWithStatusTwo) {
    std::filesystem::create_directory(root / "directory.json");
    // the file, its content, what the message names
    const std::vector<std::tuple<std::string, std::string, std::string>> files = {
        {"directory.json", "", "directory"},
        {"invalid.json", R"({"users": )", "JSON"},
        {"oops.json", R"({"users": "oops"})", "\"users\""},
        {"stray.json", R"({"tokens": {"t": 7}})", "\"tokens\""}};
    for (const auto& [name, content, problem] : files) {
        const auto file = root / name;
        std::ofstream(file) << content;  // nothing written to the directory
        auto& mock = start({"--port", "0", "--state", file.string()});
        EXPECT_EQ(mock.exitCode(), 2) << name;
        EXPECT_NE(readFile(mock.err).find(file.string() + ": "), std::string::npos) << readFile(mock.err);
        EXPECT_NE(readFile(mock.err).find(problem), std::string::npos);
        EXPECT_EQ(std::filesystem::is_directory(file) ? "" : readFile(file), content) << "left as it was";
    }
    for (const auto& wrong : std::vector<std::vector<std::string>>{
             {"--port", "http"}, {"--port", "70000"}, {"--tls", "cert.pem"}, {"--state"}, {"--verbose"}}) {
        auto& mock = start(wrong);
        EXPECT_EQ(mock.exitCode(), 2) << wrong[0];
        EXPECT_THAT(readFile(mock.err), ::testing::HasSubstr("usage: velmora-mock [--port PORT]"));
    }
}

}  // namespace
}  // namespace velmora::testing
