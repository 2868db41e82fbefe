// The last hour of a card: its order, its gaps and its size.
#include "history.h"

#include <cmath>

#include "support/Json.h"
#include "support/Test.h"
#include "support/ThisProcess.h"

namespace {

using kivctl::History;
using std::chrono::seconds;
using Time = std::chrono::system_clock::time_point;

constexpr Time kStart{seconds(1'700'000'000)};

History::Values values(float value) {
    History::Values all;
    all.fill(value);
    return all;
}

/// The points of one series, which all have as many.
Json points(const History& history, std::size_t series = 0) {
    const Json json = history.json();
    for (const Json& each : json["series"])
        EXPECT_EQ(each["points"].size(), json["series"][0]["points"].size());
    return json["series"][series]["points"];
}

}  // namespace

TEST(History, KeepsTheLastHourInItsOrder) {
    History history;
    EXPECT_EQ(history.json()["newest"], nullptr);
    for (int i = 0; i < 1000; ++i)
        history.record(kStart + i * seconds(5), values(static_cast<float>(i)));
    const Json hour = points(history);
    ASSERT_EQ(hour.size(), 720u);
    EXPECT_EQ(hour.front(), 280);
    EXPECT_EQ(hour.back(), 999);
    EXPECT_EQ(history.json()["newest"], "2023-11-14T23:36:35.000Z");
}

TEST(History, HasGapsWhereNobodyRecorded) {
    History history;
    history.record(kStart, values(1));
    history.record(kStart + seconds(4), values(2));
    history.record(kStart + seconds(15), values(NAN));
    history.record(kStart + seconds(20), values(0.126F));
    EXPECT_EQ(points(history), parsed("[2, null, null, null, 0]")) << "two in one interval are one point";
    EXPECT_EQ(points(history, 7).back(), 0.13) << "a load";
    history.record(kStart - seconds(60), values(7));
    EXPECT_EQ(points(history), parsed("[7]")) << "the clock was put back";
    history.record(kStart + seconds(4000), values(8));
    EXPECT_EQ(points(history), parsed("[8]")) << "the machine has slept";
}

TEST(History, TakesLittleMemory) {
    const std::size_t before = allocated_bytes();
    const auto history = std::make_unique<History>();
    for (int i = 0; i < 2000; ++i)
        history->record(kStart + i * seconds(5), values(static_cast<float>(i)));
    const std::size_t bytes = allocated_bytes() - before;
    if (bytes == 0) GTEST_SKIP() << "the allocator of a sanitizer counts nothing";
    EXPECT_LT(bytes, std::size_t{1} << 20);
    EXPECT_GE(bytes, sizeof(History));
}
