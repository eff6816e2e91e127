#include "velmora/core/HelpCenterUtil.h"
#include "velmora/core/VMKAuthenticationURLProtocol.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

#include "tests/support/ServerTest.h"
#include "velmora/core/Velmora.h"

namespace velmora::testing {
namespace {

using namespace std::chrono_literals;
using platform::URL;
using platform::URLConnection;
using platform::URLProtocol;
using platform::URLRequest;

struct Loaded {
    int status = 0;
    std::string body;
};

// Loads through the URL loading system, as a host's web view would.
Loaded load(URLRequest request) {
    Awaited<Loaded> loaded;
    URLConnection::sendAsynchronousRequest(
        std::move(request), platform::DispatchQueue::global(),
        [done = loaded.callback()](const auto& response, const Data& data, const auto&) {
            done({response ? response->statusCode() : 0, data.toString()});
        });
    return loaded.wait();
}

bool eventually(const std::function<bool()>& condition) {
    for (int i = 0; i < 500 && !condition(); ++i) {
        std::this_thread::sleep_for(10ms);
    }
    return condition();
}

// Answers requests to canned.invalid itself, through the canonical form of the request; "/hang" never.
class Canned : public URLProtocol {
  public:
    using URLProtocol::URLProtocol;
    static bool canInit(const URLRequest& request) { return request.url.host() == "canned.invalid"; }
    static URLRequest canonicalRequest(const URLRequest& request) { return withForm(request, "canned"); }
    static URLRequest withForm(URLRequest request, const char* form) {
        request.setValue(form, "X-Form");
        return request;
    }
    void startLoading() override {
        ++starts;
        if (request().url.absoluteString().ends_with("/hang")) {
            return;
        }
        const auto response =
            std::make_shared<platform::HTTPURLResponse>(request().url, 203, platform::HTTPHeaderFields{});
        client()->didReceiveResponse(*this, response, platform::URLCacheStoragePolicy::allowed);
        client()->didLoadData(*this, Data::fromString(request().value("X-Form").value_or("")));
        client()->didFinishLoading(*this);
    }
    void stopLoading() override { ++stops; }
    static inline std::atomic<int> starts{0}, stops{0};
};

// Claims what Canned claims, in a form of its own.
class Later : public Canned {
  public:
    using Canned::Canned;
    static URLRequest canonicalRequest(const URLRequest& request) { return withForm(request, "later"); }
};

class HelpCenterTest : public ServerTest {
  protected:
    HelpCenterTest() {
        CoreLogger::setLogLevel(LogLevel::verbose);
        URLProtocol::registerClass<VMKAuthenticationURLProtocol>();
    }
};

// What the account received for a page request; where no token can be added, the host's hook says so.
TEST_F(HelpCenterTest, OnlyAccountPagesWithoutAuthorizationGetTheTokenAndEachIsSentOnce) {
    struct Case {
        const char* name;
        bool initialised;
        std::optional<std::string> token;
        std::string url;
        std::optional<std::string> own, received;  // the request's own "Authorization", the account's
    };
    const auto page = server.url() + "/hc/";
    const auto upperCase = "HTTP" + page.substr(4);
    const std::vector<Case> cases = {
        {"before initialize", false, "tok", page, std::nullopt, std::nullopt},
        {"no token", true, std::nullopt, page, std::nullopt, std::nullopt},
        {"empty token", true, "", page, std::nullopt, std::nullopt},
        {"token", true, "tok", page, std::nullopt, "Bearer tok"},
        {"own header", true, "tok", page, "Basic host", "Basic host"},
        {"URL differing in case", true, "tok", upperCase, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.initialised) {
            Velmora::initialize("app", "client", server.url());
        }
        c.token ? identity->update(IdentityStore::authTokenKey, PropertyValue(*c.token)) : identity->clear();
        server.clearRequests();
        URLRequest request(*URL::fromString(c.url));
        if (c.own) {
            request.setValue(*c.own, "Authorization");
        }
        EXPECT_EQ(load(request).status, 200);
        const auto seen = server.requests("GET", "/hc/");
        ASSERT_EQ(seen.size(), 1u) << "claimed at most once, sent once";
        EXPECT_EQ(seen[0].header("Authorization"), c.received);
        if (!c.initialised || !c.token) {
            logs->clear();
            EXPECT_EQ(HelpCenterUtil::canonicalRequest(request).allHTTPHeaderFields,
                      request.allHTTPHeaderFields);
            EXPECT_EQ(logs->count("[VERBOSE]: Unable to add header to request: " + c.url), 1u);
        }
    }
    URLRequest marked(*URL::fromString(page));
    URLProtocol::setProperty(false, VMKAuthenticationURLProtocol::handledKey, marked);
    EXPECT_FALSE(VMKAuthenticationURLProtocol::canInit(marked)) << "marked as handled, whatever the value";
}

// The account URL as a text prefix also begins other origins' URLs: the token goes to none of them.
TEST_F(HelpCenterTest, URLsOfAnotherOriginThatBeginWithTheAccountURLGetNoToken) {
    Velmora::initialize("app", "client", "https://acme.example.com");
    identity->update(IdentityStore::authTokenKey, PropertyValue("tok"));
    for (const std::string url :
         {"https://acme.example.com.other.net/hc/", "https://acme.example.com@other.net/hc/",
          "https://acme.example.com:8443/hc/", "https://acme.example.com/hc/"}) {
        SCOPED_TRACE(url);
        const bool account = url == "https://acme.example.com/hc/";
        const URLRequest request(*URL::fromString(url));
        EXPECT_EQ(VMKAuthenticationURLProtocol::canInit(request), account);
        EXPECT_EQ(HelpCenterUtil::canonicalRequest(request).value("Authorization"),
                  account ? std::optional<std::string>("Bearer tok") : std::nullopt);
    }
}

TEST_F(HelpCenterTest, RegisteredProtocolsAnswerInPlaceOfTheNetworkLatestFirstAndAreStoppedOnce) {
    URLProtocol::registerClass<Canned>();
    const URLRequest request(*URL::fromString("http://canned.invalid/page"));
    const auto canned = load(request);
    EXPECT_EQ(canned.status, 203);
    EXPECT_EQ(canned.body, "canned") << "the protocol loads the canonical request";
    EXPECT_TRUE(URLProtocol::registerClass<Later>());
    EXPECT_EQ(load(request).body, "later");
    URLProtocol::unregisterClass<Later>();
    EXPECT_EQ(load(request).body, "canned");
    EXPECT_TRUE(eventually([] { return Canned::stops == 3; })) << "once each load ended";
    using Response = std::shared_ptr<const platform::HTTPURLResponse>;
    struct Counting : platform::URLConnectionDelegate {
        void didReceiveResponse(URLConnection&, const Response&) override { ++events; }
        void didReceiveData(URLConnection&, const Data&) override { ++events; }
        void didFinishLoading(URLConnection&) override { ++events; }
        void didFailWithError(URLConnection&, const Error&) override { ++events; }
        std::atomic<int> events{0};
    };
    const auto delegate = std::make_shared<Counting>();
    const auto hanging =
        URLConnection::start(URLRequest(*URL::fromString("http://canned.invalid/hang")), delegate);
    ASSERT_TRUE(eventually([] { return Canned::starts == 4; }));
    hanging->cancel();
    EXPECT_TRUE(eventually([] { return Canned::stops == 4; }));
    EXPECT_EQ(delegate->events.load(), 0) << "a cancelled load reports nothing";
}

}  // namespace
}  // namespace velmora::testing
