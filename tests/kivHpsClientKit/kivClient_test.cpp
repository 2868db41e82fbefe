#include <kiv/kivClient.h>

#include <sys/resource.h>
#include <sys/stat.h>

#include <new>

#include "kivHpsClientKit/HttpTexts.h"
#include "kivHpsClientKit/LibcurlOptions.h"
#include "support/CapturedLog.h"
#include "support/TemporaryDirectory.h"

using namespace std::chrono_literals;
using namespace std::string_literals;

namespace {

std::atomic<bool> g_no_handles{false};  ///< libcurl gives none.
std::atomic<long> g_options[500];       ///< The last value of each that libcurl was given, by its number.
thread_local bool t_no_arrays = false;  ///< This thread gets no memory for an array: a file stream needs one.

}  // namespace

// Not inlined: else the compiler sees a malloc() meet a delete.
[[gnu::noinline]] void* operator new[](std::size_t size) {
    void* const memory = t_no_arrays ? nullptr : std::malloc(size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}
[[gnu::noinline]] void operator delete[](void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}

extern "C" CURL* curl_easy_init() {
    return g_no_handles ? nullptr : original<CURL*()>("curl_easy_init")();
}

CURLcode on_option(SetOption real, CURL* handle, unsigned option, void* value) {
    if (option < std::size(g_options))
        g_options[option] = static_cast<long>(reinterpret_cast<intptr_t>(value));
    return real(handle, option, value);
}

TEST(HttpClient, EachOperationSendsItsRequestToTheByte) {
    const LoopbackServer server({LoopbackServer::http(200, "{}")});
    HttpClient client(server.url() + "/api/v1.0");
    const std::string json = "application/json";
    const Json value = {{"z", "Zürich \x01 /"}, {"a", {1, -2.5, true, nullptr}}, {"m", Json::object()}};
    const std::string body = R"({"z":"Zürich \u0001 /","a":[1,-2.5,true,null],"m":{}})";
    const std::pair<std::function<HttpResult()>, std::string> cases[] = {
        {[&] { return client.get("tail?all=1"); }, wanted(server, "GET /api/v1.0tail?all=1")},
        {[&] { return client.post("/p", value); }, wanted(server, "POST /api/v1.0/p", json, body)},
        {[&] { return client.patch("/", value); }, wanted(server, "PATCH /api/v1.0/", json, body)},
        {[&] { return client.del("/d", value); }, wanted(server, "DELETE /api/v1.0/d", json, body)},
        {[&] { return client.post("/n", {}); }, wanted(server, "POST /api/v1.0/n", json, "null")},
    };
    for (const auto& [send, request] : cases) {
        EXPECT_EQ(text(send()), "success 200 [{}]");
        EXPECT_EQ(server.requests().back(), request);
    }
    EXPECT_THROW(client.post("/", "Z\xfcrich"), Json::type_error);
    EXPECT_EQ(server.requests().size(), std::size(cases));
}

TEST(HttpClient, UploadsAFileByteForByteUnderItsLastName) {
    const TemporaryDirectory directory;
    const LoopbackServer server({LoopbackServer::http(201, "")});
    HttpClient client(server.url());
    const std::string boundary = "----WebKitFormBoundary7MA4YWxkTrZu0gW", name = "two words, a \" and ü";
    std::string bytes = "\0\r\n--\0"s;
    for (int i = 0; i < 100'000; ++i)
        bytes += static_cast<char>(i * 7 + i / 256);
    write_file(directory / name, bytes);
    EXPECT_EQ(text(client.upload("/up", directory / name)), "success 201 []");
    const std::string type = "multipart/form-data; boundary=" + boundary;
    const std::string head = "Content-Disposition: form-data; name=\"file\"; filename=\"" + name +
                             "\"\r\nContent-Type: application/octet-stream\r\n\r\n";
    const std::string form = "--" + boundary + "\r\n" + head + bytes + "\r\n--" + boundary + "--\r\n";
    EXPECT_TRUE(server.requests().back() == wanted(server, "POST /up", type, form));
    CapturedLog log;
    const std::string pipe = directory / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    // The last can be opened, but its first page is never mapped.
    for (const std::string& path :
         {directory / "missing", directory / ".", ""s, pipe, "/dev/null"s, "/proc/self/mem"s}) {
        if (path.starts_with("/proc") && !std::filesystem::exists(path))
            continue;  // Not every system has it.
        EXPECT_EQ(text(client.upload("/up", path)), "failure 0 [] file open error");
        EXPECT_EQ(log.take(), Lines{"Could not open file=" + path});
    }
    EXPECT_EQ(server.requests().size(), 1u);
}

TEST(HttpClient, AnyAnswerEndsTheRequestAndGoodOnesAreWrittenByDownloads) {
    const Lines not_json{"invalid json response"};
    // The longest good body first: what a download replaces.
    const std::tuple<LoopbackServer::Reply, std::string, Lines> cases[] = {
        {LoopbackServer::http(300, "OK"), "failure 300 [OK] http status 300", {}},
        {{"HTTP/1.1 302 Found\r\nLocation: /other\r\n\r\n", {}}, "failure 302 [] http status 302", {}},
        {LoopbackServer::http(404, "{\"no\":1}"), "failure 404 [{\"no\":1}] http status 404", {}},
        {LoopbackServer::http(503, ""), "failure 503 [] http status 503", {}},
        {LoopbackServer::http(200, "[1, 2, 3]"), "success 200 [[1, 2, 3]]", {}},
        {LoopbackServer::http(200, "{} // why"), "success 200 [{} // why]", not_json},
        {LoopbackServer::http(299, "\0\xff\r\n"s), "success 299 [\0\xff\r\n]"s, not_json},
        {LoopbackServer::http(204, ""), "success 204 []", {}},
    };
    CapturedLog log;
    const TemporaryDirectory directory;
    const std::string path = directory / "file";
    for (const auto& [reply, result, lines] : cases) {
        const LoopbackServer server({reply});
        HttpClient client(server.url());
        const HttpResult download = client.download("/", path);
        EXPECT_EQ(text(download), result);
        EXPECT_EQ(log.take(), lines) << result;
        EXPECT_EQ(server.requests(), Lines{wanted(server, "GET /")});
        EXPECT_EQ(std::filesystem::exists(path), download.success);
        if (!download.success) continue;
        EXPECT_EQ(read_file(path), download.body);
        const std::string failed = "failure" + result.substr(7);
        EXPECT_EQ(text(client.download("/", directory / "no/directory")), failed + " file write error");
        EXPECT_EQ(log.take(), lines) << result;
        t_no_arrays = true;
        EXPECT_EQ(text(client.download("/", path)), failed + " exception on file write");
        t_no_arrays = false;
        EXPECT_EQ(log.take(), lines) << result;
    }
}

TEST(HttpClient, WithoutAnAnswerTheRequestIsRepeatedAfterAPauseAndTheLastPausesToo) {
    const LoopbackServer::Reply cut_short{"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n{\"lost\"", {}};
    const LoopbackServer hangs_up({kHangsUp}), cuts_short({cut_short});
    const std::pair<std::string, CURLcode> cases[] = {
        {"http://127.0.0.1:1", CURLE_COULDNT_CONNECT},
        {hangs_up.url(), CURLE_GOT_NOTHING},
        {cuts_short.url(), CURLE_PARTIAL_FILE},
    };
    CapturedLog log;
    for (const auto& [base_url, failure] : cases) {
        HttpClient client(base_url);
        for (const int attempts : {4, 0, -1}) {
            client.set_retry(attempts, 30);
            const Stopwatch watch;
            EXPECT_EQ(text(client.post("/", {})), "failure 0 [] retry over");
            EXPECT_GE(watch.elapsed(), attempts * 30ms);
            EXPECT_EQ(log.take(), failed_attempts(failure, attempts)) << base_url;
        }
    }
    EXPECT_EQ(hangs_up.requests().size() + cuts_short.requests().size(), 8u);

    const LoopbackServer server({cut_short, kHangsUp, LoopbackServer::http(200, "{\"kept\":1}")});
    HttpClient client(server.url());
    g_no_handles = true;
    const Stopwatch by_default;
    EXPECT_EQ(text(client.get("/")), "failure 0 [] retry over");
    EXPECT_GE(by_default.elapsed(), 300ms);
    EXPECT_EQ(log.take(), Lines(3, "curl init failed"));
    g_no_handles = false;
    EXPECT_EQ(text(client.post("/", {{"a", 1}})), "success 200 [{\"kept\":1}]");
    EXPECT_EQ(log.take(), failed_attempts(CURLE_PARTIAL_FILE, 1, failed_attempts(CURLE_GOT_NOTHING, 1)));
    EXPECT_EQ(server.requests(), Lines(3, wanted(server, "POST /", "application/json", R"({"a":1})")));
}

TEST(HttpClient, GivesEachOperationItsTimeLimitOrNoneForWhatIsNoLimit) {
    const TemporaryDirectory directory;
    const std::string file = directory / "file";
    write_file(file, "up");
    const LoopbackServer server({LoopbackServer::http(200, "{}")});
    HttpClient client(server.url());
    const auto limits = [&] {
        std::vector<long> all;
        for (const auto& send : {std::function([&] { return client.get("/"); }),
                                 {[&] { return client.post("/", {}); }},
                                 {[&] { return client.patch("/", {}); }},
                                 {[&] { return client.del("/", {}); }},
                                 {[&] { return client.upload("/", file); }},
                                 {[&] { return client.download("/", file); }}}) {
            EXPECT_EQ(text(send()), "success 200 [{}]");
            all.push_back(g_options[CURLOPT_TIMEOUT]);
        }
        return all;
    };
    EXPECT_EQ(limits(), (std::vector<long>{2, 2, 2, 2, 10, 60}));
    for (const auto& [option, value] : {std::pair(CURLOPT_TCP_KEEPALIVE, 1),
                                        {CURLOPT_TCP_KEEPIDLE, 60},
                                        {CURLOPT_TCP_KEEPINTVL, 30},
                                        {CURLOPT_NOSIGNAL, 1},
                                        {CURLOPT_SSL_VERIFYPEER, 1},
                                        {CURLOPT_SSL_VERIFYHOST, 2}})
        EXPECT_EQ(g_options[option], value) << option;
    const std::pair<int, long> cases[] = {{7, 7},  {2'147'483, 2'147'483}, {2'147'484, 0},
                                          {-1, 0}, {2'147'483'647, 0},     {-2'147'483'647 - 1, 0}};
    for (const auto& [seconds, limit] : cases) {
        client.set_timeout(seconds);
        EXPECT_EQ(limits(), (std::vector<long>{limit, limit, limit, limit, 10, 60})) << seconds;
    }
}

TEST(HttpClient, LeavesTheBrokenPipeSignalAloneAlsoWhenRequestsOverlap) {
    std::signal(SIGPIPE, SIG_DFL);
    // The first request begins before the second and ends before it.
    std::atomic<bool> first_over{false}, in_turn{true};
    const LoopbackServer::Reply good = LoopbackServer::http(200, "{}");
    const LoopbackServer later({{good.bytes, 0ms, [&] {
                                     if (!wait_until([&] { return first_over.load(); })) in_turn = false;
                                 }}});
    const LoopbackServer first({{good.bytes, 0ms, [&] {
                                     if (!wait_until([&] { return later.requests().size() == 1; }))
                                         in_turn = false;
                                 }}});
    auto one = std::async(std::launch::async, [&] {
        const std::string result = text(HttpClient(first.url()).get("/"));
        first_over = true;
        return result;
    });
    ASSERT_TRUE(wait_until([&] { return first.requests().size() == 1; }));
    EXPECT_EQ(text(HttpClient(later.url()).get("/")), "success 200 [{}]");
    EXPECT_EQ(one.get(), "success 200 [{}]");
    EXPECT_TRUE(in_turn);
    EXPECT_EQ(std::signal(SIGPIPE, SIG_DFL), SIG_DFL);
}

TEST(HttpClient, ADownloadThatCannotBeWrittenToItsEndIsNoSuccess) {
    const TemporaryDirectory directory;
    const std::string small = "[1]", large(1'000'000, '7');
    const LoopbackServer server({LoopbackServer::http(200, small), LoopbackServer::http(200, large)});
    HttpClient client(server.url());
    // The small one is held back until the file is closed.
    EXPECT_EQ(text(client.download("/", "/dev/full")), "failure 200 [[1]] exception on file write");
    EXPECT_EQ(text(client.download("/", "/dev/full")), "failure 200 [" + large + "] exception on file write");
    rlimit usual{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &usual), 0);
    const rlimit little{4096, usual.rlim_max};
    std::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &little), 0);
    const std::string result = text(client.download("/", directory / "file"));
    setrlimit(RLIMIT_FSIZE, &usual);
    std::signal(SIGXFSZ, SIG_DFL);
    EXPECT_EQ(result, "failure 200 [" + large + "] exception on file write");
}

TEST(HttpClient, AReplyOfMoreThan64MebibytesIsNoAnswerExceptToADownloadThatSucceeds) {
    const TemporaryDirectory directory;
    const std::string most(64 << 20, 'x');
    using Server = LoopbackServer;
    const auto good = Server::http(200, most + "x"), bad = Server::http(500, most + "x");
    const Server server({Server::http(200, most), good, good, bad});
    HttpClient client(server.url());
    client.set_timeout(60);
    client.set_retry(1, 0);
    CapturedLog log;
    const HttpResult whole = client.get("/");
    EXPECT_TRUE(whole.success && whole.body == most);
    EXPECT_EQ(log.take(), Lines{"invalid json response"});
    EXPECT_EQ(text(client.post("/", {})), "failure 0 [] retry over");
    EXPECT_EQ(log.take(), failed_attempts(CURLE_WRITE_ERROR, 1));
    const HttpResult file = client.download("/", directory / "file");
    EXPECT_TRUE(file.success && file.body == most + "x");
    EXPECT_EQ(std::filesystem::file_size(directory / "file"), most.size() + 1);
    EXPECT_EQ(text(client.download("/", directory / "none")), "failure 0 [] retry over");
}

TEST(HttpClient, AHeadOrTrailersOfMoreThanAMebibyteAreNoAnswer) {
    const auto lines = [](std::size_t bytes) {
        std::string all;
        while (all.size() < bytes)
            all += "X-Line: " + std::string(1014, 'x') + "\r\n";
        return all;
    };
    const auto trailed = [](const std::string& trailers) {
        return LoopbackServer::Reply{"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\n{}\r\n0\r\n" +
                                     trailers + "\r\n"};
    };
    const std::string most = lines((1 << 20) - 2048), more = lines(1 << 20);
    const LoopbackServer server({trailed(most),
                                 trailed(more),
                                 trailed(more),
                                 trailed(more),
                                 {"HTTP/1.1 200 OK\r\n" + more + "Content-Length: 2\r\n\r\n{}"}});
    HttpClient client(server.url());
    EXPECT_EQ(text(client.get("/")), "success 200 [{}]");
    CapturedLog log;
    EXPECT_EQ(text(client.get("/")), "failure 0 [] retry over");
    EXPECT_EQ(log.take(), failed_attempts(CURLE_WRITE_ERROR, 3));
    EXPECT_EQ(text(client.get("/")), "failure 0 [] retry over");
}
