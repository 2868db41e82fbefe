#include <kiv/kivClient.h>

#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>

#include <kiv/kiv_json.h>
#include "base/jsonSyntax.h"
#include "base/jsonText.h"
#include "base/regularFile.h"
#include "log/kivLogDispatch.h"

namespace {

constexpr const char* kJson = "application/json";
constexpr std::size_t kMostHead = 1 << 20;    // Bytes of all lines of heads and trailers.
constexpr int kLongestTimeLimit = 2'147'483;  // Seconds: libcurl counts milliseconds in 31 bits.
constexpr const char* kBoundary = "----WebKitFormBoundary7MA4YWxkTrZu0gW";  // Stays: docs/oddities.md.

/// Every line of this client stands under this number, and stays there: docs/oddities.md.
constexpr int kLogLine = 56;

void complain(const std::string& message) {
    kiv::log_error(kiv::kHttpSource, {"{}", kLogLine}, message);
}

/// libcurl counts its initialisations, but not every build of it does so under a lock. Never destroyed:
/// clients may end late in the process's exit.
std::mutex& curl_mutex() {
    // One initialisation stays for ever. A new one after the last client had gone, in a thread that is in a
    // call while the process exits, would use a TLS library that has ended.
    static std::mutex& instance = *[] {
        curl_global_init(CURL_GLOBAL_ALL);
        return new std::mutex;
    }();
    return instance;
}

struct CleanUp {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
using EasyHandle = std::unique_ptr<CURL, CleanUp>;

struct FreeList {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using HeaderList = std::unique_ptr<curl_slist, FreeList>;

/// Sets options until one fails, and keeps that failure.
class Options {
  public:
    explicit Options(CURL* handle) : handle_(handle) {}

    template <typename Value>
    void set(CURLoption option, Value value) {
        if (result_ == CURLE_OK) result_ = curl_easy_setopt(handle_, option, value);
    }
    void fail(CURLcode code) { result_ = code; }
    CURLcode result() const { return result_; }

  private:
    CURL* handle_;
    CURLcode result_ = CURLE_OK;
};

/// The body of a response, as it comes in.
struct Received {
    CURL* handle;
    std::size_t most;  ///< Bytes. `begin` lowers it when the status is no success.
    std::string body = {};
};

bool is_success(long status) {
    return status >= 200 && status <= 299;
}

/// Before the first piece. Makes room at once for what the server says it will send: growing would hold the
/// body twice. Never throws: without the room the body grows as it comes.
void begin(Received& received) noexcept try {
    constexpr std::size_t kMostBelieved = std::size_t{1} << 30;
    long status = 0;
    curl_easy_getinfo(received.handle, CURLINFO_RESPONSE_CODE, &status);
    if (!is_success(status)) received.most = kiv::json::kMostBytes;
    curl_off_t told = -1;
    curl_easy_getinfo(received.handle, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &told);
    const auto length = static_cast<std::size_t>(std::max(told, curl_off_t{0}));
    if (length <= std::min(kMostBelieved, received.most)) received.body.reserve(length);
} catch (...) {
}

/// Appends what was received to the body at `user`. Never throws: its caller is C. A short count ends the
/// transfer.
std::size_t append_received(char* data, std::size_t size, std::size_t count, void* user) noexcept {
    Received& received = *static_cast<Received*>(user);
    if (received.body.empty()) begin(received);
    if (size * count > received.most - received.body.size()) return 0;
    try {
        received.body.append(data, size * count);
        return size * count;
    } catch (...) {
        return 0;
    }
}

/// Takes the size of each line of head and trailers from `user`, which says how many bytes may come. libcurl
/// keeps all these lines; it limits those of the head only, and not in every version. A short count ends the
/// transfer.
std::size_t limit_head(char*, std::size_t size, std::size_t count, void* user) noexcept {
    std::size_t& left = *static_cast<std::size_t*>(user);
    if (size * count > left) return 0;
    left -= size * count;
    return size * count;
}

int tell_progress(void* user, curl_off_t, curl_off_t, curl_off_t total, curl_off_t sent) noexcept {
    try {
        // Before the transfer begins libcurl knows no total.
        if (total > 0)
            (*static_cast<const UploadProgress*>(user))(static_cast<uint64_t>(sent),
                                                        static_cast<uint64_t>(total));
    } catch (...) {
        // The upload goes on without.
    }
    return 0;
}

bool carries_body(std::string_view method) {
    return method == "POST" || method == "PATCH" || method == "DELETE";
}

HttpResult failure(const char* error) {
    return {false, 0, {}, error};
}

/// A multipart form. Not in a string: that would write all of it once before the file is read into it.
struct Form {
    std::unique_ptr<char[]> bytes;
    std::size_t size;
};

/// Reads the regular file at `file_path` into the middle of a form, once. Without bytes when it cannot be
/// opened, read or held in memory.
Form read_form(const std::string& file_path) try {
    kiv::RegularFile file(file_path);
    if (!file.is_open()) return {};

    const std::string name = std::filesystem::path(file_path).filename().string();
    const std::string head = std::string("--") + kBoundary +
                             "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"" + name +
                             "\"\r\nContent-Type: application/octet-stream\r\n\r\n";
    const std::string tail = std::string("\r\n--") + kBoundary + "--\r\n";
    const std::size_t size = head.size() + file.size() + tail.size();
    std::unique_ptr<char[]> bytes(new char[size]);
    char* const end = bytes.get() + size;
    char* at = std::copy(head.begin(), head.end(), bytes.get());
    // The room of the tail shows a file that grows.
    for (ssize_t got = 0; (got = file.read_next(at, static_cast<std::size_t>(end - at))) != 0; at += got)
        if (got < 0) return {};
    std::copy(tail.begin(), tail.end(), at);
    return {std::move(bytes), size};
} catch (const std::exception&) {
    return {};
}

/// Writes a file. What went wrong, as HttpResult::error has it; empty when nothing did.
std::string write_body(const std::string& file_path, const std::string& body) {
    constexpr const char* kFailed = "exception on file write";
    try {
        std::ofstream file(file_path, std::ios::binary | std::ios::trunc);
        if (!file) return "file write error";
        file.write(body.data(), static_cast<std::streamsize>(body.size()));
        file.close();  // Writes what is left in the buffer.
        return file ? "" : kFailed;
    } catch (...) {
        return kFailed;
    }
}

}  // namespace

/// What an attempt needs to know.
struct HttpClient::Request {
    const char* method;
    const std::string& path;
    std::string_view body;
    const std::string& content_type;
    int timeout;                ///< Seconds.
    std::size_t most_received;  ///< Bytes of the body of an answer of success.
    const UploadProgress* progress = nullptr;
};

HttpClient::HttpClient(std::string base_url) : base_url_(std::move(base_url)) {
    const std::lock_guard lock(curl_mutex());
    curl_global_init(CURL_GLOBAL_ALL);
}

HttpClient::~HttpClient() {
    const std::lock_guard lock(curl_mutex());
    curl_global_cleanup();
}

void HttpClient::set_timeout(int seconds) {
    timeout_ = seconds;
}

void HttpClient::set_retry(int count, int interval_ms) {
    retry_count_ = count;
    retry_interval_ms_ = interval_ms;
}

HttpResult HttpClient::get(const std::string& path) {
    return perform("GET", path, "", "", timeout_);
}

HttpResult HttpClient::post(const std::string& path, const nlohmann::ordered_json& json) {
    return perform("POST", path, json.dump(), kJson, timeout_);
}

HttpResult HttpClient::patch(const std::string& path, const nlohmann::ordered_json& json) {
    return perform("PATCH", path, json.dump(), kJson, timeout_);
}

HttpResult HttpClient::del(const std::string& path, const nlohmann::ordered_json& json) {
    return perform("DELETE", path, json.dump(), kJson, timeout_);
}

HttpResult HttpClient::upload(const std::string& path, const std::string& file_path) {
    return upload(path, file_path, nullptr);
}

HttpResult HttpClient::upload(const std::string& path, const std::string& file_path,
                              const UploadProgress& progress) {
    const Form form = read_form(file_path);
    if (!form.bytes) {
        complain("Could not open file=" + file_path);
        return failure("file open error");
    }
    const std::string type = std::string("multipart/form-data; boundary=") + kBoundary;
    return repeat({"POST",
                   path,
                   {form.bytes.get(), form.size},
                   type,
                   upload_timeout_,
                   kiv::json::kMostBytes,
                   progress ? &progress : nullptr});
}

HttpResult HttpClient::download(const std::string& path, const std::string& file_path) {
    HttpResult result = repeat({"GET", path, "", "", download_timeout_, SIZE_MAX});
    if (!result.success) return result;
    result.error = write_body(file_path, result.body);
    result.success = result.error.empty();
    return result;
}

HttpResult HttpClient::perform(const std::string& method, const std::string& path, const std::string& body,
                               const std::string& content_type, int timeout) {
    return repeat({method.c_str(), path, body, content_type, timeout, kiv::json::kMostBytes});
}

HttpResult HttpClient::repeat(const Request& request) {
    for (int tried = 0; tried < retry_count_; ++tried) {
        try {
            return attempt(request);
        } catch (const std::exception& error) {
            complain(error.what());
        }
        // After the last attempt too: docs/oddities.md.
        if (retry_interval_ms_ >= 1)
            std::this_thread::sleep_for(std::chrono::milliseconds(retry_interval_ms_));
    }
    return failure("retry over");
}

/// One transfer. Throws std::runtime_error when there is no answer.
HttpResult HttpClient::attempt(const Request& request) {
    EasyHandle handle(curl_easy_init());
    if (!handle) throw std::runtime_error("curl init failed");
    HeaderList headers;
    Received received{handle.get(), request.most_received};
    std::size_t head_left = kMostHead;
    const std::string url = base_url_ + request.path;
    const bool limited = request.timeout >= 0 && request.timeout <= kLongestTimeLimit;

    Options options(handle.get());
    options.set(CURLOPT_URL, url.c_str());
    options.set(CURLOPT_NOSIGNAL, 1L);  // Else transfers that overlap leave SIGPIPE ignored for good.
    options.set(CURLOPT_TIMEOUT, limited ? static_cast<long>(request.timeout) : 0L);
    options.set(CURLOPT_WRITEFUNCTION, &append_received);
    options.set(CURLOPT_WRITEDATA, &received);
    options.set(CURLOPT_HEADERFUNCTION, &limit_head);
    options.set(CURLOPT_HEADERDATA, &head_left);
    options.set(CURLOPT_TCP_KEEPALIVE, 1L);
    options.set(CURLOPT_TCP_KEEPIDLE, 60L);
    options.set(CURLOPT_TCP_KEEPINTVL, 30L);
    options.set(CURLOPT_SSL_VERIFYPEER, 1L);
    options.set(CURLOPT_SSL_VERIFYHOST, 2L);
    if (!request.content_type.empty()) {
        headers.reset(curl_slist_append(nullptr, ("Content-Type: " + request.content_type).c_str()));
        if (!headers) options.fail(CURLE_OUT_OF_MEMORY);
    }
    if (carries_body(request.method)) {
        options.set(CURLOPT_CUSTOMREQUEST, request.method);
        options.set(CURLOPT_POSTFIELDS, request.body.data());
        options.set(CURLOPT_POSTFIELDSIZE, static_cast<long>(request.body.size()));
    }
    if (headers) options.set(CURLOPT_HTTPHEADER, headers.get());
    if (request.progress != nullptr) {
        options.set(CURLOPT_NOPROGRESS, 0L);
        options.set(CURLOPT_XFERINFOFUNCTION, &tell_progress);
        options.set(CURLOPT_XFERINFODATA, request.progress);
    }

    CURLcode code = options.result();
    long status = 0;
    if (code == CURLE_OK) {
        code = curl_easy_perform(handle.get());
        curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &status);
    }
    headers.reset();
    handle.reset();
    if (code != CURLE_OK) {
        complain(curl_easy_strerror(code));
        throw std::runtime_error("network error");
    }

    HttpResult result{is_success(status), status, std::move(received.body), {}};
    if (!result.success) {
        result.error = "http status " + std::to_string(status);
    } else if (!result.body.empty() && !kiv::json::is_valid(result.body)) {
        complain("invalid json response");  // Of downloads too: docs/oddities.md.
    }
    return result;
}
