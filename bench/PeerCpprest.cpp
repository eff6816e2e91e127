#include "bench/PeerCpprest.h"

#include <cpprest/http_client.h>
#include <cpprest/json.h>

#include <atomic>

namespace velmora::bench {

struct CpprestPeer::State {
    State(const std::string& baseUrl, std::string requestPath, Headers requestHeaders)
        : client(web::uri(baseUrl)), path(std::move(requestPath)), headers(std::move(requestHeaders)) {}

    web::http::client::http_client client;
    std::string path;
    Headers headers;
    std::atomic<int> failures{0};
};

CpprestPeer::CpprestPeer(const std::string& baseUrl, std::string path, Headers headers)
    : state_(std::make_shared<State>(baseUrl, std::move(path), std::move(headers))) {}

CpprestPeer::~CpprestPeer() = default;

void CpprestPeer::get(std::function<void()> done) {
    web::http::http_request request(web::http::methods::GET);
    request.set_request_uri(web::uri(state_->path));
    for (const auto& [name, value] : state_->headers) {
        request.headers().add(name, value);
    }
    state_->client.request(request)
        .then([state = state_](web::http::http_response response) {
            if (response.status_code() != web::http::status_codes::OK) {
                state->failures.fetch_add(1);
            }
            return response.extract_json();
        })
        // Task-based, so that a failure anywhere above is observed here and still ends the call.
        .then([state = state_, done = std::move(done)](pplx::task<web::json::value> body) {
            try {
                body.get();
            } catch (...) {
                state->failures.fetch_add(1);
            }
            done();
        });
}

int CpprestPeer::failures() const {
    return state_->failures.load();
}

}  // namespace velmora::bench
