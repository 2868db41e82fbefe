#include <IOKit/IOKitLib.h>
#include <gtest/gtest.h>

#include <kiv/kivDriverClient.h>
#include "support/RunningSimulator.h"

namespace {

constexpr uint64_t kEnd = 16u << 20;  ///< Of every BAR.

TEST(SimulatedCards, ShareMemoryBetweenTheirFunctions) {
    auto cards = kivsim::default_cards();
    cards[0].registers = {{1, 0x48, 0x0000000500000004}, {1, 0x44, 3}, {1, 0x40, 0xFFFFFFFF}};
    const RunningSimulator simulator(cards);
    const auto clients = kivDriverClient::enumerateDevices("kivPCIService");
    ASSERT_EQ(clients.size(), 4u);
    kivDriverClient& one = *clients[0];
    uint32_t word = 1;
    uint64_t value = 1;
    const auto value_at = [&](kivDriverClient& client, uint32_t bar, uint64_t offset) {
        EXPECT_EQ(client.read_pci64(bar, offset, &value), 0);
        return value;
    };
    // As configured: a value of 32 bits leaves its neighbours alone.
    EXPECT_EQ(value_at(one, 1, 0x40), 0x00000003FFFFFFFFu);
    EXPECT_EQ(value_at(one, 1, 0x48), 0x0000000500000004u);
    for (const uint64_t offset : {uint64_t{0x0FFC}, uint64_t{0x1FFD}, kEnd - 8}) {
        EXPECT_EQ(one.write_pci64(5, offset, 0x1122334455667788), 0);
        EXPECT_EQ(value_at(*clients[1], 5, offset), 0x1122334455667788u) << offset;
        EXPECT_EQ(one.write_pci32(5, offset + 4, 0), 0);
        EXPECT_EQ(value_at(one, 5, offset), 0x55667788u);
        EXPECT_EQ(value_at(one, 4, offset), 0u);          // Another BAR,
        EXPECT_EQ(value_at(*clients[2], 5, offset), 0u);  // another card.
    }
    const std::pair<uint32_t, uint64_t> outside[] = {{6, 0}, {~0u, 0}, {0, kEnd - 3}, {0, ~uint64_t{0} - 7}};
    for (const auto& [bar, offset] : outside) {
        EXPECT_EQ(one.read_pci32(bar, offset, &word), kIOReturnBadArgument) << offset;
        EXPECT_EQ(one.write_pci32(bar, offset, 1), kIOReturnBadArgument) << offset;
        EXPECT_EQ(one.read_pci64(bar, offset, &value), kIOReturnBadArgument) << offset;
        EXPECT_EQ(one.write_pci64(bar, offset, 1), kIOReturnBadArgument) << offset;
    }
    EXPECT_EQ(one.read_pci64(0, kEnd - 7, &value), kIOReturnBadArgument);
}

}  // namespace
