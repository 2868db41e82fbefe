// The background threads of a client, at the management server of a virtual card.

#include <optional>

#include "kivHpsClientKit/CardServer.h"
#include "kivHpsClientKit/ThreadManagerClientAlive.h"
#include "kivHpsClientKit/ThreadManagerClientPolling.h"
#include "support/ThisProcess.h"

namespace {

using namespace std::chrono_literals;

std::string digest(hpsClient& client) {
    hps_ptp_sm sm;
    sm.currentUtcOffset = 99;
    const int32_t result = client.get_hps_ptp_sm_backgroud(sm);
    const auto& [offset, jump, next_jump, next_jam, previous_jam, previous, dst, leap, drop, locked, utc] =
        sm;
    return words(result, offset, jump, next_jump, next_jam, previous_jam, previous, dst, leap, drop, locked,
                 utc);
}
const std::string kNoDigest = "-1 0 0 0 0 0 0 0 0 0 0 99 ";

struct hpsThreads : testing::Test {
    /// Opens without threads, so that the log's reset is over before they run; then starts them.
    void start() {
        ASSERT_EQ(card.open(client.emplace(), false), 0);
        log.again();
        client->setting_thread();
    }
    CapturedLog log;
    CardServer card;
    std::optional<hpsClient> client;
    const std::string alive = "/alive/" + std::to_string(getpid());
};

TEST_F(hpsThreads, KeepTheRegistrationAndReadThePtpDocumentsOnce) {
    const Stopwatch watch;
    ASSERT_EQ(card.open(client.emplace(), true), 0);
    EXPECT_LT(watch.elapsed(), 1s) << "waits for the first documents only";
    std::string methods = "POST ";
    for (const auto due : {0s, 2s, 4s}) {
        methods += "PATCH ";
        ASSERT_TRUE(wait_until([&] { return card.methods(alive) == methods; }));
        EXPECT_TRUE(watch.elapsed() >= due && watch.elapsed() < due + 1s) << watch.elapsed().count();
    }
    std::this_thread::sleep_for(5s - watch.elapsed());
    EXPECT_EQ(card.methods("/alive/"), methods);
    EXPECT_EQ(card.methods("/hps/ptp/master") + card.methods("/hps/ptp/management"), "GET GET ");
    EXPECT_EQ(digest(*client), "0 32400 0 0 1767193237 1767106837 32400 0 0 1 1 37 ");
    const Stopwatch end;
    client.reset();
    EXPECT_LT(end.elapsed(), 500ms);
}

TEST_F(hpsThreads, TheDigestTakesTheKeysThatAreThere) {
    // clang-format off
    const std::string cases[][3] = {
        {R"({"currentUtcOffset":-37})", R"({"currentLocalOffset":-1,"jumpSeconds":-2,"timeOfNextJump":18446744073709551613,"timeOfNextJam":4,
            "timeOfPreviousJam":5,"previousJamLocalOffset":-6,"daylightSaving":{"dst_at_next_discontinuity":-1},"leapSecondJump":2,
            "timeAddressFlags":{"drop_frame":0},"masterLockingStatus":3})", "0 -1 -2 18446744073709551613 4 5 -6 1 1 0 0 -37 "},
        {R"({"currentUtcOffset":37.9})", R"({"jumpSeconds":-2.9,"timeOfNextJam":4.9,"leapSecondJump":true,"timeAddressFlags":{"drop_frame":1},
            "daylightSaving":{"curr_dst":1},"masterLockingStatus":4})", "0 0 -2 0 4 0 0 0 1 1 1 37 "},
        {R"({"currentUtcOffset":1e30})", R"({"jumpSeconds":-1e30,"timeOfNextJam":1e30,"leapSecondJump":0.5,"timeAddressFlags":{"drop_frame":4294967296},
            "daylightSaving":{"dst_at_next_discontinuity":false}})", "0 0 -2147483648 0 18446744073709551615 0 0 0 1 1 0 2147483647 "},
        {"{}", R"({"daylightSaving":1,"timeAddressFlags":["drop_frame"]})", "0 0 0 0 0 0 0 0 0 0 0 0 "},
        {"[37]", R"("none")", "0 0 0 0 0 0 0 0 0 0 0 0 "},
    };
    // clang-format on
    for (const auto& [master, management, wanted] : cases) {
        const Json documents{{"ptp_master", parsed(master)}, {"ptp_management", parsed(management)}};
        EXPECT_EQ(card.control("PATCH", "", documents), "200 \"ok\"");
        start();
        EXPECT_EQ(digest(*client), wanted);
    }
    EXPECT_EQ(log.take(), Lines{});
}

/// What the JSON library itself says of such a value in a number's place.
std::string no_number(const Json& value) try {
    return std::to_string(value.get<uint64_t>());
} catch (const Json::type_error& error) {
    return error.what();
}
// clang-format off
const std::tuple<const char*, const char*, Lines> kFailures[] = {
    {"/hps/ptp/management", R"({"status":500})", {"HTTP Server error status=500, msg=http status 500", "Fail get_ptp_management"}},
    {"/hps/ptp/master", R"({"status":404})", {"HTTP not found", "Fail get_ptp_master"}},
    {"/hps/ptp/master", R"({"patch":{"currentUtcOffset":"37"}})", {"Fail json::parse ptp_master=" + no_number("37")}},
    {"/hps/ptp/management", R"({"patch":{"timeOfNextJam":true}})", {"Fail json::parse ptp_management=" + no_number(true)}},
};
// clang-format on
class hpsThreadsFailing : public hpsThreads, public testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(, hpsThreadsFailing, testing::Range(0, 4));

TEST_P(hpsThreadsFailing, ADocumentThatCannotBeHadOrReadEndsThePollingOnly) {
    auto [document, fault, lines] = kFailures[GetParam()];
    Json whole{{"path", document}, {"nth", 1}};
    whole.update(parsed(fault));
    EXPECT_EQ(card.control("POST", "/http_faults", whole), "200 \"ok\"");
    const Stopwatch watch;
    start();
    EXPECT_TRUE(watch.elapsed() >= 2s && watch.elapsed() < 3s) << watch.elapsed().count();
    lines.push_back("Fail setting_thread not done first request");
    EXPECT_EQ(log.take(), lines);
    EXPECT_EQ(digest(*client), kNoDigest);
    EXPECT_EQ(card.methods(document), "GET ") << "not taken up again";
    EXPECT_TRUE(wait_until([&] { return card.methods(alive) == "POST PATCH PATCH "; })) << "goes on";
}

TEST_F(hpsThreads, AnEndWaitsForTheRequestUnderWayAndNothingFollows) {
    for (const std::string under_way : {"POST ", "POST PATCH "}) {
        CardServer late;
        late.control("POST", "/http_faults",
                     {{"path", alive}, {"nth", under_way.size() / 5}, {"delay_ms", 700}, {"status", 503}});
        ASSERT_EQ(late.open(client.emplace(), true), 0);
        ASSERT_TRUE(wait_until([&] { return late.methods(alive) == under_way; }));
        const Stopwatch end;
        client.reset();
        EXPECT_LT(end.elapsed(), 1500ms);
        EXPECT_EQ(late.methods(alive), under_way);
    }
}

TEST(hpsManagers, KeepAliveAndPollingGoOnRoundByRound) {
    std::atomic<int> registered{0}, kept{0}, polled{0};
    const auto registry = [&](int32_t id) { throw registered += id; };
    ThreadManagerClientAlive alive(7, registry, [&](int32_t) { throw std::to_string(++kept); });
    alive.start_thread();
    for (int round = 1; round <= 3; ++round) {
        EXPECT_TRUE(wait_until([&] { return kept >= round; })) << "what a callback throws stops nothing";
        alive.notify_all();  // Instead of 2 s.
    }
    alive.join_thread();
    EXPECT_EQ(registered, 7);

    ThreadManagerClientPolling polling(
        0,
        [&](std::string& text) {
            return text = text_of({{"currentUtcOffset", ++polled}}), 0;
        },
        [](std::string& text) { return text = "{}", 0; });
    polling.start_thread();
    hps_ptp_sm sm;
    EXPECT_TRUE(wait_until([&] { return polling.get_hps_ptp_sm(sm) == 0 && sm.currentUtcOffset >= 3; }));
    polling.join_thread();
    EXPECT_EQ(polling.get_hps_ptp_sm(sm), -1);
}

TEST(hpsManagers, ACallbackThatIsNotBoundEndsTheThreadWithALine) {
    CapturedLog log;
    int called = 0;
    const auto alive = [&](int32_t) { ++called; };
    const auto document = [&](std::string&) { return ++called; };
    ThreadManagerClientAlive alives[] = {{1, nullptr, alive}, {1, alive, nullptr}};
    ThreadManagerClientPolling pollings[] = {{0, nullptr, document}, {0, document, nullptr}};
    for (ThreadManager* manager :
         std::initializer_list<ThreadManager*>{&alives[0], &alives[1], &pollings[0], &pollings[1]}) {
        manager->start_thread();
        Lines lines;
        EXPECT_TRUE(wait_until([&] { return !(lines = log.take()).empty(); }));
        EXPECT_EQ(lines, Lines{"function null"});
        manager->join_thread();
    }
    EXPECT_EQ(called, 0);
}

TEST_F(hpsThreads, ManyRoundsLeaveNothingBehind) {
    std::ptrdiff_t threads = 0, descriptors = 0;
    for (int round = 0; round <= 100; ++round) {
        EXPECT_EQ(digest(client.emplace()), kNoDigest);
        std::atomic<bool> done{false};
        std::thread reader([&] {
            while (!done)
                digest(*client);
        });
        EXPECT_EQ(card.open(*client, true), 0);
        EXPECT_NE(digest(*client), kNoDigest);
        done = true;
        reader.join();
        client.reset();
        if (round != 0) continue;  // The first starts what stays.
        threads = running_threads();
        std::this_thread::sleep_for(50ms);  // Until the server has closed its connections.
        descriptors = open_descriptors();
    }
    EXPECT_TRUE(wait_until([&] { return running_threads() <= threads; }, 5s));
    EXPECT_TRUE(wait_until([&] { return open_descriptors() <= descriptors; }, 5s));
}

}  // namespace
