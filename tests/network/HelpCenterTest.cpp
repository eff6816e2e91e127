#include "velmora/core/HelpCenterUtil.h"
#include "velmora/core/VMKAuthenticationURLProtocol.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <tuple>

#include "tests/support/ServerTest.h"
#include "velmora/core/Velmora.h"

namespace velmora::testing {
namespace {

using namespace std::chrono_literals;
using platform::HTTPHeaderFields;
using platform::URL;
using platform::URLConnection;
using platform::URLProtocol;
using platform::URLRequest;

using Loaded = std::pair<int, std::string>;  // the status and the body
using Text = std::optional<std::string>;

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

// Answers requests to canned.invalid itself, through the canonical form of the request; "/hang" never, and
// "/throw" throws, when started and when stopped, as a careless host's protocol may.
struct Canned : URLProtocol {
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
        if (request().url.absoluteString().ends_with("/throw")) {
            throw std::runtime_error("no canned page");
        }
        const auto response =
            std::make_shared<platform::HTTPURLResponse>(request().url, 203, HTTPHeaderFields{});
        client()->didReceiveResponse(*this, response, platform::URLCacheStoragePolicy::allowed);
        client()->didLoadData(*this, Data::fromString(request().value("X-Form").value_or("")));
        client()->didFinishLoading(*this);
    }
    void stopLoading() override {
        ++stops;
        if (request().url.absoluteString().ends_with("/throw")) {
            throw std::runtime_error("cannot stop");
        }
    }
    static inline std::atomic<int> starts{0}, stops{0};
};

// Claims what Canned claims, in a form of its own.
struct Later : Canned {
    using Canned::Canned;
    static URLRequest canonicalRequest(const URLRequest& request) { return withForm(request, "later"); }
};

using HelpCenterTest = ServerTest;

// What the account received for a page request; where no token can be added, the host's hook says so.
TEST_F(HelpCenterTest, OnlyAccountPagesWithoutAuthorizationGetTheTokenAndEachIsSentOnce) {
    CoreLogger::setLogLevel(LogLevel::verbose);
    URLProtocol::registerClass<VMKAuthenticationURLProtocol>();
    const auto page = server.url() + "/hc/";
    // What, whether initialised, the user's token, the URL, the request's own headers, the "Authorization"
    // the account received.
    const std::vector<std::tuple<const char*, bool, Text, std::string, HTTPHeaderFields, Text>> cases = {
        {"before initialize", false, "tok", page, {}, std::nullopt},
        {"no token", true, std::nullopt, page, {}, std::nullopt},
        {"empty token", true, "", page, {}, std::nullopt},
        {"token", true, "tok", page, {}, "Bearer tok"},
        {"own header", true, "tok", page, {{"Authorization", "Basic host"}}, "Basic host"},
        {"URL differing in case", true, "tok", "HTTP" + page.substr(4), {}, std::nullopt},
    };
    for (const auto& [what, initialised, token, url, headers, received] : cases) {
        SCOPED_TRACE(what);
        if (initialised) {
            Velmora::initialize("app", "client", server.url());
        }
        token ? identity->update(IdentityStore::authTokenKey, PropertyValue(*token)) : identity->clear();
        server.clearRequests();
        URLRequest request(*URL::fromString(url));
        request.allHTTPHeaderFields = headers;
        EXPECT_EQ(load(request).first, 200);
        const auto seen = server.requests("GET", "/hc/");
        ASSERT_EQ(seen.size(), 1u) << "claimed at most once, sent once";
        EXPECT_EQ(seen[0].header("Authorization"), received);
        if (!initialised || !token) {
            logs->clear();
            EXPECT_EQ(HelpCenterUtil::canonicalRequest(request).allHTTPHeaderFields,
                      request.allHTTPHeaderFields);
            EXPECT_EQ(logs->count("[VERBOSE]: Unable to add header to request: " + url), 1u);
        }
    }
    URLRequest marked(*URL::fromString(page));
    URLProtocol::setProperty(false, VMKAuthenticationURLProtocol::handledKey, marked);
    EXPECT_FALSE(VMKAuthenticationURLProtocol::canInit(marked)) << "marked as handled, whatever the value";

    // The account URL as a text prefix also begins other origins' URLs: the token goes to none of them.
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
                  account ? Text("Bearer tok") : std::nullopt);
    }
}

TEST_F(HelpCenterTest, RegisteredProtocolsAnswerInPlaceOfTheNetworkLatestFirstAndAreStoppedOnce) {
    URLProtocol::registerClass<Canned>();
    const URLRequest request(*URL::fromString("http://canned.invalid/page"));
    EXPECT_EQ(load(request), Loaded(203, "canned")) << "the protocol loads the canonical request";
    EXPECT_TRUE(URLProtocol::registerClass<Later>());
    EXPECT_EQ(load(request).second, "later");
    URLProtocol::unregisterClass<Later>();
    EXPECT_EQ(load(request).second, "canned");
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

    // A protocol that throws ends its load with an error, and is stopped: the load must not hang.
    const auto failing = std::make_shared<Counting>();
    const std::weak_ptr connection =
        URLConnection::start(URLRequest(*URL::fromString("http://canned.invalid/throw")), failing);
    EXPECT_TRUE(eventually([&] { return failing->events == 1; }));
    EXPECT_TRUE(eventually([&] { return Canned::stops == 5 && connection.expired(); }))
        << "stopped, and nothing keeps it once it ended";

    // A delegate that throws at the end still has its load ended and the protocol stopped.
    struct ThrowingAtTheEnd : Counting {
        void didFinishLoading(URLConnection&) override { throw std::runtime_error("host"); }
    };
    URLConnection::start(request, std::make_shared<ThrowingAtTheEnd>());
    EXPECT_TRUE(eventually([] { return Canned::stops == 6; }));
}

}  // namespace
}  // namespace velmora::testing
