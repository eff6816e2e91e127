// The library's request path against bare libcurl, both against the local account server in this process:
// latency of one request at a time, and throughput with 32 in flight. The warm user GET is also sent through
// cpprestsdk's http_client, the peer a host developer would otherwise pick, when it is installed.
#include <curl/curl.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <mutex>
#include <thread>

#include "bench/BenchSupport.h"
#include "tools/velmora-mock/AccountServer.h"
#include "velmora/network/AccountInterceptors.h"
#include "velmora/network/NetworkClient.h"
#include "velmora/platform/Environment.h"
#include "velmora/user/UserProvider.h"

#ifdef VELMORA_BENCH_CPPREST
#include "bench/PeerCpprest.h"
#endif

using namespace velmora;
using namespace velmora::bench;

namespace {

constexpr int latencySamples = 1500;
constexpr int throughputRequests = 3000;
constexpr int inFlight = 32;
constexpr long connectionCap = 6;  // the session's per-host cap

size_t discard(char*, size_t size, size_t count, void*) {
    return size * count;
}

// The request bytes the library sends (its session's shared headers and the client identifier), so that a
// baseline given them measures the same exchange with the server.
curl_slist* libraryHeaders(const std::vector<std::string>& extra = {}) {
    curl_slist* list = nullptr;
    for (const auto& [name, value] :
         SharedHeaders::sharedHeaders(VersionConstants::VelmoraCoreSDKVersionString, "Core")) {
        list = curl_slist_append(list, (name + ": " + value).c_str());
    }
    list = curl_slist_append(list, "Client-Identifier: client");
    for (const auto& line : extra) {
        list = curl_slist_append(list, line.c_str());
    }
    return curl_slist_append(list, "Expect:");
}

#ifdef VELMORA_BENCH_CPPREST
// The same header fields as libraryHeaders, for a client that is given each one: the session's shared
// headers, the client identifier, the extra ones, and the Accept-Encoding that libcurl adds for the library
// (the decoders it was built with, in its order).
CpprestPeer::Headers libraryHeaderFields(const CpprestPeer::Headers& extra) {
    CpprestPeer::Headers fields;
    for (const auto& [name, value] :
         SharedHeaders::sharedHeaders(VersionConstants::VelmoraCoreSDKVersionString, "Core")) {
        fields.emplace_back(name, value);
    }
    fields.emplace_back("Client-Identifier", "client");
    fields.insert(fields.end(), extra.begin(), extra.end());
    const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
    std::string encodings;
    const auto add = [&](const char* encoding) {
        encodings += encodings.empty() ? encoding : std::string(", ") + encoding;
    };
    if ((info->features & CURL_VERSION_LIBZ) != 0) {
        add("deflate");
        add("gzip");
    }
    if ((info->features & CURL_VERSION_BROTLI) != 0) {
        add("br");
    }
    if ((info->features & CURL_VERSION_ZSTD) != 0) {
        add("zstd");
    }
    fields.emplace_back("Accept-Encoding", encodings.empty() ? "identity" : encodings);
    return fields;
}
#endif

// `headers` empty: a bare GET with curl's own headers.
CURL* makeEasy(const std::string& url, curl_slist* headers) {
    CURL* easy = curl_easy_init();
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    if (headers != nullptr) {
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
    }
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &discard);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    return easy;
}

// The least an asynchronous client can do: a multi handle on its own thread, requests handed in through a
// queue and a wake-up, completions handed out to a waiting caller.
class MinimalAsyncClient {
  public:
    MinimalAsyncClient(std::string url, curl_slist* headers)
        : url_(std::move(url)), headers_(headers), multi_(curl_multi_init()) {
        curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, connectionCap);
        thread_ = std::thread([this] { run(); });
    }
    ~MinimalAsyncClient() {
        stop_ = true;
        curl_multi_wakeup(multi_);
        thread_.join();
        for (CURL* easy : pool_) {
            curl_easy_cleanup(easy);
        }
        curl_multi_cleanup(multi_);
    }

    // Starts one GET; `done` runs on the client's thread when it completes.
    void get(std::function<void()> done) {
        {
            std::lock_guard lock(mutex_);
            incoming_.push_back(std::move(done));
        }
        curl_multi_wakeup(multi_);
    }

  private:
    void run() {
        while (!stop_) {
            std::deque<std::function<void()>> starting;
            {
                std::lock_guard lock(mutex_);
                starting.swap(incoming_);
            }
            for (auto& done : starting) {
                CURL* easy = pool_.empty() ? makeEasy(url_, headers_) : pool_.back();
                if (!pool_.empty()) {
                    pool_.pop_back();
                }
                callbacks_[easy] = std::move(done);
                curl_multi_add_handle(multi_, easy);
            }
            int running = 0;
            curl_multi_perform(multi_, &running);
            int queued = 0;
            while (CURLMsg* message = curl_multi_info_read(multi_, &queued)) {
                if (message->msg == CURLMSG_DONE) {
                    CURL* easy = message->easy_handle;
                    curl_multi_remove_handle(multi_, easy);
                    auto done = std::move(callbacks_[easy]);
                    callbacks_.erase(easy);
                    pool_.push_back(easy);
                    done();
                }
            }
            curl_multi_poll(multi_, nullptr, 0, 1000, nullptr);
        }
    }

    std::string url_;
    curl_slist* headers_;
    CURLM* multi_;
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::mutex mutex_;
    std::deque<std::function<void()>> incoming_;
    std::map<CURL*, std::function<void()>> callbacks_;
    std::vector<CURL*> pool_;
};

// The cheapest hand-off from one thread to another: a mutex, a condition variable and one waiting thread.
// The library must make two that a bare client does not: onto the global queue before the request leaves
// the caller, and onto the service's queue once the answer is in. A bare client with these two hand-offs
// added is the floor for the library's latency.
class HandOff {
  public:
    HandOff()
        : thread_([this] {
              std::unique_lock lock(mutex_);
              for (;;) {
                  wake_.wait(lock, [this] { return !blocks_.empty() || stop_; });
                  if (stop_) {
                      return;
                  }
                  auto block = std::move(blocks_.front());
                  blocks_.pop_front();
                  lock.unlock();
                  block();
                  lock.lock();
              }
          }) {}
    ~HandOff() {
        {
            std::lock_guard lock(mutex_);
            stop_ = true;
        }
        wake_.notify_one();
        thread_.join();
    }
    void post(std::function<void()> block) {
        {
            std::lock_guard lock(mutex_);
            blocks_.push_back(std::move(block));
        }
        wake_.notify_one();
    }

  private:
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> blocks_;
    bool stop_ = false;
    std::thread thread_;
};

// Waits for a number of completions.
class Latch {
  public:
    void arrive() {
        std::lock_guard lock(mutex_);
        ++count_;
        changed_.notify_all();
    }
    void waitFor(int count) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return count_ >= count; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int count_ = 0;
};

}  // namespace

int main() {
    const ScratchEnvironment scratch;
    curl_global_init(CURL_GLOBAL_DEFAULT);

    mock::AccountServer server;
    const std::string path = "/api/private/mobile_sdk/settings/app.json";
    const std::string url = server.url() + path;
    const auto details = std::make_shared<ApplicationConfiguration>("app", "client", server.url());
    const platform::DispatchQueue callbacks("com.velmora.bench.callbacks");
    const auto makeService = [&] {
        return ProviderService(details, resourceURL(details->accountUrl(), path).value(), false,
                               HttpMethod::get, {}, std::nullopt, callbacks,
                               Interceptors{{std::make_shared<ClientIdentifierInterceptor>(details)},
                                            {},
                                            interceptorQueue(),
                                            platform::DispatchGroup()});
    };

    // One request at a time, interleaved in rounds so that drift falls on every side alike.
    curl_slist* sameHeaders = libraryHeaders();
    MinimalAsyncClient minimal(url, sameHeaders);
    MinimalAsyncClient bare(url, nullptr);
    CURL* reused = makeEasy(url, sameHeaders);
    HandOff before, after;
    std::vector<double> library, async, bareAsync, sync, floor;
    for (int i = 0; i < latencySamples + 100; ++i) {
        const bool record = i >= 100;  // warm-up: connections, first allocations
        {
            Latch latch;
            const auto start = Clock::now();
            makeService().perform([&](const auto&, const auto&, const auto&) { latch.arrive(); });
            latch.waitFor(1);
            if (record)
                library.push_back(nanosecondsBetween(start, Clock::now()));
        }
        {
            Latch latch;
            const auto start = Clock::now();
            minimal.get([&] { latch.arrive(); });
            latch.waitFor(1);
            if (record)
                async.push_back(nanosecondsBetween(start, Clock::now()));
        }
        {
            Latch latch;
            const auto start = Clock::now();
            bare.get([&] { latch.arrive(); });
            latch.waitFor(1);
            if (record)
                bareAsync.push_back(nanosecondsBetween(start, Clock::now()));
        }
        {
            Latch latch;
            const auto start = Clock::now();
            before.post([&] { minimal.get([&] { after.post([&] { latch.arrive(); }); }); });
            latch.waitFor(1);
            if (record)
                floor.push_back(nanosecondsBetween(start, Clock::now()));
        }
        {
            const auto start = Clock::now();
            curl_easy_perform(reused);
            if (record)
                sync.push_back(nanosecondsBetween(start, Clock::now()));
        }
    }
    curl_easy_cleanup(reused);

    // Throughput: keep 32 requests in flight until all are done.
    const auto throughput = [&](const std::function<void(std::function<void()>)>& start) {
        Latch latch;
        std::atomic<int> started{0};
        std::function<void()> next = [&] {
            if (started.fetch_add(1) < throughputRequests) {
                start([&] {
                    next();  // before arriving: the last arrival lets `next` go out of scope
                    latch.arrive();
                });
            }
        };
        const auto begin = Clock::now();
        for (int i = 0; i < inFlight; ++i) {
            next();
        }
        latch.waitFor(throughputRequests);
        return throughputRequests / (nanosecondsBetween(begin, Clock::now()) / 1e9);
    };
    const double rawRate = throughput([&](std::function<void()> done) { minimal.get(std::move(done)); });
    const double libraryRate = throughput([&](std::function<void()> done) {
        makeService().perform([done = std::move(done)](const auto&, const auto&, const auto&) { done(); });
    });
    const double rawRateAgain = throughput([&](std::function<void()> done) { minimal.get(std::move(done)); });
    // The same client through the two hand-offs the queues require: what they cost with 32 in flight.
    const double floorRate = throughput([&](std::function<void()> done) {
        before.post([&, done = std::move(done)]() mutable {
            minimal.get([&, done = std::move(done)]() mutable { after.post(std::move(done)); });
        });
    });

    std::printf("network: one GET at a time against the local account server (%d samples each)\n",
                latencySamples);
    printRow("async libcurl, same request bytes", percentile(async, 50) / 1000, percentile(async, 99) / 1000,
             "us");
    printRow("async libcurl, bare GET", percentile(bareAsync, 50) / 1000, percentile(bareAsync, 99) / 1000,
             "us");
    printRow("sync reused easy handle, same bytes", percentile(sync, 50) / 1000, percentile(sync, 99) / 1000,
             "us");
    printRow("async libcurl, same bytes, + the 2 hand-offs", percentile(floor, 50) / 1000,
             percentile(floor, 99) / 1000, "us");
    printRow("ProviderService.perform", percentile(library, 50) / 1000, percentile(library, 99) / 1000, "us");
    std::printf("network: %d requests, %d in flight, %ld connections per host\n", throughputRequests,
                inFlight, connectionCap);
    std::printf("  %-44s %10.0f req/s (again after: %.0f)\n", "raw curl_multi, same request bytes", rawRate,
                rawRateAgain);
    std::printf("  %-44s %10.0f req/s\n", "raw curl_multi, same bytes, + the 2 hand-offs", floorRate);
    std::printf("  %-44s %10.0f req/s\n", "ProviderService.perform", libraryRate);

    // A warm user read: token stored, settings fresh, through the whole default chain; against the same
    // request (bearer token included) from the minimal client.
    IdentityStore("app").store(Identity::createAnonymous("Ann", std::nullopt));
    const UserProvider users(details);
    const auto getUser = [&] {
        Latch latch;
        users.getUser([&](const Result<User>&) { latch.arrive(); });
        latch.waitFor(1);
    };
    getUser();
    std::this_thread::sleep_for(
        std::chrono::milliseconds(5));  // settings are fresh strictly after their stamp
    const std::string bearer = "Bearer " + IdentityStore("app").oauthToken().value_or("");
    curl_slist* userHeaders = libraryHeaders({"Authorization: " + bearer});
    MinimalAsyncClient userBaseline(server.url() + "/api/mobile/users/me.json", userHeaders);
    std::vector<double> userLibrary, userAsync, userFloor;
#ifdef VELMORA_BENCH_CPPREST
    CpprestPeer peer(server.url(), "/api/mobile/users/me.json",
                     libraryHeaderFields({{"Authorization", bearer}}));
    std::vector<double> userPeer;
#endif
    for (int i = 0; i < latencySamples / 2 + 50; ++i) {
        auto start = Clock::now();
        getUser();
        const double libraryNs = nanosecondsBetween(start, Clock::now());
        Latch latch;
        start = Clock::now();
        userBaseline.get([&] { latch.arrive(); });
        latch.waitFor(1);
        const double asyncNs = nanosecondsBetween(start, Clock::now());
        Latch floorLatch;
        start = Clock::now();
        before.post([&] { userBaseline.get([&] { after.post([&] { floorLatch.arrive(); }); }); });
        floorLatch.waitFor(1);
        const double floorNs = nanosecondsBetween(start, Clock::now());
#ifdef VELMORA_BENCH_CPPREST
        Latch peerLatch;
        start = Clock::now();
        peer.get([&] { peerLatch.arrive(); });
        peerLatch.waitFor(1);
        if (i >= 50) {
            userPeer.push_back(nanosecondsBetween(start, Clock::now()));
        }
#endif
        if (i >= 50) {
            userLibrary.push_back(libraryNs);
            userAsync.push_back(asyncNs);
            userFloor.push_back(floorNs);
        }
    }
    printRow("UserProvider.getUser, warm", percentile(userLibrary, 50) / 1000,
             percentile(userLibrary, 99) / 1000, "us");
    printRow("async libcurl, same user request", percentile(userAsync, 50) / 1000,
             percentile(userAsync, 99) / 1000, "us");
    printRow("async libcurl, same, + the 2 hand-offs", percentile(userFloor, 50) / 1000,
             percentile(userFloor, 99) / 1000, "us");
#ifdef VELMORA_BENCH_CPPREST
    printRow("cpprestsdk http_client, same user request", percentile(userPeer, 50) / 1000,
             percentile(userPeer, 99) / 1000, "us");
#endif

    // The same warm user GET with 32 in flight: the library, and cpprestsdk before and after it.
    const auto userGets = [&](std::function<void()> done) {
        users.getUser([done = std::move(done)](const Result<User>&) { done(); });
    };
#ifdef VELMORA_BENCH_CPPREST
    const auto peerGets = [&](std::function<void()> done) { peer.get(std::move(done)); };
    // Warmed at full concurrency first, as the library's session was by the runs above: cold, its pool
    // opens its connections and starts its threads during the run, at a fraction of its warm rate.
    const double peerColdRate = throughput(peerGets);
    const double peerRate = throughput(peerGets);
    const double userRate = throughput(userGets);
    const double peerRateAgain = throughput(peerGets);
#else
    const double userRate = throughput(userGets);
#endif
    std::printf("network: warm user GET, %d requests, %d in flight\n", throughputRequests, inFlight);
    std::printf("  %-44s %10.0f req/s\n", "UserProvider.getUser, warm", userRate);
#ifdef VELMORA_BENCH_CPPREST
    std::printf("  %-44s %10.0f req/s (again after: %.0f; cold, not counted: %.0f)\n",
                "cpprestsdk http_client, same user request", peerRate, peerRateAgain, peerColdRate);
    const bool peerMeasured = peer.failures() == 0;
    if (!peerMeasured) {
        std::printf("  cpprestsdk: %d requests failed; no ratio against it\n", peer.failures());
    }
#else
    std::printf(
        "  cpprestsdk (Debian's libcpprest-dev) is not installed: no peer rows, no ratio against it\n");
#endif

    printRatio("request_latency", percentile(library, 50) / percentile(async, 50));
    printRatio("user_latency", percentile(userLibrary, 50) / percentile(userAsync, 50));
    printRatio("user_latency_vs_required_hops", percentile(userLibrary, 50) / percentile(userFloor, 50));
    printRatio("request_latency_vs_sync_easy", percentile(library, 50) / percentile(sync, 50));
    printRatio("request_latency_vs_bare_get", percentile(library, 50) / percentile(bareAsync, 50));
    printRatio("request_latency_vs_required_hops", percentile(library, 50) / percentile(floor, 50));
    printRatio("request_latency_p99", percentile(library, 99) / percentile(async, 99));
    printRatio("request_throughput", libraryRate / ((rawRate + rawRateAgain) / 2));
    printRatio("request_throughput_of_required_hops", floorRate / ((rawRate + rawRateAgain) / 2));
#ifdef VELMORA_BENCH_CPPREST
    if (peerMeasured) {
        printRatio("user_latency_vs_cpprest", percentile(userLibrary, 50) / percentile(userPeer, 50));
        printRatio("user_throughput_vs_cpprest", userRate / ((peerRate + peerRateAgain) / 2));
    }
#endif

    server.stop();
    return 0;
}
