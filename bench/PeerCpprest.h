#pragma once

// The peer a host developer would otherwise pick for the library's requests: cpprestsdk's http_client. Only
// bench/PeerCpprest.cpp sees cpprestsdk's headers; this interface is plain standard C++, so the benchmark
// that uses it is compiled as the rest of the project is.
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace velmora::bench {

// GETs of one path sent through one cpprestsdk http_client, written as a host would: a new request per call
// with the given headers, the answer's body read as JSON before the call counts as done.
class CpprestPeer {
  public:
    using Headers = std::vector<std::pair<std::string, std::string>>;

    CpprestPeer(const std::string& baseUrl, std::string path, Headers headers);
    ~CpprestPeer();
    CpprestPeer(const CpprestPeer&) = delete;
    CpprestPeer& operator=(const CpprestPeer&) = delete;

    // Starts one GET; `done` runs on cpprestsdk's thread pool once the body is read, or once the request
    // failed (counted in failures()).
    void get(std::function<void()> done);
    // Requests so far that failed or were not answered with 200 and a JSON body.
    int failures() const;

  private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace velmora::bench
