#include <array>

#include "platform/Services.h"
#include "support/RunningSimulator.h"

namespace {

TEST(PlatformConnections, ACallCarriesItsBytesAndTakesWhatFits) {
    // Last the bytes of the output that change; also the size then, unless none do.
    // clang-format off
    const std::tuple<const char*, uint32_t, size_t, size_t, kern_return_t, size_t> rows[] = {
        {"capacity as the reply",     wire::kReadPci32,       32,   32,   kIOReturnSuccess,         32},
        {"one byte too many",         wire::kReadPci32,       32,   31,   kIOReturnBadArgument,     0},
        {"a reply cut short",         wire::kGetPtpEpochTime, 0,    32,   kIOReturnSuccess,         5},
        {"a failing call",            wire::kGetAncInfo,      0,    16,   kIOReturnNotReady,        0},
        {"no output",                 wire::kEnableInterrupt, 4,    64,   kIOReturnSuccess,         0},
        {"more than the in-band size", wire::kReadPci32,      4097, 32,   kIOReturnMessageTooLarge, 0},
        {"a large capacity",          wire::kReadPci32,       32,   5000, kIOReturnSuccess,         32},
    };
    // clang-format on
    auto cards = kivsim::default_cards();
    cards[0].driver_faults = {fault(wire::kGetPtpEpochTime).reply_size(5),
                              fault(wire::kGetAncInfo).status(kIOReturnNotReady)};
    const RunningSimulator simulator(cards);
    const io_connect_t connect = open_first();

    std::array<uint8_t, 5000> input{};
    for (size_t i = 20; i < input.size(); ++i)  // A register access in BAR 0; the rest is any data.
        input[i] = static_cast<uint8_t>(i);
    for (const auto& [name, selector, input_size, capacity, status, produced] : rows) {
        SCOPED_TRACE(name);
        std::array<uint8_t, 5000> output;
        output.fill(0xA5);
        size_t size = capacity;
        const size_t traced_before = simulator.calls(selector).size();
        EXPECT_EQ(
            IOConnectCallStructMethod(connect, selector, input.data(), input_size, output.data(), &size),
            status);
        EXPECT_EQ(size, produced != 0 ? produced : capacity);
        EXPECT_TRUE(std::all_of(output.begin() + static_cast<std::ptrdiff_t>(produced), output.end(),
                                [](uint8_t byte) { return byte == 0xA5; }));
        const auto traced = simulator.calls(selector);
        if (input_size > 4096) {
            EXPECT_EQ(traced.size(), traced_before);
            continue;
        }
        ASSERT_EQ(traced.size(), traced_before + 1);
        EXPECT_EQ(traced.back().input, hex(input, input_size));
        if (produced != 0) {
            EXPECT_EQ(traced.back().reply, hex(output, produced));
        }
    }

    EXPECT_EQ(IOServiceClose(connect), kIOReturnSuccess);
}

TEST(PlatformConnections, AStalledCallBlocksNobodyAndEndsWithItsConnection) {
    auto cards = kivsim::default_cards();
    cards[0].driver_faults = {fault(wire::kGetPtpEpochTime).delay_ms(60000)};
    const RunningSimulator simulator(cards);
    const io_connect_t stalled = open_first();
    const io_connect_t other = open_first();
    std::array<std::atomic<kern_return_t>, 2> results{-1, -1};
    Threads callers(2, [&](int number) {  // The second one waits for its turn.
        results[static_cast<size_t>(number)] = call(stalled, wire::kGetPtpEpochTime);
    });
    ASSERT_TRUE(wait_until([&] { return !simulator.calls(wire::kGetPtpEpochTime).empty(); }));
    EXPECT_EQ(call(other, wire::kGetVersion), kIOReturnSuccess);
    EXPECT_EQ(IOServiceClose(stalled), kIOReturnSuccess);
    callers.join();
    for (const auto& result : results)
        EXPECT_EQ(result, MACH_SEND_INVALID_DEST);
    EXPECT_EQ(call(other, wire::kGetVersion), kIOReturnSuccess);
}

TEST(PlatformConnections, ThreadsShareOneUntilItCloses) {
    const RunningSimulator simulator;
    const io_connect_t connect = open_first();
    std::atomic<int> rounds = 0;
    std::atomic<int> closed = 0;
    const Threads callers(4, [&](int) {
        while (call(connect, wire::kGetVersion) == 0)
            ++rounds;
    });
    EXPECT_TRUE(wait_until([&] { return rounds >= 200; }));
    Threads(2, [&](int) { closed += IOServiceClose(connect) == 0 ? 1 : 0; }).join();
    EXPECT_EQ(closed, 1);
    EXPECT_EQ(call(connect, wire::kGetVersion), MACH_SEND_INVALID_DEST);
    EXPECT_EQ(IOServiceClose(connect), kIOReturnBadArgument);
}

}  // namespace
