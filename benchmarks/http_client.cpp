// What HttpClient costs over bare libcurl with the same options and a fresh easy handle per request. Both
// talk to a server of this program's own on the loopback. Each round runs its variants forwards and then
// backwards, so that a drifting machine slows all of them alike; libcurl runs twice in it, which shows the
// noise.
#include <arpa/inet.h>
#include <curl/curl.h>
#include <kiv/kivClient.h>
#include <kivos/sockets.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

constexpr double kGetTarget = 1.05;
constexpr std::size_t kFileSize = std::size_t{64} << 20;

// What HttpClient sends around the bytes of a file, so that the peer posts as many.
constexpr std::string_view kFormHead =
    "------WebKitFormBoundary7MA4YWxkTrZu0gW\r\n"
    "Content-Disposition: form-data; name=\"file\"; filename=\"firmware.bin\"\r\n"
    "Content-Type: application/octet-stream\r\n\r\n";
constexpr std::string_view kFormTail = "\r\n------WebKitFormBoundary7MA4YWxkTrZu0gW--\r\n";
constexpr std::size_t kFormSize = kFormHead.size() + kFileSize + kFormTail.size();
constexpr const char* kFormType =
    "Content-Type: multipart/form-data; boundary=----WebKitFormBoundary7MA4YWxkTrZu0gW";

void require(bool holds, const char* what) {
    if (!holds) throw std::runtime_error(std::string("cannot measure: ") + what);
}

/// Answers every request with the same small JSON, one connection at a time. Drops the bodies it gets.
class Server {
  public:
    Server() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        require(listener_ >= 0 && bind(listener_, generic, size) == 0 && listen(listener_, 64) == 0 &&
                    getsockname(listener_, generic, &size) == 0,
                "no loopback port");
        url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
        thread_ = std::thread([this] { serve(); });
    }
    ~Server() {
        shutdown(listener_, SHUT_RDWR);  // Wakes accept().
        thread_.join();
        close(listener_);
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    const std::string& url() const { return url_; }
    std::size_t last_body_size() const { return last_body_size_; }
    std::size_t json_size() const { return json_.size(); }

  private:
    void serve() {
        for (int socket = -1; (socket = accept(listener_, nullptr, nullptr)) >= 0; close(socket)) {
            // The client closes first. The reset that answers it spares the machine thousands of waiting
            // ports.
            const linger reset{1, 0};
            setsockopt(socket, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
            while (take_request(socket) && send_text(socket, answer_)) {
            }
        }
    }

    /// False when the client has gone.
    bool take_request(int socket) {
        std::size_t filled = 0;
        std::size_t end = std::string_view::npos;
        while (end == std::string_view::npos) {
            const ssize_t got = recv(socket, buffer_.data() + filled, buffer_.size() - filled, 0);
            if (got <= 0) return false;
            filled += static_cast<std::size_t>(got);
            end = std::string_view(buffer_.data(), filled).find("\r\n\r\n");
        }
        const std::string_view head(buffer_.data(), end + 2);
        const std::size_t length = head.find("\r\nContent-Length: ");
        const std::size_t size =
            length == std::string_view::npos ? 0 : std::strtoul(head.data() + length + 18, nullptr, 10);
        if (head.find("\r\nExpect: 100-continue\r\n") != std::string_view::npos)
            send_text(socket, "HTTP/1.1 100 Continue\r\n\r\n");

        for (std::size_t taken = filled - end - 4; taken < size;) {
            const ssize_t got = recv(socket, buffer_.data(), buffer_.size(), 0);
            if (got <= 0) return false;
            taken += static_cast<std::size_t>(got);
        }
        last_body_size_ = size;
        return true;
    }

    static bool send_text(int socket, std::string_view text) {
        return send(socket, text.data(), text.size(), kivos::kNoSignal) == static_cast<ssize_t>(text.size());
    }

    const std::string json_ =
        R"({"result":"ok","interfaces":[{"if_name":"maceth0","ip_addr":"192.168.10.21","netmask":"255.255.255.0",)"
        R"("hw_addr":"02:00:5e:10:00:01","mtu":1500,"up":true},{"if_name":"maceth1","ip_addr":"192.168.10.22",)"
        R"("netmask":"255.255.255.0","hw_addr":"02:00:5e:10:00:02","mtu":1500,"up":false}],"temperature":41.5})";
    const std::string answer_ = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                                std::to_string(json_.size()) + "\r\n\r\n" + json_;
    std::vector<char> buffer_ = std::vector<char>(std::size_t{1} << 20);
    const int listener_ = socket(AF_INET, SOCK_STREAM, 0);
    std::string url_;
    std::atomic<std::size_t> last_body_size_ = 0;
    std::thread thread_;
};

/// The file to upload, in a directory of its own. Just written, it is read from the page cache.
class File {
  public:
    File() {
        std::string name = std::filesystem::temp_directory_path() / "kiv_benchmark_XXXXXX";
        require(mkdtemp(name.data()) != nullptr, "no temporary directory");
        directory_ = name;
        std::ofstream file(path(), std::ios::binary);
        const std::string block(65536, 'k');
        for (std::size_t size = 0; size < kFileSize; size += block.size())
            file << block;
        require(static_cast<bool>(file.flush()), "no file to upload");
    }
    ~File() {
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    std::string path() const { return directory_ / "firmware.bin"; }

  private:
    std::filesystem::path directory_;
};

/// A form whose file part is left for the caller to fill; its pages are fresh.
std::unique_ptr<char[]> empty_form() {
    std::unique_ptr<char[]> form(new char[kFormSize]);
    std::copy(kFormHead.begin(), kFormHead.end(), form.get());
    std::copy(kFormTail.begin(), kFormTail.end(), form.get() + kFormHead.size() + kFileSize);
    return form;
}

std::unique_ptr<char[]> form_in_memory() {
    std::unique_ptr<char[]> form = empty_form();
    std::fill_n(form.get() + kFormHead.size(), kFileSize, 'k');
    return form;
}

std::unique_ptr<char[]> form_from_file(const std::string& path) {
    std::unique_ptr<char[]> form = empty_form();
    std::ifstream file(path, std::ios::binary);
    file.read(form.get() + kFormHead.size(), static_cast<std::streamsize>(kFileSize));
    require(static_cast<bool>(file), "the file cannot be read");
    return form;
}

std::size_t append_received(char* data, std::size_t size, std::size_t count, void* user) {
    static_cast<std::string*>(user)->append(data, size * count);
    return size * count;
}

/// One request on bare libcurl with HttpClient's options; posts `form` if there is one.
std::string bare(const std::string& url, const char* form, long timeout) {
    std::string body;
    curl_slist* const headers = form == nullptr ? nullptr : curl_slist_append(nullptr, kFormType);
    CURL* const handle = curl_easy_init();
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, timeout);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &append_received);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &body);
    curl_easy_setopt(handle, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(handle, CURLOPT_TCP_KEEPIDLE, 60L);
    curl_easy_setopt(handle, CURLOPT_TCP_KEEPINTVL, 30L);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L);
    if (form != nullptr) {
        curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, "POST");
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS, form);
        curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(kFormSize));
        curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
    }
    const CURLcode code = curl_easy_perform(handle);
    long status = 0;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_cleanup(handle);
    curl_slist_free_all(headers);
    require(code == CURLE_OK && status == 200 && !body.empty(), "libcurl got no answer");
    return body;
}

void require_success(const HttpResult& result) {
    require(result.success && !result.body.empty(), "HttpClient got no answer");
}

struct Variant {
    const char* name;
    std::function<void()> once;
    std::vector<double> elapsed = {};    ///< Milliseconds, per request.
    std::vector<double> processor = {};  ///< What the calling thread computed of them, in the kernel too.
};

double milliseconds_of(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return 1e3 * static_cast<double>(now.tv_sec) + 1e-6 * static_cast<double>(now.tv_nsec);
}

void time_once(Variant& variant) {
    const double processor = milliseconds_of(CLOCK_THREAD_CPUTIME_ID);
    const double start = milliseconds_of(CLOCK_MONOTONIC);
    variant.once();
    variant.elapsed.push_back(milliseconds_of(CLOCK_MONOTONIC) - start);
    variant.processor.push_back(milliseconds_of(CLOCK_THREAD_CPUTIME_ID) - processor);
}

/// Rounds of A B C C B A, one request each.
void measure(std::vector<Variant>& variants, int rounds) {
    for (const Variant& variant : variants)
        variant.once();  // Warms up.
    for (int round = 0; round < rounds; ++round) {
        std::for_each(variants.begin(), variants.end(), time_once);
        std::for_each(variants.rbegin(), variants.rend(), time_once);
    }
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

/// One line per variant, with its medians and their ratios to the first variant's. Returns the ratio of the
/// second one's elapsed time.
double print(const std::vector<Variant>& variants) {
    for (const Variant& variant : variants) {
        const double elapsed = median(variant.elapsed);
        const double processor = median(variant.processor);
        std::printf("  %-34s %9.4f ms  %6.3f %12.4f ms  %6.3f\n", variant.name, elapsed,
                    elapsed / median(variants[0].elapsed), processor,
                    processor / median(variants[0].processor));
    }
    return median(variants[1].elapsed) / median(variants[0].elapsed);
}

/// The most memory that a process of its own held, in MiB.
double peak_of(const std::function<void()>& work) {
    std::fflush(nullptr);
    const pid_t child = fork();
    require(child >= 0, "no child process");
    if (child == 0) {
        try {
            work();
            _exit(0);
        } catch (...) {
            _exit(1);
        }
    }
    int status = 0;
    rusage usage{};
    require(wait4(child, &status, 0, &usage) == child && status == 0, "the child process failed");
    return static_cast<double>(usage.ru_maxrss) / 1024;
}

void print_machine() {
    std::string model = "unknown processor";
    std::ifstream processors("/proc/cpuinfo");
    for (std::string line; std::getline(processors, line);) {
        if (line.starts_with("model name")) {
            model = line.substr(line.find(':') + 2);
            break;
        }
    }
    utsname system{};
    uname(&system);
    std::printf("%s, %u cores, %s %s %s\n", model.c_str(), std::thread::hardware_concurrency(),
                system.sysname, system.release, system.machine);
#ifdef __clang__
    std::printf("%s\n", __VERSION__);
#else
    std::printf("gcc %s\n", __VERSION__);
#endif
    std::printf("%s\n\n", curl_version());
}

bool run() {
    const Server server;
    const File file;
    const std::string url = server.url() + "/";
    const std::string path = file.path();

    // Memory first: a child starts with what its parent holds.
    const auto client_uploads = [&] { require_success(HttpClient(server.url()).upload("/", path)); };
    const double idle = peak_of([] {});
    const double client_peak = peak_of(client_uploads);
    require(server.last_body_size() == kFormSize, "HttpClient's form is not the peer's");
    const double bare_peak = peak_of([&] { bare(url, form_in_memory().get(), 10); });

    HttpClient client(server.url());
    client.set_retry(1, 0);  // A failure shows at once.
    std::vector<Variant> gets = {
        {"libcurl", [&] { bare(url, nullptr, 2); }},
        {"HttpClient", [&] { require_success(client.get("/")); }},
        {"libcurl, JSON parsed",
         [&] { require(!nlohmann::json::parse(bare(url, nullptr, 2)).empty(), "no JSON"); }},
        {"libcurl again", [&] { bare(url, nullptr, 2); }},
    };
    measure(gets, 2000);

    const std::unique_ptr<char[]> form = form_in_memory();
    std::vector<Variant> uploads = {
        {"libcurl, form already in memory", [&] { bare(url, form.get(), 10); }},
        {"HttpClient", [&] { require_success(client.upload("/", path)); }},
        {"libcurl, file read first", [&] { bare(url, form_from_file(path).get(), 10); }},
        {"libcurl again", [&] { bare(url, form.get(), 10); }},
    };
    measure(uploads, 15);

    std::printf("%-36s %12s  %6s %15s  %6s\n", "medians", "elapsed", "ratio", "client's CPU", "ratio");
    std::printf("get, %zu bytes of JSON in the answer\n", server.json_size());
    const double ratio = print(gets);
    std::printf("upload, %zu MiB; HttpClient reads the file (in the page cache) within its time\n",
                kFileSize >> 20);
    print(uploads);
    std::printf(
        "peak memory of one upload: libcurl %.1f MiB (the form in memory counted), HttpClient %.1f MiB, "
        "no upload %.1f MiB\n",
        bare_peak, client_peak, idle);
    std::printf("\nget: at most %.2f times libcurl: %s (HttpClient parses the JSON, libcurl does not)\n",
                kGetTarget, ratio <= kGetTarget ? "met" : "not met");
    return ratio <= kGetTarget;
}

}  // namespace

int main() {
    for (const char* name : {"http_proxy", "https_proxy", "all_proxy", "no_proxy", "HTTP_PROXY",
                             "HTTPS_PROXY", "ALL_PROXY", "NO_PROXY"})
        unsetenv(name);
    print_machine();
    try {
        require(curl_global_init(CURL_GLOBAL_ALL) == CURLE_OK, "libcurl does not start");
        const bool met = run();
        curl_global_cleanup();
        return met ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
