#include "server/HttpServer.h"

#include <chrono>
#include <limits>
#include <system_error>
#include <utility>

#include "server/ConnectionStream.h"

namespace kivsim {

namespace {

constexpr int kMostRequests = 100;                   ///< Requests on one connection.
constexpr std::chrono::milliseconds kPatience{200};  ///< Of a thread without connection.

/// The stream of the connection that this thread serves, for the handlers, which the library does not tell.
thread_local ConnectionStream* t_stream = nullptr;

/// What a form uploads. Newer versions of the library keep forms apart.
auto file_of(const auto& request) -> decltype(HttpRequest::file) {
    if constexpr (requires { request.form; }) {
        if (request.form.has_file("file")) return request.form.get_file("file").content;
    } else {
        if (request.has_file("file")) return request.get_file_value("file").content;
    }
    return {};
}

class Serving {
  public:
    explicit Serving(ConnectionStream& stream) { t_stream = &stream; }
    ~Serving() { t_stream = nullptr; }
    Serving(const Serving&) = delete;
    Serving& operator=(const Serving&) = delete;
};

}  // namespace

/// The HTTP library's part.
class HttpServer::Protocol final : public httplib::Server {
  public:
    explicit Protocol(Answering handler) : handler_(std::move(handler)) {
        const auto answer = [this](const httplib::Request& request, httplib::Response& response) {
            HttpRequest plain{request.method, request.path, request.body, {}};
            plain.file = file_of(request);
            const Answer given = handler_(plain);
            if (given.delay_ms != 0) t_stream->pause(given.delay_ms);
            t_stream->cut_answer(given.cut, given.body.size());
            response.status = given.status;
            response.set_content(given.body, given.content_type);
        };
        set_payload_max_length(std::numeric_limits<std::size_t>::max());
        Get(".*", answer);
        Post(".*", answer);
        Patch(".*", answer);
        Delete(".*", answer);
    }

    void serve(int socket, int stop) {
        ConnectionStream stream(socket, stop);
        const Serving serving(stream);
        for (int left = kMostRequests; left > 0 && stream.is_readable(); --left) {
            bool closed = false;
            if (!process(stream, left == 1, closed) || closed) return;
        }
    }

  private:
    /// Newer versions also take who asks whom.
    bool process(auto& stream, bool is_last, bool& closed) {
        if constexpr (requires { this->process_request(stream, is_last, closed, nullptr); }) {
            return process_request(stream, is_last, closed, nullptr);
        } else {
            return process_request(stream, "", 0, "", 0, is_last, closed, nullptr);
        }
    }

    const Answering handler_;
};

HttpServer::HttpServer(Answering answer, int stop)
    : protocol_(std::make_unique<Protocol>(std::move(answer))), stop_(stop) {}

HttpServer::~HttpServer() {
    Threads all;
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
        all.swap(threads_);
        all.splice(all.end(), ended_);
    }
    condition_.notify_all();
    for (std::thread& thread : all)
        thread.join();
}

void HttpServer::take(Descriptor connection) {
    const std::lock_guard lock(mutex_);
    for (; !ended_.empty(); ended_.pop_front())
        ended_.front().join();
    waiting_.push_back(std::move(connection));
    if (idle_ < waiting_.size() && threads_.size() < kMostThreads) start_thread();
    condition_.notify_one();
}

/// Holding the mutex.
void HttpServer::start_thread() {
    threads_.emplace_front();
    try {
        threads_.front() = std::thread([this, self = threads_.begin()] { serve_connections(self); });
    } catch (const std::system_error&) {  // No more threads: those that there are do it, or nobody.
        threads_.pop_front();
        if (threads_.empty()) waiting_.clear();
    }
}

void HttpServer::serve_connections(Threads::iterator self) {
    std::unique_lock lock(mutex_);
    for (Descriptor connection; next_connection(lock, connection); lock.lock()) {
        lock.unlock();
        protocol_->serve(connection.get(), stop_);
        connection.reset();
    }
    if (!stopping_) ended_.splice(ended_.end(), threads_, self);
}

/// Waits for one; false when it is time to end.
bool HttpServer::next_connection(std::unique_lock<std::mutex>& lock, Descriptor& connection) {
    ++idle_;
    condition_.wait_for(lock, kPatience, [this] { return stopping_ || !waiting_.empty(); });
    --idle_;
    if (stopping_ || waiting_.empty()) return false;
    connection = std::move(waiting_.front());
    waiting_.pop_front();
    return true;
}

}  // namespace kivsim
