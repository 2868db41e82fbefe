/// HTTP transport to a card's management server: one request, a few attempts, one result.
///
/// The functions that take JSON carry the version of nlohmann/json in their names: build with the version
/// that kiv was built with. The CMake package's component `cpp` and kiv-cpp.pc ask for it.
#ifndef KIV_CLIENT_H
#define KIV_CLIENT_H

#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include <kiv/kiv_export.h>

/// Outcome of one request.
struct HttpResult {
    bool success = false;  ///< The server answered with a status of 200 to 299 (and a download was written).
    int64_t status = 0;    ///< HTTP status; 0 when there was no answer or nothing was sent.
    std::string body;      ///< The response body, byte for byte.
    /// Empty on success, else: "retry over" (no attempt got an answer), "http status " and the status, "file
    /// open error", "file write error" or "exception on file write".
    std::string error;
};

/// Told how many of a request's `total` bytes have been handed to the network so far. Runs on the thread that
/// made the request, at least once a second while that is under way; a further attempt begins at 0 again.
/// Exceptions are dropped.
using UploadProgress = std::function<void(uint64_t sent, uint64_t total)>;

/// Sends requests to paths under one base URL. An attempt that gets no answer is repeated; any answer ends
/// the request. A response body of more than 64 MiB counts as no answer, except to a download that succeeds;
/// a head of more than 1 MiB, with its trailers, never is one. The disposition of SIGPIPE stays as it is.
///
/// Log lines go to kivLog.h: there are none before kivLog_open or kiv_open.
///
/// Threads: several may send at once, while none changes the settings. A request blocks its caller until it
/// is answered. Each attempt without an answer takes up to the time limit, and then the pause, also after the
/// last one. Longer: without a time limit, while a host name is looked up (libcurl may not count that), and
/// while a file is read or written.
class KIV_API HttpClient {
  public:
    /// `base_url` is put before every path as it stands.
    explicit HttpClient(std::string base_url);
    ~HttpClient();

    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;

    /// Time limit of get, post, patch and del, in seconds (2 at first). 0, negative values and those above
    /// 2,147,483 are no limit.
    void set_timeout(int seconds);

    /// Number of attempts (3 at first; below 1 nothing is sent) and the pause after each that failed, in
    /// milliseconds (100 at first).
    void set_retry(int count, int interval_ms);

    /// Asks for `path`.
    HttpResult get(const std::string& path);

    /// The body is `json` on one line. Throws the JSON library's type_error when a text in it is not UTF-8.
    HttpResult post(const std::string& path, const nlohmann::ordered_json& json);
    HttpResult patch(const std::string& path, const nlohmann::ordered_json& json);
    HttpResult del(const std::string& path, const nlohmann::ordered_json& json);

    /// Posts the regular file as the form field "file"; time limit 10 s. The file is read into memory once.
    /// Anything else, and a file that cannot be read to its end, is a "file open error" and not sent.
    /// `total` of the progress is the size of the form: the file and some 200 bytes.
    HttpResult upload(const std::string& path, const std::string& file_path);
    HttpResult upload(const std::string& path, const std::string& file_path, const UploadProgress& progress);

    /// Gets `path` and writes the response body, of any size, to the file; time limit 60 s. No file is made
    /// unless the server answers with success. One that cannot be written to its end (a full disk) is an
    /// "exception on file write"; what was written stays.
    HttpResult download(const std::string& path, const std::string& file_path);

    /// The engine of all the above. `timeout` in seconds, as for set_timeout(); an empty `content_type` sends
    /// no such header; `body` is sent with POST, PATCH and DELETE only.
    HttpResult perform(const std::string& method, const std::string& path, const std::string& body,
                       const std::string& content_type, int timeout);

  private:
    struct Request;
    KIV_LOCAL HttpResult repeat(const Request& request);
    KIV_LOCAL HttpResult attempt(const Request& request);

    std::string base_url_;
    int32_t timeout_ = 2;            ///< Seconds.
    int32_t upload_timeout_ = 10;    ///< Seconds.
    int32_t download_timeout_ = 60;  ///< Seconds.
    int32_t retry_count_ = 3;        ///< Attempts.
    int32_t retry_interval_ms_ = 100;
};

#endif
