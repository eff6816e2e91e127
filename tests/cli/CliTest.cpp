// The command-line host and the example, run as separate processes the way a user runs them.
#include <gtest/gtest.h>

#include "tests/support/PersistedDefaults.h"
#include "tests/support/ServerTest.h"

namespace velmora::testing {
namespace {

using namespace std::chrono_literals;
using mock::AccountServer;
using nlohmann::json;

class CliTest : public ServerTest {
  protected:
    // One launch of the host app for the account on `server`, with its state in this test's directories;
    // `command` may begin with more options.
    ProcessRun velmora(const std::vector<std::string>& command) {
        std::vector<std::string> arguments;
        arguments.insert(arguments.end(), {VELMORA_CLI_PATH, "--app-id", "app", "--client-id", "client",
                                           "--url", server.url(), "--data-dir", (root / "cli-data").string(),
                                           "--cache-dir", (root / "cli-cache").string()});
        arguments.insert(arguments.end(), command.begin(), command.end());
        return runProgram(root, std::move(arguments));
    }
    // A launch expected to succeed: what it printed, as JSON.
    json succeeded(const std::vector<std::string>& command) {
        const auto run = velmora(command);
        EXPECT_EQ(run.exitCode, 0) << run.err;
        return json::parse(run.out, nullptr, false);
    }
};

// A help-centre page carries the token once a login has stored one. The last launches switch accounts: that
// the process waited for the unregistration shows in its log (that it is sent once: VelmoraTest).
TEST_F(CliTest, StateCarriesOverBetweenLaunchesLoginHappensOnceAndAWarmSwitchUnregisters) {
    EXPECT_EQ(succeeded({"identity", "anonymous", "--name", "Ann", "--email", "ann@example.com"}),
              json::object());
    EXPECT_TRUE(server.requests().empty()) << "login is lazy";
    EXPECT_TRUE(succeeded({"identity", "show"})["anonymous"]["guid"].is_string());
    const auto article = server.url() + "/hc/articles/1";
    auto guest = succeeded({"helpcenter", "get", article});
    EXPECT_EQ(json({guest.size(), guest["status"]}), json({2, 401})) << "any HTTP answer succeeds: " << guest;
    EXPECT_EQ(succeeded({"user", "get"})["name"], "Ann");
    auto member = succeeded({"helpcenter", "get", article});
    EXPECT_EQ(member["status"], 200);
    EXPECT_NE(member["body"].get<std::string>().find("<h1>Getting started</h1>"), std::string::npos);
    EXPECT_EQ(succeeded({"user", "tags", "add", "vip", "big spender"})["tags"], json({"vip", "big spender"}));
    EXPECT_EQ(succeeded({"user", "fields", "set", "plan=gold", "seats=3", "note={\"a\""})["user_fields"],
              json({{"plan", "gold"}, {"seats", "3"}, {"note", "{\"a\""}}));
    EXPECT_EQ(server.requests("POST", "/access/sdk/anonymous").size(), 1u) << "the token was kept";
    const json device1 = {{"identifier", "device-1"}};
    EXPECT_EQ(succeeded({"push", "register", "device-1", "--locale", "fr"}), device1);
    EXPECT_EQ(succeeded({"push", "register", "device-1"}), device1);
    EXPECT_EQ(server.requests("POST", "/api/mobile/push_notification_devices.json").size(), 1u);
    EXPECT_EQ(succeeded({"settings", "blips"})["permissions"]["required"], true);

    AccountServer other;
    const auto switched = velmora({"--log-level", "debug", "reinit", "--app-id", "app-2", "--client-id",
                                   "client-2", "--url", other.url()});
    ASSERT_EQ(switched.exitCode, 0) << switched.err;
    EXPECT_NE(switched.err.find("[DEBUG]: Push unregistration successful"), std::string::npos);
    EXPECT_EQ(velmora({"init"}).err, "") << "the logger is off unless asked for";
}

TEST_F(CliTest, FailuresPrintTheErrorAndUsageAndTimeOutsHaveTheirOwnCodes) {
    const auto noIdentity = velmora({"user", "get"});
    auto error = noIdentity.errJson();
    // The exit code, nothing on standard output, and an error of domain, code and description.
    EXPECT_EQ(json({noIdentity.exitCode, noIdentity.out, error.size(), error["domain"], error["code"]}),
              json({1, "", 3, "com.velmora.core.access", 100}))
        << noIdentity.err;
    succeeded({"identity", "jwt", "jwt-1"});
    const auto before = server.requests().size();
    // The timeout is a deadline past what the clock counts.
    for (const auto& wrong : std::vector<std::vector<std::string>>{
             {"user", "frobnicate"},
             {"push", "register"},
             {"blip", "action", "--version", "1"},
             {},
             {"--log-level", "loud", "init"},
             {"--timeout", "9.3e9", "init"},
             {"reinit", "--app-id", "a", "--client-id", "c", "--url", "not a url"}}) {
        const auto usage = velmora(wrong);
        EXPECT_EQ(usage.exitCode, 2) << usage.err;
        EXPECT_TRUE(usage.err.starts_with("velmora: ")) << usage.err;
        EXPECT_NE(usage.err.find("\nusage: velmora --app-id ID"), std::string::npos);
    }
    EXPECT_EQ(server.requests().size(), before) << "a usage error does nothing";
    server.script("GET", "/api/mobile/users/me.json", {.status = 200, .delay = 3s});
    const auto slow = velmora({"--timeout", "0.5", "user", "get"});
    EXPECT_EQ(std::pair(slow.exitCode, slow.err.find("timed out") != std::string::npos), std::pair(3, true))
        << slow.err;
    const auto unreachable = velmora({"helpcenter", "get", "http://127.0.0.1:1/hc/"});
    EXPECT_EQ(json({unreachable.exitCode, unreachable.errJson()["domain"]}), json({1, "NSURLErrorDomain"}))
        << unreachable.err;
    // A change the library does not store fails the command: here text that is not UTF-8; a full disk, which
    // the library reports the same way, is SharedStorageTest's.
    const auto refused = velmora({"identity", "anonymous", "--name", "\xff"});
    EXPECT_EQ(json({refused.exitCode, refused.errJson()["description"]}),
              json({1, "the identity could not be stored"}))
        << refused.err;
}

TEST_F(CliTest, TheExampleRunsAgainstTheLocalAccount) {
    const auto run = runProgram(root, {VELMORA_QUICKSTART_PATH, server.url()});
    EXPECT_EQ(std::pair(run.exitCode, run.out), std::pair(0, std::string("signed in as Ann (user 1000)\n")))
        << run.err;
}

}  // namespace
}  // namespace velmora::testing
