#include "driver/Clients.h"
#include "driver/DeviceEnumeratorMacOS.h"
#include "driver/DeviceFactoryMacOS.h"

namespace {

using kiv::access::IDeviceAccess;
using namespace kiv::device;

/// Access to the given function of a card, as the device layer makes it.
std::unique_ptr<IDeviceAccess> access_to(DeviceEnumeratorMacOS& enumerator, unsigned id, unsigned function) {
    return DeviceFactoryMacOS().createDeviceAccess(enumerator.getDeviceAccessPtr(id, function), function);
}

TEST(DriverEnumerator, ListsCardsInOrderOfFirstAppearanceAndSaysWhenThereIsNothing) {
    std::vector<kivsim::CardSettings> cards = {kivsim::believable_card(9), kivsim::believable_card(3)};
    cards[0].bus = 0x81;
    cards[0].device = 0x1F;
    cards[0].functions = {{1, 23}, {0, 22}, {2, 7}};  // The last one takes no type of ours.
    cards[1].functions = {{1, 23}};
    RunningSimulator simulator(cards);
    const std::string address = simulator->server_addresses()[0];
    kiv::DriverClients clients;
    DeviceEnumeratorMacOS enumerator(clients);
    const auto found = enumerator.enumerate();
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(std::tuple(found[0].platform, found[0].note, found[0].id, found[0].address),
              std::tuple("macOS", "", 9u, address));
    EXPECT_EQ(std::tuple(found[1].id, found[1].address), std::tuple(3u, ""));
    ASSERT_EQ(found[0].functions.size(), 2u);
    const auto& first = found[0].functions[0];
    EXPECT_EQ(std::tuple(first.bus, first.device, first.function), std::tuple(0x81, 0x1F, 1));
    auto* const client = static_cast<kivDriverClient*>(enumerator.getDeviceAccessPtr(9 + 256, 256));
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(client->boot_conf.function, 0);
    EXPECT_EQ(enumerator.getDeviceAccessPtr(9, 2), nullptr);
    simulator.stop();
    testing::internal::CaptureStdout();
    EXPECT_TRUE(enumerator.enumerate().empty());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Fail open device\n");
}

TEST(DriverAccess, WorksOnItsFunctionOfTheCard) {
    auto cards = kivsim::default_cards();
    cards[1].functions[1].pci_link[0] = 8;  // Function 0 keeps 16 lanes.
    const RunningSimulator simulator(cards);
    kiv::DriverClients clients;
    DeviceEnumeratorMacOS enumerator(clients);
    enumerator.enumerate();
    const auto access = access_to(enumerator, 2, 1);
    EXPECT_EQ(access->open(), 0);
    EXPECT_EQ(simulator.trace().back().service, "card 2 function 1");
    uint32_t word = 0;
    uint64_t value = 0;
    EXPECT_EQ(access->writeRegister64(4, 0x200, 0x0102030405060708), 0);
    EXPECT_EQ(access->writeRegister32(4, 0x204, 0xCAFE0001), 0);
    EXPECT_EQ(access->readRegister64(4, 0x200, value), 0);
    EXPECT_EQ(value, 0xCAFE000105060708u);
    uint8_t bytes[8] = {};
    EXPECT_EQ(access->getTxUseResourceData(bytes[0], bytes[1], bytes[2]), 0);
    EXPECT_EQ(access->getRxUseResourceData(bytes[3], bytes[4], bytes[5]), 0);
    EXPECT_EQ(access->getLinkStatus(bytes[6], bytes[7]), 0);  // The other way round on the wire.
    EXPECT_EQ(std::vector<int>(bytes, bytes + 8), (std::vector<int>{4, 8, 16, 2, 4, 8, 4, 8}));
    auto* const client = static_cast<kivDriverClient*>(enumerator.getDeviceAccessPtr(2, 1));
    client->device_conf.ptp_selected = 0xFF;
    EXPECT_EQ(access->selected_ptp_card(), 0xFF);
    EXPECT_EQ(access->getTunIP(word, word), 0);
    EXPECT_EQ(word, client->device_conf.port);
    EXPECT_EQ(access->close(), 0);
    EXPECT_FALSE(access->isOpen());
}

/// Every operation of an access, which must give `status`.
void expect_all(IDeviceAccess& access, int32_t status) {
    uint8_t a = 77;
    uint32_t word = 77;
    uint64_t x = 77;
    const std::vector<int32_t> results = {access.open(),
                                          access.writeRegister32(0, 0, 0),
                                          access.writeRegister64(0, 0, 0),
                                          access.getTxUseResourceData(a, a, a),
                                          access.getRxUseResourceData(a, a, a),
                                          access.getLinkStatus(a, a),
                                          access.readRegister32(0, 0, word),
                                          access.readRegister64(0, 0, x),
                                          access.getPtpTai(x),
                                          access.getEpochAnd2point(x, x, x)};
    EXPECT_EQ(results, std::vector<int32_t>(results.size(), status));
    EXPECT_EQ(a, 77);
}

TEST(DriverAccess, GivesTheDriversFailuresAndOutlivesItsClient) {
    auto cards = kivsim::default_cards();
    for (const auto selector :
         {wire::kReadPci32, wire::kReadPci64, wire::kWritePci32, wire::kWritePci64, wire::kGetPtpEpochTime,
          wire::kGetPtpEpochTimeAndSystemTime, wire::kInit, wire::kGetUseResourceData, wire::kGetPciLinkInfo})
        cards[0].driver_faults.push_back(fault(selector).status(kIOReturnBusy));
    const RunningSimulator simulator(cards);
    kiv::DriverClients clients;
    DeviceEnumeratorMacOS enumerator(clients);
    enumerator.enumerate();
    const auto old = access_to(enumerator, 1, 0);
    EXPECT_TRUE(old->isOpen());
    expect_all(*old, kIOReturnBusy);
    enumerator.enumerate();  // New clients.
    const auto none = access_to(enumerator, 99, 0);
    for (IDeviceAccess* const access : {old.get(), none.get()}) {
        EXPECT_FALSE(access->isOpen());
        expect_all(*access, -1);
        EXPECT_EQ(access->close(), -1);
    }
}

}  // namespace
