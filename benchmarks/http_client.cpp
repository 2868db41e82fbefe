// What the client of a card's server costs over bare libcurl with the same options and a fresh easy handle
// for each request. Both talk to a server of this program's own on the loopback, which takes most of the
// time.
#include <arpa/inet.h>
#include <curl/curl.h>
#include <fmt/format.h>
#include <kiv/HpsHttpHelper.h>
#include <kiv/hpsClient.h>
#include <kivos/sockets.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include "support/measure.h"
#include "support/report.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace {

using kivbench::each;
using kivbench::measure;
using kivbench::Plan;
using kivbench::Report;
using kivbench::require;
using Json = nlohmann::ordered_json;

constexpr std::size_t kMiB = std::size_t{1} << 20;
constexpr std::size_t kBlock = 65536;  // Of what is sent or written: little stays in memory.
constexpr std::size_t kBlocks = kMiB / kBlock;
constexpr kivbench::Budget kSmall{1, 8};

// What HttpClient sends around the bytes of a file.
constexpr std::string_view kFormHead =
    "------WebKitFormBoundary7MA4YWxkTrZu0gW\r\n"
    "Content-Disposition: form-data; name=\"file\"; filename=\"firmware.bin\"\r\n"
    "Content-Type: application/octet-stream\r\n\r\n";
constexpr std::string_view kFormTail = "\r\n------WebKitFormBoundary7MA4YWxkTrZu0gW--\r\n";
constexpr const char* kFormType =
    "Content-Type: multipart/form-data; boundary=----WebKitFormBoundary7MA4YWxkTrZu0gW";

/// Answers one connection at a time, and drops the bodies that it gets.
class Server {
  public:
    /// Sent so many times in one body.
    struct Answer {
        std::string block;
        std::size_t times = 1;
    };

    explicit Server(std::map<std::string, Answer> answers) : answers_(std::move(answers)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        require(bind(listener_.get(), generic, size) == 0 && listen(listener_.get(), 64) == 0 &&
                    getsockname(listener_.get(), generic, &size) == 0,
                "there is no port");
        port_ = std::to_string(ntohs(address.sin_port));
        thread_ = std::thread([this] { serve(); });
    }
    ~Server() {
        shutdown(listener_.get(), SHUT_RDWR);  // Wakes accept().
        thread_.join();
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    const std::string& port() const { return port_; }
    std::string url(const std::string& path = "") const { return "http://127.0.0.1:" + port_ + path; }

  private:
    void serve() {
        for (int socket = -1; (socket = accept(listener_.get(), nullptr, nullptr)) >= 0; close(socket)) {
            // The client closes first. The reset that answers it spares the machine thousands of waiting
            // ports.
            const linger reset{1, 0};
            setsockopt(socket, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
            while (answer_request(socket)) {
            }
        }
    }

    /// False when the client has gone.
    bool answer_request(int socket) {
        std::size_t filled = 0;
        std::size_t end = std::string_view::npos;
        while (end == std::string_view::npos) {
            const ssize_t got = recv(socket, buffer_.data() + filled, buffer_.size() - filled, 0);
            if (got <= 0) return false;
            filled += static_cast<std::size_t>(got);
            end = std::string_view(buffer_.data(), filled).find("\r\n\r\n");
        }
        const std::string head(buffer_.data(), end + 2);
        const std::size_t length = head.find("\r\nContent-Length: ");
        const std::size_t size =
            length == std::string::npos ? 0 : std::strtoul(head.c_str() + length + 18, nullptr, 10);
        if (head.find("\r\nExpect: 100-continue\r\n") != std::string::npos)
            send_text(socket, "HTTP/1.1 100 Continue\r\n\r\n");
        for (std::size_t taken = filled - end - 4; taken < size;) {
            const ssize_t got = recv(socket, buffer_.data(), buffer_.size(), 0);
            if (got <= 0) return false;
            taken += static_cast<std::size_t>(got);
        }
        const std::size_t path = head.find(' ') + 1;
        const Answer& answer = answers_.at(head.substr(path, head.find(' ', path) - path));
        bool sent = send_text(socket, "HTTP/1.1 200 OK\r\nContent-Length: " +
                                          std::to_string(answer.block.size() * answer.times) + "\r\n\r\n");
        for (std::size_t i = 0; sent && i < answer.times; ++i)
            sent = send_text(socket, answer.block);
        return sent;
    }

    static bool send_text(int socket, std::string_view text) {
        return send(socket, text.data(), text.size(), kivos::kNoSignal) == static_cast<ssize_t>(text.size());
    }

    const std::map<std::string, Answer> answers_;
    std::vector<char> buffer_ = std::vector<char>(kBlock);
    const kivos::Descriptor listener_ = kivos::stream_socket(AF_INET);
    std::string port_;
    std::thread thread_;
};

/// Where files are in memory, if there is such a place: no disk is measured.
class Directory {
  public:
    Directory() {
        const std::filesystem::path memory = "/dev/shm", other = std::filesystem::temp_directory_path();
        path_ = std::filesystem::is_directory(memory) ? memory : other;
        path_ /= "kiv_http_" + std::to_string(getpid());
        std::filesystem::create_directory(path_);
    }
    ~Directory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;

    /// A file of so many MiB.
    std::string firmware(std::size_t size) const {
        std::ofstream file(path_ / "firmware.bin", std::ios::binary);
        for (std::size_t i = 0; i < size * kBlocks; ++i)
            file << std::string(kBlock, 'k');
        require(static_cast<bool>(file.flush()), "there is no file to upload");
        return path_ / "firmware.bin";
    }
    std::string downloaded() const { return path_ / "downloaded"; }

  private:
    std::filesystem::path path_;
};

std::size_t append_received(char* data, std::size_t size, std::size_t count, void* user) {
    static_cast<std::string*>(user)->append(data, size * count);
    return size * count;
}

/// What is posted; with a null type nothing is.
struct Posted {
    const char* type = nullptr;
    std::string_view body = {};
};

/// One request on bare libcurl with HttpClient's options.
std::string bare(const std::string& url, const Posted& posted = {}, std::size_t expected = 0) {
    std::string body;
    body.reserve(expected);
    CURL* const handle = curl_easy_init();
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, 10L);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &append_received);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &body);
    curl_easy_setopt(handle, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(handle, CURLOPT_TCP_KEEPIDLE, 60L);
    curl_easy_setopt(handle, CURLOPT_TCP_KEEPINTVL, 30L);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_slist* const headers = posted.type == nullptr ? nullptr : curl_slist_append(nullptr, posted.type);
    if (headers != nullptr) {
        curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, "POST");
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS, posted.body.data());
        curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(posted.body.size()));
        curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
    }
    const CURLcode code = curl_easy_perform(handle);
    curl_easy_cleanup(handle);
    curl_slist_free_all(headers);
    require(code == CURLE_OK && !body.empty(), std::string("libcurl: ") + curl_easy_strerror(code));
    return body;
}

void bare_upload(const std::string& url, const std::string& path, std::size_t size) {
    const std::size_t whole = kFormHead.size() + size + kFormTail.size();
    const std::unique_ptr<char[]> form(new char[whole]);
    kFormHead.copy(form.get(), kFormHead.size());
    std::ifstream file(path, std::ios::binary);
    file.read(form.get() + kFormHead.size(), static_cast<std::streamsize>(size));
    require(static_cast<bool>(file), "the file cannot be read");
    kFormTail.copy(form.get() + kFormHead.size() + size, kFormTail.size());
    bare(url, {kFormType, {form.get(), whole}});
}

void bare_download(const std::string& url, const std::string& path, std::size_t size) {
    const std::string body = bare(url, {}, size);
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(body.data(), static_cast<std::streamsize>(body.size()));
}

void require_success(const HttpResult& result) {
    require(result.success && !result.body.empty(), "HttpClient: " + result.error);
}

/// The most memory that a process of its own held, in MiB.
double peak_of(const std::function<void()>& work) {
    const pid_t child = fork();
    require(child >= 0, "there is no child process");
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
#ifdef __APPLE__
    constexpr double kUnits = 1 << 20;
#else
    constexpr double kUnits = 1 << 10;
#endif
    return static_cast<double>(usage.ru_maxrss) / kUnits;
}

void measure_files(Report& report, const Server& server, const Directory& directory) {
    HttpClient client(server.url());
    for (const std::size_t size : {std::size_t{64}, std::size_t{256}}) {
        const std::string all = fmt::format("/{}", size);
        const std::string path = directory.firmware(size);
        const auto upload = [&] { require_success(client.upload("/small", path)); };
        const auto download = [&] { require_success(client.download(all, directory.downloaded())); };
        const std::string megabytes = std::to_string(size) + " MiB";
        const auto file = static_cast<double>(size);
        // Memory first: a child starts with what its parent holds, which is not the client's.
        const double before = peak_of([] {});
        report.add(
            {"upload, " + megabytes + ", memory", "MiB", peak_of(upload) - before, file, "the file", kSmall});
        report.add({"download, " + megabytes + ", memory", "MiB", peak_of(download) - before, file,
                    "the file", kSmall});
        const auto compare = [&](const std::string& name, const auto& ours, const auto& floor,
                                 const std::string& what) {
            const auto times = measure(Plan{.rounds = size < 100 ? 40 : 20}, {each(ours), each(floor)});
            report.add(
                {name + megabytes, "ms", times[0].median() / 1e6, times[1].median() / 1e6, what, {{1.03}}});
        };
        // Apart: with downloads between, the figures of an upload differed more from run to run.
        compare(
            "upload, ", upload, [&] { bare_upload(server.url("/small"), path, size * kMiB); },
            "file read, then libcurl");
        compare(
            "download, ", download,
            [&] { bare_download(server.url(all), directory.downloaded(), size * kMiB); },
            "libcurl, then file written");
    }
}

void measure_requests(Report& report, const Server& server) {
    HttpClient client(server.url());
    client.set_retry(1, 0);  // A failure shows at once.
    hpsClient card;
    require(card.open_config("127.0.0.1", server.port(), false) == 0, "the card is not there");
    const Json settings = {{"settings", {{{"if_name", "maceth0"}, {"group", "239.1.2.3"}, {"pid", 4711}}}}};
    const std::string body = settings.dump();
    const auto compare = [&](const std::string& name, int rounds, auto ours, auto floor,
                             const std::string& what, double budget) {
        const auto times = measure(Plan{.rounds = rounds}, {each(ours), each(floor)});
        report.add({name, "us", times[0].median() / 1e3, times[1].median() / 1e3, what, {{budget}}});
    };
    const auto parsed = [&](const std::string& path) {
        require(Json::parse(bare(server.url(path))).is_object(), "no JSON");
    };
    compare(
        "GET, 300 bytes of JSON", 500, [&] { require_success(client.get("/small")); },
        [&] { bare(server.url("/small")); }, "libcurl", 1.05);
    compare(
        "POST, 80 bytes of JSON", 500, [&] { require_success(client.post("/small", settings)); },
        [&] {
            bare(server.url("/small"), {"Content-Type: application/json", body});
        },
        "libcurl", 1.05);
    compare(
        "a card's interfaces, as records", 500,
        [&] {
            std::vector<inteface_info> interfaces;
            require(card.get_interface_info(interfaces) == 0 && interfaces.size() == 2, "no interfaces");
        },
        [&] { parsed("/api/v1.0/hps/info/networks"); }, "libcurl and one parse", 1.10);
    compare(
        "a reply of 1 MB, as JSON", 40,
        [&] {
            Json out;
            require(HpsHttpHelper::handle_json(client.get("/large"), out), "no JSON");
        },
        [&] { parsed("/large"); }, "libcurl and one parse", 1.10);
}

/// Sensors as a card reports them.
std::string large_report() {
    std::string text = R"({"data":[)";
    while (text.size() < 1'000'000)
        text += R"({"label":"FPGA FABRIC Digital Temperature #5","input":41,"max":95,"critical":100},)";
    text.back() = ']';
    return text + "}";
}

}  // namespace

int main(int argc, char** argv) {
    for (const char* name : {"http_proxy", "https_proxy", "all_proxy", "no_proxy", "HTTP_PROXY",
                             "HTTPS_PROXY", "ALL_PROXY", "NO_PROXY"})
        unsetenv(name);
    return kivbench::run(argc, argv, [](Report& report) {
        const std::string interfaces =
            R"({"interfaces":[{"if_name":"maceth0","ip_addr":"192.168.10.21","netmask":"255.255.255.0",)"
            R"("hw_addr":"02:00:5e:10:00:01","mtu":1500,"up":true},{"if_name":"maceth1","ip_addr":"192.168.10.22",)"
            R"("netmask":"255.255.255.0","hw_addr":"02:00:5e:10:00:02","mtu":1500,"up":false}],"temperature":41.5})";
        const std::string block(kBlock, 'k');
        const Server server({{"/small", {interfaces}},
                             {"/api/v1.0/hps/info/networks", {interfaces}},
                             {"/large", {large_report()}},
                             {"/64", {block, 64 * kBlocks}},
                             {"/256", {block, 256 * kBlocks}}});
        const Directory directory;
        report.about("requests to a card's server");
        measure_files(report, server, directory);
        measure_requests(report, server);
    });
}
