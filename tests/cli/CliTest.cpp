// The command-line host and the example, run as separate processes the way a user runs them.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "tests/support/PersistedDefaults.h"
#include "tests/support/ServerTest.h"

namespace velmora::testing {
namespace {

using namespace std::chrono_literals;
using mock::AccountServer;
using nlohmann::json;

struct ProcessRun {
    int exitCode = -1;
    std::string out;
    std::string err;
    json outJson() const { return json::parse(out, nullptr, false); }
    json errJson() const { return json::parse(err, nullptr, false); }
};

ProcessRun runProgram(const std::filesystem::path& directory, std::vector<std::string> arguments) {
    ProcessRun run;
    if (const pid_t pid = spawnWithOutput(std::move(arguments), directory / "stdout", directory / "stderr")) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        run.exitCode = exitStatusOf(status);
    }
    run.out = readFile(directory / "stdout");
    run.err = readFile(directory / "stderr");
    return run;
}

class CliTest : public ServerTest {
  protected:
    // One launch of the host app for the account on `server`, with its state in this test's directories.
    ProcessRun velmora(std::vector<std::string> command, std::vector<std::string> options = {}) {
        std::vector<std::string> arguments = launcher;
        arguments.insert(arguments.end(), {VELMORA_CLI_PATH, "--app-id", "app", "--client-id", "client"});
        arguments.insert(arguments.end(), {"--url", server.url(), "--data-dir", (root / "cli-data").string(),
                                           "--cache-dir", (root / "cli-cache").string()});
        arguments.insert(arguments.end(), options.begin(), options.end());
        arguments.insert(arguments.end(), command.begin(), command.end());
        return runProgram(root, std::move(arguments));
    }
    std::vector<std::string> launcher;  // what runs the command-line host, when not itself
};

TEST_F(CliTest, StateCarriesOverBetweenLaunchesAndLoginHappensOnce) {
    const auto set = velmora({"identity", "anonymous", "--name", "Ann", "--email", "ann@example.com"});
    ASSERT_EQ(set.exitCode, 0) << set.err;
    EXPECT_EQ(set.outJson(), json::object());
    EXPECT_TRUE(server.requests().empty()) << "login is lazy";
    EXPECT_TRUE(velmora({"identity", "show"}).outJson()["anonymous"]["guid"].is_string());
    const auto first = velmora({"user", "get"});
    ASSERT_EQ(first.exitCode, 0) << first.err;
    EXPECT_EQ(first.outJson()["name"], "Ann");
    EXPECT_EQ(velmora({"user", "tags", "add", "vip", "big spender"}).outJson()["tags"],
              json({"vip", "big spender"}));
    EXPECT_EQ(
        velmora({"user", "fields", "set", "plan=gold", "seats=3", "note={\"a\""}).outJson()["user_fields"],
        json({{"plan", "gold"}, {"seats", "3"}, {"note", "{\"a\""}}));
    EXPECT_EQ(server.requests("POST", "/access/sdk/anonymous").size(), 1u) << "the token was kept";
    const json device1 = {{"identifier", "device-1"}};
    EXPECT_EQ(velmora({"push", "register", "device-1", "--locale", "fr"}).outJson(), device1);
    EXPECT_EQ(velmora({"push", "register", "device-1"}).outJson(), device1);
    EXPECT_EQ(server.requests("POST", "/api/mobile/push_notification_devices.json").size(), 1u);
    EXPECT_EQ(velmora({"settings", "blips"}).outJson()["permissions"]["required"], true);
}

TEST_F(CliTest, FailuresPrintTheErrorAndUsageAndTimeOutsHaveTheirOwnCodes) {
    const auto noIdentity = velmora({"user", "get"});
    EXPECT_EQ(noIdentity.exitCode, 1);
    EXPECT_EQ(noIdentity.out, "");
    EXPECT_EQ(noIdentity.errJson().size(), 3u) << "domain, code and description: " << noIdentity.err;
    EXPECT_EQ(json({noIdentity.errJson()["domain"], noIdentity.errJson()["code"]}),
              json({"com.velmora.core.access", 100}));
    ASSERT_EQ(velmora({"identity", "jwt", "jwt-1"}).exitCode, 0);
    const auto before = server.requests().size();
    for (const auto& wrong : std::vector<std::vector<std::string>>{
             {"user", "frobnicate"}, {"push", "register"}, {"blip", "action", "--version", "1"}, {}}) {
        const auto usage = velmora(wrong);
        EXPECT_EQ(usage.exitCode, 2) << usage.err;
        EXPECT_TRUE(usage.err.starts_with("velmora: ")) << usage.err;
        EXPECT_NE(usage.err.find("\nusage: velmora --app-id ID"), std::string::npos);
    }
    EXPECT_EQ(velmora({"--log-level", "loud", "init"}).exitCode, 2);
    EXPECT_EQ(velmora({"--timeout", "9.3e9", "init"}).exitCode, 2) << "a deadline past what the clock counts";
    EXPECT_EQ(velmora({"reinit", "--app-id", "a", "--client-id", "c", "--url", "not a url"}).exitCode, 2);
    EXPECT_EQ(server.requests().size(), before) << "a usage error does nothing";
    server.script("GET", "/api/mobile/users/me.json", {.status = 200, .delay = 3s});
    const auto slow = velmora({"user", "get"}, {"--timeout", "0.5"});
    EXPECT_EQ(slow.exitCode, 3);
    EXPECT_NE(slow.err.find("timed out"), std::string::npos);
}

TEST_F(CliTest, AChangeTheDiskRefusesFailsTheCommandAndKeepsTheOldState) {
    // Grows the write-ahead log past the 32 KiB index sized on open, then caps files there, as a full disk.
    for (const char* name : {"Ann1", "Ann2", "Ann3", "Ann"}) {
        ASSERT_EQ(velmora({"identity", "anonymous", "--name", name}).exitCode, 0);
    }
    std::uintmax_t largest = 32768;
    for (const auto& file : std::filesystem::directory_iterator(root / "cli-data")) {
        largest = std::max(largest, file.file_size());
    }
    launcher = {"/bin/sh", "-c",
                "trap '' XFSZ && exec prlimit --fsize=" + std::to_string(largest) + " \"$@\"", "sh"};
    const auto refused = velmora({"identity", "anonymous", "--name", "Bob"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.err.find("the identity could not be stored"), std::string::npos) << refused.err;
    launcher.clear();
    EXPECT_EQ(velmora({"identity", "show"}).outJson()["anonymous"]["name"], "Ann");
}

TEST_F(CliTest, AWarmSwitchUnregistersBeforeTheLaunchEndsAndLogsGoToStandardError) {
    AccountServer other;
    ASSERT_EQ(velmora({"identity", "anonymous"}).exitCode, 0);
    ASSERT_EQ(velmora({"push", "register", "device-1"}).exitCode, 0);
    const auto switched =
        velmora({"reinit", "--app-id", "app-2", "--client-id", "client-2", "--url", other.url()},
                {"--log-level", "debug"});
    ASSERT_EQ(switched.exitCode, 0) << switched.err;
    // Checked at once: the process waited for the unregistration before it exited.
    EXPECT_EQ(server.requests("DELETE", "/api/mobile/push_notification_devices/device-1.json").size(), 1u);
    EXPECT_NE(switched.err.find("[DEBUG]: Push unregistration successful"), std::string::npos);
    EXPECT_EQ(velmora({"init"}).err, "") << "the logger is off unless asked for";
}

TEST_F(CliTest, AHelpCentrePageCarriesTheTokenOnceThereIsOneAndATransportErrorFails) {
    const auto article = server.url() + "/hc/articles/1";
    const auto guest = velmora({"helpcenter", "get", article});
    ASSERT_EQ(guest.exitCode, 0) << guest.err;
    EXPECT_EQ(guest.outJson().size(), 2u) << guest.out;
    EXPECT_EQ(guest.outJson()["status"], 401) << "any HTTP answer succeeds";
    ASSERT_EQ(velmora({"identity", "anonymous", "--name", "Ann"}).exitCode, 0);
    ASSERT_EQ(velmora({"user", "get"}).exitCode, 0);  // logs in: now there is a token to carry
    const auto member = velmora({"helpcenter", "get", article}).outJson();
    EXPECT_EQ(member["status"], 200);
    EXPECT_NE(member["body"].get<std::string>().find("<h1>Getting started</h1>"), std::string::npos);
    const auto unreachable = velmora({"helpcenter", "get", "http://127.0.0.1:1/hc/"});
    EXPECT_EQ(unreachable.exitCode, 1);
    EXPECT_EQ(unreachable.errJson()["domain"], "NSURLErrorDomain") << unreachable.err;
}

TEST_F(CliTest, TheExampleRunsAgainstTheLocalAccount) {
    const auto run = runProgram(root, {VELMORA_QUICKSTART_PATH, server.url()});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out, "signed in as Ann (user 1000)\n");
}

}  // namespace
}  // namespace velmora::testing
