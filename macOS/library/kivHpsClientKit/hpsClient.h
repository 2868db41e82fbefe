/// Client of the HTTP/JSON management server on a card's on-board processor. One object stands for one card.
#ifndef KIV_HPS_CLIENT_H
#define KIV_HPS_CLIENT_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kivClient.h"
#include "kiv_export.h"

/// One network interface of the card, as the card reports it.
struct inteface_info {
    std::string if_name;
    std::string ip_addr;
    std::string netmask;
    std::string hw_addr;
};

/// Operations return 0, or -1 with a line in the log. A client without a successful configuration answers
/// every request as a server that cannot be reached. What the server sends in a wrong shape throws the JSON
/// library's exceptions.
///
/// Threads: requests may run on several threads at once, also while the client is configured anew: each works
/// with the connection that it started with.
class KIV_API hpsClient {
  public:
    hpsClient();
    ~hpsClient();
    hpsClient(const hpsClient&) = delete;
    hpsClient& operator=(const hpsClient&) = delete;

    /// Version of this client: 3.0.0.
    void get_version(uint16_t& major, uint16_t& minor, uint16_t& patch) const;

    std::string get_url() const;      ///< Base URL: "http://", address, ":", port, "/api/v1.0".
    std::string get_address() const;  ///< Address of the server, dotted IPv4.

    /// Uses the server at `ip` and the decimal `port_text`, and asks it for the card's interfaces. -1 for an
    /// empty `ip` (nothing changes) and when the server does not answer. Throws std::invalid_argument or
    /// std::out_of_range when `port_text` is not a number. On success the library's log is set to level info
    /// and its back end.
    int32_t open_config(const std::string& ip, const std::string& port_text, bool start_threads);

    /// The same with the address and port already stored.
    int32_t _open_config(bool start_threads);

    /// Asks the card for its interfaces and appends them to the client's list, or to the caller's.
    int32_t get_interface_info();
    int32_t get_interface_info(std::vector<inteface_info>& list);

    /// A copy of the client's list: what get_interface_info() has read so far. No request.
    std::vector<inteface_info> interfaces() const;

    /// Asks for the hardware monitor. `raw` true: the payload itself, indented by 4 spaces. False: a report
    /// in text, a line for each sensor; `out` stays as it is when the payload is not an array.
    int32_t get_hwmon_info(std::string& out, bool raw);

    /// Requests to a path under the base URL. Without a body text the body is JSON null; a body text that is
    /// not JSON throws the JSON library's parse_error.
    HttpResult http_get(const std::string& path);
    HttpResult http_get(const std::string& path, const std::string& file_path);  ///< Download into a file.
    HttpResult http_post(const std::string& path);
    HttpResult http_post(const std::string& path, const std::string& body_text);
    HttpResult http_post_file(const std::string& path, const std::string& file_path);  ///< Upload of a file.
    HttpResult http_patch(const std::string& path);
    HttpResult http_patch(const std::string& path, const std::string& body_text);
    HttpResult http_delete(const std::string& path);
    HttpResult http_delete(const std::string& path, const std::string& body_text);

  private:
    template <typename Request>
    HttpResult send(Request request) const;

    const int32_t process_id_;  ///< Identity towards the card.
    mutable std::mutex mutex_;  ///< Guards all below; never held during a request.
    std::string ip_address_;
    int32_t port_ = 0;
    std::string base_url_;
    std::shared_ptr<HttpClient>
        http_;  ///< Shared with the requests under way; empty before the first configuration.
    std::vector<inteface_info> interfaces_;
};

#endif
