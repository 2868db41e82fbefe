// The server for browsers and Prometheus: what it says of cards that are well, fail, hang and return, and
// what it refuses.
#include <arpa/inet.h>
#include <kivos/sockets.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cmath>

#include "kivctl/Kivctl.h"
#include "support/DriverFault.h"
#include "support/Patterns.h"

namespace {

using std::chrono::milliseconds;
using namespace std::string_literals;

struct Page {
    int status = 0;  ///< 0: no answer.
    std::string head;
    std::string body;
};

/// A connection to the server, which sends what it is told.
class Caller {
  public:
    explicit Caller(uint16_t port, timeval limit = {20, 0}) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }

    void say(const std::string& text) const {
        [[maybe_unused]] const ssize_t sent = send(socket_.get(), text.data(), text.size(), kivos::kNoSignal);
    }

    /// All until the server ends the connection.
    Page answer() const {
        std::string text;
        char piece[4096];
        for (ssize_t count = 0; (count = recv(socket_.get(), piece, sizeof piece, 0)) > 0;)
            text.append(piece, static_cast<std::size_t>(count));
        const std::size_t end = text.find("\r\n\r\n");
        if (!text.starts_with("HTTP/1.1 ") || end == std::string::npos) return {};
        return {std::stoi(text.substr(9)), text.substr(0, end + 2), text.substr(end + 4)};
    }

  private:
    const kivos::Descriptor socket_ = kivos::stream_socket(AF_INET);
};

class Serve {
  public:
    uint16_t port() const { return port_; }

    Page ask(const std::string& request) const {
        const Caller caller(port_);
        caller.say(request);
        return caller.answer();
    }
    Page get(const std::string& path, const std::string& host = "localhost") const {
        return ask("GET " + path + " HTTP/1.1\r\nHost: " + host + "\r\n\r\n");
    }
    std::string metrics() const { return get("/metrics").body; }
    Json json(const std::string& path) const { return parsed(get(path).body); }
    Json cards() const { return json("/cards.json")["cards"]; }

    /// Until a scrape has all these lines, and none of the others.
    bool wait_for(const Lines& there, const Lines& gone = {}) const {
        return wait_until([&] {
            const auto in_scrape = [now = metrics()](const std::string& line) { return has(now, line); };
            return std::all_of(there.begin(), there.end(), in_scrape) &&
                   std::none_of(gone.begin(), gone.end(), in_scrape);
        });
    }
    /// A line that begins so; ' stands for a quotation mark.
    static bool has(const std::string& metrics, std::string line) {
        std::replace(line.begin(), line.end(), '\'', '"');
        return ("\n" + metrics).find("\n" + line) != std::string::npos;
    }

    Ended end() { return program_.end(SIGTERM, std::chrono::seconds(5)); }

  private:
    Program program_{{kKivctlProgram, "serve", "--listen", "127.0.0.1:0", "--json"}};
    const uint16_t port_ = parsed(program_.read_line())["port"];
};

/// No number when there is no such series.
double value_of(const std::string& metrics, const std::string& series) {
    const std::size_t at = ("\n" + metrics).find("\n" + series + " ");
    return at == std::string::npos ? NAN : std::stod(metrics.substr(at + series.size()));
}

/// How many series of a card have names that this matches.
std::size_t series_of(const std::string& metrics, const std::string& card, const std::string& name = "\\w+") {
    return matches_of(metrics, "\n" + name + "\\{card=\"" + card + "\"").size();
}

std::vector<kivsim::CardSettings> cards(unsigned count) {
    std::vector<kivsim::CardSettings> cards;
    for (unsigned id = 1; id <= count; ++id)
        cards.push_back(kivsim::believable_card(static_cast<uint8_t>(id)));
    return cards;
}

}  // namespace

TEST_F(Kivctl, ServeTellsPrometheusWhatTheCardsTell) {
    RunningSimulator simulator(cards(2));
    simulator.control("PATCH", "", R"({"links": [true, false], "ptp_state": 3, "pci_link": [8, 3],
        "answers": {"/hps/firmware/status": "wri\"t\\i\nng"},
        "hwmon": [{"label": "QSFP1 Case Temperature", "input": -4, "max": 70, "critical": 80},
                  {"label": "QSFP2 Case Temperature", "input": "hot", "max": 70, "critical": 80}]})");
    Serve serve;
    const Lines lines{
        R"(kiv_card_up{card="1"} 1)",
        R"(kiv_port_up{card="1",port="0"} 1)",
        R"(kiv_port_up{card="1",port="1"} 0)",
        R"(kiv_port_load_ratio{card="1",port="0",path="a"} 0.425)",
        R"(kiv_temperature_celsius{card="1",sensor="QSFP1 case"} -4)",
        R"(kiv_temperature_max_celsius{card="2",sensor="FPGA fabric"} 95)",
        R"(kiv_temperature_critical_celsius{card="2",sensor="FPGA fabric"} 100)",
        R"(kiv_pci_link_lanes{card="1"} 8)",
        R"(kiv_pci_link_generation{card="1"} 3)",
        R"(kiv_ptp_locking_status{card="1"} 4)",
        R"(kiv_ptp_grandmaster_info{card="1",identity="0x001DC1FFFE123456"} 1)",
        R"(kiv_flash_busy{card="1"} 1)",
        R"(kiv_flash_state_info{card="1",state="wri\"t\\i\\nng"} 1)",
        R"(kiv_flash_slot_info{card="1",slot="1",image="10ee8a7a77e3dde67b062e99efe8ea07",next_boot="no"} 1)",
        R"(kiv_stream_resources{card="1",direction="tx",resource="2"} 16)",
        R"(kiv_source_up{card="2",source="server"} 1)"};
    enum Since { kNow, kZero };
    const std::tuple<const char*, Since, double, double> ranges[] = {
        {R"(kiv_ptp_time_seconds{card="2"})", kNow, 37 - 15, 37 + 1},
        {R"(kiv_ptp_offset_seconds{card="2"})", kZero, -1, 1},
        {R"(kiv_source_last_success_timestamp_seconds{card="2",source="server"})", kNow, -15, 0},
        {R"(kiv_source_age_seconds{card="2",source="driver"})", kZero, 1e-6, 15},
        {R"(kiv_source_sample_duration_seconds{card="2",source="server"})", kZero, 1e-6, 15},
        {R"(kiv_scan_duration_seconds)", kZero, 1e-6, 15}};
    Page page;
    EXPECT_TRUE(wait_until([&] {
        page = serve.get("/metrics");
        for (const auto& range : ranges)
            if (std::isnan(value_of(page.body, std::get<0>(range)))) return false;
        return std::all_of(lines.begin(), lines.end(),
                           [&](const std::string& line) { return Serve::has(page.body, line + "\n"); });
    })) << page.body;
    EXPECT_TRUE(has(page.head, "\r\nContent-Type: text/plain; version=0.0.4"));
    for (const char* const none :
         {R"(kiv_temperature_celsius{card="1",sensor="QSFP2)",
          R"(kiv_temperature_celsius{card="1",sensor="FPGA)", R"(kiv_board_power{card="1")"})
        EXPECT_FALSE(Serve::has(page.body, none)) << "not reported, yet there is " << none;
    const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
    for (const auto& [series, since, least, most] : ranges) {
        const double value = value_of(page.body, series) - (since == kNow ? now.count() : 0);
        EXPECT_TRUE(value >= least && value <= most) << series << " " << value;
    }
    EXPECT_LT(series_of(page.body, "2"), 150u);
    EXPECT_GT(series_of(page.body, "2"), 60u);

    const Json json = serve.cards()[0];
    EXPECT_EQ(json["ports"][1]["link"], "down");
    EXPECT_EQ(json["flash"]["state"], "busy");
    EXPECT_EQ(json["sensors"][6]["state"], "not reported");
    EXPECT_FALSE(json["ages"]["ptp"]["stale"]);
    EXPECT_TRUE(wait_until([&] {
        const Json series = serve.json("/history.json?card=2")["series"];
        return series.size() == 12 && !series[0]["points"].empty() && series[0]["points"].back() == 58 &&
               series[7]["points"].back() == 42.5;
    }));
    EXPECT_EQ(serve.end().status, 0);
}

TEST_F(Kivctl, ServeDropsWhatFailsAndTakesUpWhatReturns) {
    auto simulator = std::make_unique<RunningSimulator>();
    const std::string socket = simulator->socket_path();
    Serve serve;
    EXPECT_TRUE(serve.wait_for({"kiv_flash_slot_info{card='1'", "kiv_card_up{card='2'} 1"}));

    simulator->control("POST", "/http_faults", R"({"path": "/hps/", "cut": "before"})", 1);
    EXPECT_TRUE(serve.wait_for({"kiv_source_up{card='1',source='server'} 0"}));
    EXPECT_TRUE(serve.wait_for(
        {"kiv_port_up{card='1',port='0'} 1", "kiv_temperature_celsius{card='2',sensor='FPGA fabric'} 58"}));
    const std::string metrics = serve.metrics();
    const char* const kGone = "kiv_(temperature_celsius|flash|ptp_locking|ptp_offset|board_power)\\w*";
    EXPECT_EQ(series_of(metrics, "1", kGone), 0u) << metrics;
    EXPECT_GE(value_of(metrics, R"(kiv_errors_total{card="1",source="server",layer="server"})"), 1);
    const Json failing = serve.cards()[0];
    EXPECT_EQ(failing["sensors"][0]["input"], 58) << "the last good value stays";
    EXPECT_TRUE(failing["ages"]["sensors"]["stale"] && failing["ages"]["flash"]["stale"]);
    EXPECT_TRUE(has(text_of(failing["sources"]["server"]["reason"]), "hung up"));
    EXPECT_FALSE(failing["ages"]["ports"]["stale"]);
    simulator->control("DELETE", "/http_faults", "", 1);
    EXPECT_TRUE(serve.wait_for({"kiv_flash_slot_info{card='1'"})) << serve.metrics();

    simulator->control("PATCH", "", R"({"removed": true})", 2);
    EXPECT_TRUE(serve.wait_for({"kiv_card_up{card='2'} 0"}, {"kiv_temperature_celsius{card='2'"}));
    EXPECT_EQ(series_of(serve.metrics(), "2", "kiv_(port|stream|ptp|pci|temp|flash)\\w*"), 0u);
    EXPECT_EQ(serve.cards()[1]["state"], "lost");
    simulator->control("PATCH", "", R"({"removed": false, "links": [false, true]})", 2);
    EXPECT_TRUE(serve.wait_for({"kiv_port_up{card='2',port='0'} 0"})) << "another connection is needed";

    (*simulator).stop();
    EXPECT_TRUE(serve.wait_for({"kiv_source_up{source='driver'} 0", "kiv_card_up{card='1'} 0"}));
    EXPECT_GE(value_of(serve.metrics(), R"(kiv_errors_total{source="driver",layer="driver"})"), 1);
    const kivsim::Simulator again(cards(3), socket, "");
    EXPECT_TRUE(serve.wait_for({"kiv_port_up{card='3',port='0'} 1"})) << "a card that is new";
    EXPECT_TRUE(serve.wait_for({"kiv_port_up{card='1',port='0'} 1"}));
}

TEST_F(Kivctl, ServeStartsWithoutADriver) {
    const TemporaryDirectory directory;
    setenv("KIVSIM_SOCKET", (directory / "socket").c_str(), 1);
    Serve serve;
    EXPECT_TRUE(serve.wait_for({"kiv_source_up{source='driver'} 0"}));
    EXPECT_EQ(serve.cards(), Json::array());
    EXPECT_EQ(serve.get("/history.json?card=1").status, 404);
}

TEST_F(Kivctl, ServeCallsNothingLostThatItHasNotAsked) {
    std::vector<kivsim::CardSettings> slow = cards(1);
    slow[0].driver_faults = {fault(wire::kReadPci64).nth(1).delay_ms(1200)};
    slow[0].http_faults = {late_answer("/hps/firmware/status", 1200)};
    const RunningSimulator simulator(slow);
    const Serve serve;
    EXPECT_TRUE(wait_until([&] {
        const Json found = serve.cards();
        if (found.empty()) return false;
        EXPECT_EQ(found[0]["state"], "ok");
        EXPECT_EQ(found[0]["sources"]["server"]["ok"], !found[0]["sensors"].is_null())
            << "what was not asked for yet is no failure";
        return !found[0]["flash"]["state"].is_null();
    }));
}

TEST_F(Kivctl, ServeLetsNothingThatHangsDelayAScrapeOrHideAnother) {
    RunningSimulator simulator(cards(3));
    Serve serve;
    for (const char* const card : {"1", "2", "3"})
        EXPECT_TRUE(serve.wait_for({"kiv_temperature_celsius{card='"s + card}));
    simulator.control("POST", "/driver_faults", R"({"selector": 6, "delay_ms": 600000})", 1);
    simulator.control("POST", "/http_faults", R"({"path": "/hps/", "delay_ms": 600000})", 2);
    // The listing.
    simulator.control("POST", "/driver_faults", R"({"selector": 26, "delay_ms": 600000})", 3);
    const auto scrape = [&](milliseconds limit) {
        const Stopwatch watch;
        const std::string metrics = serve.metrics();
        EXPECT_LT(watch.elapsed(), limit);
        // The driver of card 1 hangs, and the server of card 2.
        for (const char* const line : {"kiv_temperature_celsius{card='3',sensor='FPGA fabric'} 58",
                                       "kiv_port_up{card='3',port='0'} 1", "kiv_port_up{card='2',port='0'} 1",
                                       "kiv_temperature_celsius{card='1',sensor='FPGA fabric'} 58"})
            EXPECT_TRUE(Serve::has(metrics, line)) << line;
        return metrics;
    };
    EXPECT_TRUE(wait_until([&] {
        const std::string metrics = scrape(milliseconds(1500 + 500));
        return series_of(metrics, "1", "kiv_port_up") + series_of(metrics, "2", "kiv_temperature_celsius") ==
                   0 &&
               Serve::has(metrics, "kiv_card_up{card='1'} 0") &&
               Serve::has(metrics, "kiv_source_up{source='driver'} 0");
    }));
    EXPECT_TRUE(wait_until([&] {
        const Json found = serve.cards();
        return !found[0]["sources"]["driver"]["reason"].is_null() &&
               !found[1]["sources"]["server"]["reason"].is_null();
    }));
    for (int i = 0; i < 3; ++i)
        scrape(milliseconds(1000));  // It is known that they do not answer.
}

TEST_F(Kivctl, ServeAnswersQuestionsOfThisMachineAlone) {
    const RunningSimulator simulator(cards(1));
    Serve serve;
    const std::string port = ":" + std::to_string(serve.port());
    for (const std::string& host :
         {"localhost" + port, "127.0.0.1" + port, "127.0.0.1"s, "[::1]:8080"s, "[0:0::1]"s})
        EXPECT_EQ(serve.get("/", host).status, 200) << host;
    for (const char* const host :
         {"cards.example.net", "127.0.0.1.example.net", "localhost.example.net:80", "127.evil", ""})
        EXPECT_EQ(serve.get("/cards.json", host).status, 421) << host;

    const Page page = serve.get("/");
    EXPECT_TRUE(has(page.body, "<title>"));
    for (const char* const line :
         {"X-Content-Type-Options: nosniff", "Content-Security-Policy: default-src 'none'",
          "Cache-Control: no-store", "Content-Type: text/html"})
        EXPECT_TRUE(has(page.head, line)) << line;
    const Page head = serve.ask("HEAD / HTTP/1.1\r\nHost: localhost\r\n\r\n");
    EXPECT_EQ(std::tuple(head.status, head.body), std::tuple(200, ""));
    EXPECT_EQ(serve.get("/nothing").status, 404);
    for (const char* const wrong : {"/history.json", "/history.json?card=0x1"})
        EXPECT_EQ(serve.get(wrong).status, 400) << wrong;
    for (const char* const method : {"POST", "PUT", "PATCH", "DELETE", "OPTIONS"}) {
        const Page refused = serve.ask(
            std::string(method) + " /cards.json HTTP/1.1\r\nHost: localhost\r\nContent-Length: 3\r\n\r\nabc");
        EXPECT_EQ(refused.status, 405) << method;
        EXPECT_TRUE(has(refused.head, "Allow: GET, HEAD"));
    }
    for (const CardRequest& request : simulator.requests())
        EXPECT_EQ(request.method, "GET") << "nothing is written to a card";
}

TEST_F(Kivctl, ServeBoundsRequestsAndConnections) {
    const RunningSimulator simulator(cards(1));
    Serve serve;
    const std::string start = "GET / HTTP/1.1\r\nHost: localhost\r\n";
    std::string headers;
    for (int i = 0; i < 100; ++i)
        headers += "X-Header: " + std::string(1000, 'a') + "\r\n";
    const std::string path(100'000, 'a');
    for (const std::string& request :
         {start + headers + "\r\n", start + "X-Long: " + path + "\r\n\r\n",
          "GET /" + path + " HTTP/1.1\r\n\r\n", path, "\r\n\r\n"s, "GET"s + '\0' + "\r\n\r\n"}) {
        const Page page = serve.ask(request);
        EXPECT_TRUE(page.status == 0 || page.status >= 400) << page.status << " " << request.substr(0, 60);
    }
    const Page page = serve.get("/");
    EXPECT_EQ(page.status, 200);
    std::string ranges = "0-";
    for (int i = 0; i < 2000; ++i)
        ranges += ",0-";
    EXPECT_EQ(serve.ask(start + "Range: bytes=" + ranges + "\r\n\r\n").body, page.body) << "many times";

    std::vector<std::unique_ptr<Caller>> silent;
    int refused = 0;
    while (refused != 503 && silent.size() < 80) {
        silent.push_back(std::make_unique<Caller>(serve.port(), timeval{0, 300'000}));
        if (silent.size() > 64) refused = silent.back()->answer().status;
    }
    EXPECT_EQ(refused, 503) << silent.size() << " connections";
    const Stopwatch watch;
    EXPECT_TRUE(wait_until([&] { return serve.get("/").status == 200; })) << "those who say nothing stay";
    EXPECT_GT(watch.elapsed(), milliseconds(1000)) << "they had no time to say something";
    silent.clear();
    EXPECT_TRUE(wait_until([&] { return serve.get("/metrics").status == 200; }));
}

TEST_F(Kivctl, ServeSaysWhyItCannotListen) {
    const RunningSimulator simulator(cards(1));
    Serve serve;
    const std::string taken = "127.0.0.1:" + std::to_string(serve.port());
    expect({"serve", "--listen", taken}, 1, "cannot listen at " + taken + ": Address already in use");
    expect({"serve", "--listen", "192.0.2.1:1"}, 1, "cannot listen at 192.0.2.1:1: Cannot assign");
    for (const char* const wrong :
         {"9644", "localhost:9644", "127.0.0.1", "127.0.0.1:65536", "::1:5", "[::1]", ""})
        expect({"serve", "--listen", wrong}, 2, "is no numeric address and port");
}

TEST_F(Kivctl, ServeAsksACardNoMoreForManyBrowsers) {
    std::vector<kivsim::CardSettings> two = cards(2);
    two[0].driver_faults = {fault(wire::kGetPciLinkInfo).delay_ms(30)};  // In the midst of a sample.
    const RunningSimulator simulator(two);
    Serve serve;
    EXPECT_TRUE(serve.wait_for({"kiv_temperature_celsius{card='2'", "kiv_stream_resources{card='1'"}));
    const auto asked = [&] {
        std::vector<CardRequest> requests = simulator.requests();
        return std::erase_if(requests,
                             [](const auto& each) { return each.path.ends_with("/hps/hwmon/info"); });
    };
    const auto before = asked();
    const Stopwatch watch;
    std::atomic<int> answers{0}, holes{0};
    const char* const kPaths[] = {"/metrics", "/history.json?card=1", "/cards.json"};
    Threads(8, [&](int i) {
        while (watch.elapsed() < milliseconds(2500)) {
            const Page page = serve.get(kPaths[i % 3]);
            if (page.status == 200) ++answers;
            if (i % 3 == 0 && !Serve::has(page.body, "kiv_port_up{card='1'")) ++holes;
        }
    }).join();
    const auto seconds = watch.elapsed().count() / 1000 + 1;
    EXPECT_LE(asked() - before, 2 * (seconds + 1)) << answers << " answers";
    EXPECT_GE(asked() - before, 4) << "the samples are renewed";
    EXPECT_GT(answers, 40);
    EXPECT_EQ(holes, 0) << "scrapes without a card that is well";
}

TEST_F(Kivctl, ServeScrapesSixtyFourCardsInTheTimeOfTheSlowest) {
    constexpr int kCards = 64;
    constexpr milliseconds kSlow{300};
    std::vector<kivsim::CardSettings> many = cards(kCards);
    for (kivsim::CardSettings& card : many)
        card.http_faults = {late_answer("/hps/hwmon/info", static_cast<uint32_t>(kSlow.count()))};
    const RunningSimulator simulator(many);
    Serve serve;
    const auto all_there = [](const std::string& metrics) {
        bool all = true;
        for (int id = 1; id <= kCards; ++id)
            all = all && Serve::has(metrics, "kiv_temperature_celsius{card='" + std::to_string(id) + "'");
        return all;
    };
    EXPECT_TRUE(wait_until([&] { return all_there(serve.metrics()); }));
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    constexpr milliseconds kLimit = std::chrono::seconds(20);
#else
    constexpr milliseconds kLimit = kSlow * 13 / 10 + milliseconds(5) * kCards;
#endif
    // More than once: the machine may be busy with other things.
    EXPECT_TRUE(wait_until([&] {
        std::this_thread::sleep_for(milliseconds(1500));  // No sample is fresh any more.
        const Stopwatch watch;
        return all_there(serve.metrics()) && watch.elapsed() <= kLimit;
    }));
}
