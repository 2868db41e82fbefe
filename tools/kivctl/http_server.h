/// An HTTP server for questions: GET and HEAD.
#ifndef KIVCTL_HTTP_SERVER_H
#define KIVCTL_HTTP_SERVER_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace kivctl {

/// Where to listen: a numeric address, IPv4 or IPv6, and a port, 0 for any free one.
struct Endpoint {
    std::string address;
    uint16_t port = 0;

    std::string text() const;  ///< "127.0.0.1:9644", "[::1]:9644"
};

/// Takes what text() gives. Throws std::invalid_argument, which says what is wrong.
Endpoint endpoint_of(const std::string& text);

struct HttpAnswer {
    std::string content_type;
    std::string body;
    int status = 200;
};

/// Gets the value of a parameter, empty when there is none.
using Parameters = std::function<std::string(const char* name)>;

/// The pages by their paths; called on several threads.
using Pages = std::map<std::string, std::function<HttpAnswer(const Parameters&)>>;

/// One request a connection, each connection on a thread of its own. Nobody can hold more than a part of the
/// process: connections at the same time, bytes of a request and the time that it takes are limited.
///
/// A server on a loopback address answers only those who ask for it by such an address or as "localhost":
/// else a page from elsewhere could read it, whose name its owner lets point to this machine.
class HttpServer {
  public:
    static constexpr int kMostConnections = 64;
    static constexpr std::size_t kMostBytes = 16'384;  ///< Of a request.

    /// Listens from now on. Throws Failure when it cannot.
    HttpServer(const Endpoint& where, Pages pages);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// With the port that it has.
    const Endpoint& endpoint() const { return endpoint_; }

    [[noreturn]] void run();

  private:
    class Protocol;
    void serve(int connection) noexcept;

    Endpoint endpoint_;
    int socket_ = -1;
    std::unique_ptr<Protocol> protocol_;
    std::atomic<int> connections_{0};
};

}  // namespace kivctl

#endif
