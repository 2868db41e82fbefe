#include <new>

#include "driver/Clients.h"
#include "platform/Child.h"

namespace {

std::atomic<uint32_t> g_throwing = 0;  ///< Calls of this selector throw; none has number 0.
std::atomic<uint32_t> g_held = 0;      ///< Calls of this selector wait for the gate.
std::atomic<int> g_waiting = 0;        ///< Calls that have come to the gate.
std::shared_future<void> g_gate;

}  // namespace

// Stands before the platform's own.
kern_return_t IOConnectCallStructMethod(mach_port_t connection, uint32_t selector, const void* input,
                                        size_t input_size, void* output, size_t* output_size) {
    if (selector == g_throwing) throw std::bad_alloc();
    if (selector == g_held) {
        ++g_waiting;
        g_gate.wait();
    }
    static const auto next = original<decltype(IOConnectCallStructMethod)>("IOConnectCallStructMethod");
    return next(connection, selector, input, input_size, output, output_size);
}

namespace {

/// The trace, each event a word: "open 22", "26", "close".
std::string story_of(const RunningSimulator& simulator) {
    std::string story;
    for (const auto& event : simulator.trace()) {
        std::string word = event.event;
        if (word == "call") word = std::to_string(event.selector);
        if (word == "open") word += ' ' + std::to_string(event.type);
        story += (story.empty() ? "" : ", ") + word;
    }
    return story;
}

std::vector<kivsim::CardSettings> one_service() {
    std::vector<kivsim::CardSettings> cards = {kivsim::believable_card(1)};
    cards[0].functions = {{0, 22}};
    return cards;
}

TEST(DriverConnection, FindsEveryServiceThatTakesOneOfItsTypes) {
    auto cards = kivsim::default_cards();
    cards[0].functions = {{0, 22}, {1, 23}, {2, 24}};
    cards[0].identity_text = std::string(64, 't');
    cards[1].functions = {{5, 23}};
    const RunningSimulator simulator(cards);
    const kivDriverClientList found = clients();
    EXPECT_EQ(story_of(simulator),
              "open 22, 26, 31, open 22, open 23, 26, 31, open 22, open 23, open 22, open 23, 26, 31");
    std::string ids;
    for (const auto& client : found)
        ids += std::to_string(client->get_func_id()) + ":" + std::to_string(client->boot_conf.function) + " ";
    EXPECT_EQ(ids, "22:0 23:1 23:5 ");
    EXPECT_EQ(std::string(found[0]->boot_conf.identity_text), std::string(63, 't'));

    DriverLines lines;
    EXPECT_TRUE(kivDriverClient::enumerateDevices("kivPCI").empty());
    EXPECT_EQ(lines.take(), Lines{});
    setenv("KIVSIM_SOCKET", std::string(108, 'x').c_str(), 1);
    EXPECT_TRUE(clients().empty());
    EXPECT_EQ(lines.take(),
              Lines{"Unable to find service for identifier with error: 0xe00002e2. name=kivPCIService"});
    EXPECT_TRUE(kivDriverClient::enumerateDevices(nullptr).empty());
    EXPECT_EQ(lines.take(), Lines{"Unable to find service for identifier with error: 0xe00002c2. name="});
}

TEST(DriverConnection, StaysWhenTheDriverRefusesTheLeaveAndEndsOnceByACloseOrWithTheClient) {
    for (const bool for_ever : {false, true}) {
        auto cards = one_service();
        cards[0].driver_faults = {fault(wire::kDeinit).nth(1).status(kIOReturnBusy)};
        if (for_ever) cards[0].driver_faults[0].nth.reset();
        const RunningSimulator simulator(cards);
        auto client = first_client();
        EXPECT_EQ(client->open(false), 0);
        EXPECT_EQ(client->close(), -1);
        EXPECT_TRUE(client->isOpen());
        EXPECT_EQ(client->reset_buffer(), 0);
        if (!for_ever) {
            DriverLines lines;
            EXPECT_EQ(client->close(), 0);
            EXPECT_FALSE(client->isOpen());
            EXPECT_EQ(client->close(), -1);
            EXPECT_EQ(lines.take(), Lines{});
        }
        client.reset();
        EXPECT_EQ(story_of(simulator), "open 22, 26, 31, 24, 25, 19, 25, close");
    }
}

TEST(DriverConnection, EndsWithTheClientAlsoWhenTakingLeaveThrows) {
    const RunningSimulator simulator(one_service());
    auto client = first_client();
    ASSERT_EQ(client->open(true), 0);
    g_throwing = wire::kDeinit;
    client.reset();
    g_throwing = 0;
    EXPECT_TRUE(story_of(simulator).ends_with(", close"));
}

TEST(DriverConnection, ThatHasClosedIsNotUsedByAMappingThatWaited) {
    const RunningSimulator simulator(one_service());
    const auto client = first_client();
    std::promise<void> gate;
    g_gate = gate.get_future().share();
    g_held = wire::kSelectMemory;
    const auto map = [&] { return client->map_pci(1, nullptr, nullptr); };
    auto first = std::async(std::launch::async, map);
    ASSERT_TRUE(wait_until([] { return g_waiting == 1; }));
    auto second = std::async(std::launch::async, map);
    auto closing = std::async(std::launch::async, [&] { return client->close(); });
    EXPECT_TRUE(wait_until([&] { return !client->isOpen(); }));
    gate.set_value();
    EXPECT_EQ(first.get(), MACH_SEND_INVALID_DEST);
    EXPECT_EQ(second.get(), -1);
    EXPECT_EQ(closing.get(), 0);
    EXPECT_EQ(g_waiting, 1) << "calls with the handle that is closed";
    g_held = 0;
}

/// A forked child inherits a client in the midst of its life, as a static object may be, and destroys it.
TEST(DriverConnection, IsLeftAloneInAForkedChild) {
    RunningSimulator simulator;
    kivDriverClientList list = clients();
    auto client = list.at(0);
    ASSERT_EQ(client->open(true), 0);
    auto* const last = new kivDriverClientList{std::move(list)};
    for (int round = 0; round < 10; ++round) {
        const int status = in_child([&] {
            uint64_t address = 0, size = 0;
            bool refused = client->map_pci(1, &address, &size) == -1 && client->unmap(address) == -1 &&
                           client->open(true) == -1 && client->close() == -1;
            refused = refused && client->read_pci64(0, 0, &address) != 0;
            client->set_callback({});
            client.reset();
            delete last;
            return refused ? 42 : 1;
        });
        ASSERT_EQ(status, 42);
    }
    uint64_t value = 0;
    EXPECT_EQ(client->read_pci64(0, 0, &value), 0);
    EXPECT_EQ(client->close(), 0);
    delete last;
}

}  // namespace
