#include "driver/Clients.h"

namespace {

using Client = kivDriverClient;

/// What lookups look at: function id, card, function, addresses, identity.
using Entry = std::tuple<int, int, int, uint32_t, uint32_t, uint32_t, int, uint64_t, const char*>;

kivDriverClientList list_of(const std::vector<Entry>& entries) {
    kivDriverClientList list;
    for (const auto& [func_id, card, function, ip0, ip1, tun, kind, identity, text] : entries) {
        auto client = std::make_shared<Client>(static_cast<uint8_t>(func_id), 0);
        client->device_conf = {static_cast<uint8_t>(card), {ip0, ip1}, tun, 0, 0};
        client->boot_conf.function = static_cast<uint8_t>(function);
        client->boot_conf.identity_kind = static_cast<uint8_t>(kind);
        client->boot_conf.identity = identity;
        std::string(text).copy(client->boot_conf.identity_text, 64);
        list.push_back(std::move(client));
    }
    return list;
}

TEST(DriverLookup, FindsTheFirstMatchInListOrderOrSaysWhatItMissed) {
    kivDriverClientList list = list_of({
        {22, 1, 0, 0x0A, 0x14, 0x1E, 1, 0xA, "one"},
        {23, 2, 1, 0x0B, 0x15, 0x1F, 1, 0xB, "one"},
        {22, 2, 0, 0x0B, 0, 0x1F, 1, 0xB, "two"},
        {23, 1, 1, 0x0A, 0x14, 0x1E, 1, 0xA, "three"},
        {23, 4, 0, 0x0D, 0x17, 0x21, 0, 0xC, "same"},
        {22, 4, 0, 0x0E, 0x18, 0x22, 0, 0xD, "same"},
        {22, 255, 7, 0xC0A80A01, 0xC0A81401, 0x7F000001, 2, 0xA, "one"},
    });
    DriverLines lines;
    const auto expect = [&](std::vector<const Client*> found, std::vector<size_t> places, Lines said = {}) {
        std::vector<const Client*> expected;
        for (const size_t place : places)
            expected.push_back(list[place].get());
        if (!said.empty()) expected = {nullptr};
        EXPECT_EQ(found, expected) << "expected at " << testing::PrintToString(places);
        EXPECT_EQ(lines.take(), said);
    };
    const auto siblings = [&](uint8_t index, uint8_t id) {
        std::vector<const Client*> found;
        for (const auto& client : Client::get_SiblingDevice(list, index, id))
            found.push_back(client.get());
        return found;
    };
    // clang-format off
    expect({Client::get_class_ptr_iterator(list, 1, 23)}, {3});
    expect({Client::get_class_sptr_iterator(list, 3, 22).get()}, {6});
    expect({Client::get_class_ptr_iterator(list, 4, 22)}, {}, {"Fail get_class_ptr_array index=4 func_id=22"});
    expect({Client::get_class_ptr_ByPciId(list, 4, 0)}, {4});
    expect({Client::get_class_ptr_ByPciId(list, 254, 255)}, {}, {"Fail get_class_ptr_ByPciId device_id=254 funcNumber=255"});
    expect({Client::get_class_ptr_ByPciId_FuncId(list, 4, 22)}, {5});
    expect({Client::get_class_ptr_ByPciId_FuncId(list, 3, 23)}, {}, {"Fail get_class_ptr_ByPciId_FuncId device_id=3 func_id=23"});
    expect({Client::get_class_sptr_ByPciId_FuncId(list, 1, 23).get()}, {3});
    expect({Client::get_class_sptr_ByPciId_FuncId(list, 3, 23).get()}, {}, {"Fail get_class_sptr_ByPciId_FuncId device_id=3 func_id=23"});
    expect({Client::get_class_ptr_ByIp(list, 0x0D, 0x15, 0x1E)}, {0});
    expect({Client::get_class_sptr_ByIp(list, 9, 0x18, 9).get()}, {5});
    expect({Client::get_class_ptr_ByIp(list, 0, 0, 0)}, {2});
    expect({Client::get_class_ptr_ByIp(list, 0x14, 0x0A, 0xC0A80A01)}, {}, {"Fail get_class_ptr_ByIp ip[0]=00000014 ip[1]=0000000A tun=C0A80A01"});
    expect({Client::get_class_sptr_ByIp(list, 1, 2, 3).get()}, {}, {"Fail get_class_sptr_ByIp ip[0]=00000001 ip[1]=00000002 tun=00000003"});
    expect(siblings(1, 23), {3, 0, 3});
    expect(siblings(1, 22), {2, 1, 2});
    expect(siblings(2, 23), {4, 4, 5});  // By equal texts.
    expect(siblings(3, 22), {6, 6});     // Kinds must be equal.
    // clang-format on
    EXPECT_TRUE(siblings(4, 23).empty());
    EXPECT_EQ(lines.take(), Lines{"Fail get_SiblingDevice index=4 func_id=23"});
    EXPECT_EQ(Client::get_pci_function_count(list, 22), 4);
}

TEST(DriverLookup, CountsModulo256) {
    kivDriverClientList list = list_of(std::vector<Entry>(300, {22, 0, 0, 0, 0, 0, 0, 0, ""}));
    EXPECT_EQ(Client::get_pci_function_count(list, 22), 300 - 256);
    EXPECT_EQ(Client::get_class_ptr_iterator(list, 255, 22), list[255].get());
}

}  // namespace
