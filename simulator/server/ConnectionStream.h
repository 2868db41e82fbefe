/// A connection as the HTTP library reads and writes it.
#ifndef KIVSIM_CONNECTION_STREAM_H
#define KIVSIM_CONNECTION_STREAM_H

#include <httplib.h>
#include <kivos/sockets.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "card/faults.h"

namespace kivsim {

/// One thread. Waiting ends early when `stop` becomes readable.
class ConnectionStream final : public httplib::Stream {
  public:
    ConnectionStream(int socket, int stop) : socket_(socket), stop_(stop) {}

    // Without "override": which of these the library's class has depends on its version.
    // NOLINTBEGIN(modernize-use-override)
    bool is_readable() const { return next_ < end_ || wait_for(POLLIN); }
    bool wait_readable() const { return is_readable(); }
    bool is_writable() const { return wait_for(POLLOUT); }
    bool wait_writable() const { return is_writable(); }
    time_t duration() const { return 0; }

    /// The library asks for single bytes while it reads header lines: those come from a buffer.
    ssize_t read(char* data, size_t size) {
        if (next_ == end_) {
            if (!wait_for(POLLIN)) return -1;
            const ssize_t received = recv(socket_, buffer_.data(), buffer_.size(), 0);
            if (received <= 0) return received;
            next_ = 0;
            end_ = static_cast<size_t>(received);
        }
        const size_t count = std::min(size, end_ - next_);
        std::memcpy(data, buffer_.data() + next_, count);
        next_ += count;
        return static_cast<ssize_t>(count);
    }
    ssize_t write(const char* data, size_t size) {
        if (!is_writable()) return -1;
        const size_t allowed = up_to_cut(data, size);
        const ssize_t sent = allowed == 0 ? 0 : send(socket_, data, allowed, kivos::kNoSignal);
        if (allowed == size || sent < static_cast<ssize_t>(allowed)) return sent;
        shutdown(socket_, SHUT_RDWR);
        return -1;
    }

    void get_remote_ip_and_port(std::string& ip, int& port) const { loopback(ip, port); }
    void get_local_ip_and_port(std::string& ip, int& port) const { loopback(ip, port); }
    socket_t socket() const { return socket_; }
    // NOLINTEND(modernize-use-override)

    /// Ends the connection before the answer, or in the midst of its body of that size.
    void cut_answer(Cut cut, size_t body_size) {
        if (cut == Cut::BeforeAnswer) left_ = 0;
        if (cut == Cut::InsideBody) left_of_body_ = body_size / 2;
    }

    /// Waits, unless the server ends.
    void pause(uint32_t milliseconds) const {
        pollfd stop{stop_, POLLIN, 0};
        poll(&stop, 1, static_cast<int>(milliseconds));
    }

  private:
    static constexpr int kIdleMs = 2000;  ///< How long a connection may wait for the next bytes.

    /// How many of the bytes go out before the cut.
    size_t up_to_cut(const char* data, size_t size) {
        if (left_of_body_) {
            const std::string_view text(data, size);
            const size_t head = text.find("\r\n\r\n");
            if (!left_ && head != std::string_view::npos) left_ = head + 4 + *left_of_body_;
        }
        if (!left_) return size;
        const size_t allowed = std::min(size, *left_);
        *left_ -= allowed;
        return allowed;
    }

    bool wait_for(short event) const {
        pollfd entries[2] = {{socket_, event, 0}, {stop_, POLLIN, 0}};
        return poll(entries, 2, kIdleMs) > 0 && entries[1].revents == 0;
    }
    static void loopback(std::string& ip, int& port) {
        ip = "127.0.0.1";
        port = 0;
    }

    const int socket_;
    const int stop_;
    std::array<char, 16384> buffer_;  ///< Received; bytes from `next_` to `end_` are still to be read.
    size_t next_ = 0;
    size_t end_ = 0;
    std::optional<size_t> left_;          ///< Bytes that still go out.
    std::optional<size_t> left_of_body_;  ///< Likewise, from the end of the header on.
};

}  // namespace kivsim

#endif
