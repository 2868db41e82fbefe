/// The HTTP server at one address, on connections that somebody else accepts.
#ifndef KIVSIM_HTTP_SERVER_H
#define KIVSIM_HTTP_SERVER_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

#include "common/LocalSocket.h"
#include "server/endpoints.h"

namespace kivsim {

using Answering = std::function<Answer(const HttpRequest&)>;

/// Has threads of its own, so that answers that are late at one address are late nowhere else. They start
/// with the connections that need them, and end when there are none for a while.
class HttpServer {
  public:
    /// Connections that are served at the same time; others wait.
    static constexpr std::size_t kMostThreads = 32;

    /// `answer` may run on several threads at once. `stop` becomes readable before the end, which waits for
    /// the threads.
    HttpServer(Answering answer, int stop);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    void take(Descriptor connection);

  private:
    class Protocol;
    using Threads = std::list<std::thread>;
    void start_thread();
    void serve_connections(Threads::iterator self);
    bool next_connection(std::unique_lock<std::mutex>& lock, Descriptor& connection);

    const std::unique_ptr<Protocol> protocol_;
    const int stop_;

    std::mutex mutex_;  ///< Guards all below.
    std::condition_variable condition_;
    std::deque<Descriptor> waiting_;  ///< Taken, not yet served.
    std::size_t idle_ = 0;            ///< Threads that wait for a connection.
    bool stopping_ = false;
    Threads threads_;
    Threads ended_;  ///< To be joined.
};

}  // namespace kivsim

#endif
