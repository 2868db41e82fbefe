/// A server on a loopback port that keeps each request byte for byte and answers with the bytes that the test
/// chose.
#ifndef KIV_TEST_LOOPBACK_SERVER_H
#define KIV_TEST_LOOPBACK_SERVER_H

#include <kivos/descriptor.h>
#include <kivplatform/waker.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class LoopbackServer {
  public:
    /// What one connection gets: bytes as they stand, after a pause; then the connection ends.
    struct Reply {
        std::string bytes;
        std::chrono::milliseconds pause{0};
        std::function<void()> before = {};  ///< Runs on the server's thread when the request is there.
    };

    /// The nth connection gets the nth reply, later ones the last.
    explicit LoopbackServer(std::vector<Reply> replies);
    ~LoopbackServer();
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    uint16_t port() const { return port_; }
    std::string url() const;  ///< "http://127.0.0.1:port"

    /// The requests so far, whole: request line, headers, body.
    std::vector<std::string> requests() const;

    static Reply http(int status, const std::string& body);

  private:
    void serve();
    void answer(int socket, const Reply& reply);

    const std::vector<Reply> replies_;
    uint16_t port_ = 0;  ///< Before the listener, which sets it.
    kivos::Descriptor listener_;
    kivplatform::Waker stop_;
    mutable std::mutex mutex_;
    std::vector<std::string> requests_;
    std::thread thread_;
};

/// Body and header lines of a captured request.
std::string body_of(const std::string& request);
std::string header_of(const std::string& request, const std::string& name);  ///< Empty when absent.
std::string request_line_of(const std::string& request);

/// A loopback port that refuses every connection. It stays bound while this process runs: a port that were
/// only free now could be the next server's of another test.
uint16_t closed_port();

#endif
