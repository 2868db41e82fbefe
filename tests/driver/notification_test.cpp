// Interrupt messages: from the driver process over the run loop to the owner's callback.
#include <CoreFoundation/CoreFoundation.h>

#include <mutex>
#include <set>

#include <kiv/kiv_api.h>
#include "driver/Clients.h"
#include "support/Json.h"
#include "support/Program.h"

namespace {

/// The platform call that fails next.
enum class Failing { Nothing, Port, MachPort, Source };
std::atomic<Failing> g_failing = Failing::Nothing;

}  // namespace

// These stand before the platform's own.
IONotificationPortRef IONotificationPortCreate(mach_port_t main_port) {
    if (g_failing == Failing::Port) return nullptr;
    return original<decltype(IONotificationPortCreate)>("IONotificationPortCreate")(main_port);
}
mach_port_t IONotificationPortGetMachPort(IONotificationPortRef port) {
    if (g_failing == Failing::MachPort) return MACH_PORT_NULL;
    return original<decltype(IONotificationPortGetMachPort)>("IONotificationPortGetMachPort")(port);
}
CFRunLoopSourceRef IONotificationPortGetRunLoopSource(IONotificationPortRef port) {
    if (g_failing == Failing::Source) return nullptr;
    return original<decltype(IONotificationPortGetRunLoopSource)>("IONotificationPortGetRunLoopSource")(port);
}

namespace {

/// Keeps what a client's callback is given.
class Received {
  public:
    explicit Received(kivDriverClient& client) {
        client.set_callback([this](const InterruptEvent& event) {
            const std::lock_guard lock(mutex_);
            threads_.insert(std::this_thread::get_id());
            events_.push_back(event);
        });
    }
    std::size_t count() {
        const std::lock_guard lock(mutex_);
        return events_.size();
    }
    bool reach(std::size_t count) {
        return wait_until([&] { return this->count() >= count; });
    }
    std::vector<InterruptEvent> events() {
        const std::lock_guard lock(mutex_);
        return events_;
    }
    bool on_one_other_thread() {
        const std::lock_guard lock(mutex_);
        return threads_.size() == 1 && !threads_.contains(std::this_thread::get_id());
    }

  private:
    std::mutex mutex_;
    std::vector<InterruptEvent> events_;
    std::set<std::thread::id> threads_;
};

/// Registrations for messages that the driver has seen.
std::vector<DriverEvent> registrations(const RunningSimulator& simulator) {
    return simulator.calls(wire::kRegisterInterruptAsyncCallback);
}

/// Has the driver send a message with these arguments so many times; status of the answer.
int send(const RunningSimulator& simulator, const std::string& arguments, uint64_t count = 1) {
    return simulator
        .control("POST", "/messages",
                 R"({"arguments": )" + arguments + R"(, "count": )" + std::to_string(count) + "}")
        .status;
}

/// Opens with interrupts, and waits until the driver knows where messages go.
bool open_for_messages(kivDriverClient& client, const RunningSimulator& simulator) {
    const std::size_t before = registrations(simulator).size();
    return client.open(true) == 0 && wait_until([&] { return registrations(simulator).size() > before; });
}

}  // namespace

TEST(DriverNotification, StartsAndEndsWithOpenAndClose) {
    RunningSimulator simulator;
    const auto client = first_client();
    EXPECT_EQ(client->open(true), 0);
    EXPECT_TRUE(wait_until([&] { return registrations(simulator).size() == 1; }));
    EXPECT_EQ(client->open(true), 0) << "the thread that runs stays";
    EXPECT_EQ(client->close(), 0);
    using namespace wire;
    // clang-format off
    const std::vector<uint32_t> expected = {
        kLoadBootConf, kGetDeviceConf, kInit,
        kGetIoBusAddress, kSelectMemory, kSelectMemory, kGetIoBusAddress, kSelectMemory, kSelectMemory,
        kRegisterInterruptAsyncCallback, kInit,
        kGetIoBusAddress, kSelectMemory, kSelectMemory, kGetIoBusAddress, kSelectMemory, kSelectMemory, kDeinit};
    // clang-format on
    EXPECT_EQ(simulator.selectors("card 1 function 0"), expected);
    EXPECT_EQ(registrations(simulator)[0].input, "");
    EXPECT_EQ(client->open(true), -1);
}

TEST(DriverNotification, DeliversEveryNumberOfArgumentsOnItsThread) {
    RunningSimulator simulator;
    const auto client = first_client();
    Received received(*client);
    ASSERT_TRUE(open_for_messages(*client, simulator));
    for (const char* const arguments :
         {"[]", "[18446744073709551614]", "[7, 8, 9]",
          "[1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 18446744073709551615]"})
        EXPECT_EQ(send(simulator, arguments), 200);
    for (const char* const arguments : {"[1, 2]", "[1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1]"})
        EXPECT_EQ(send(simulator, arguments), 400);
    ASSERT_TRUE(received.reach(3));
    const auto events = received.events();
    ASSERT_EQ(events.size(), 3u) << "a message without arguments is none";
    EXPECT_EQ(events[0].count, 1u);
    EXPECT_EQ(events[0].word[0], ~uint64_t{0} - 1);
    EXPECT_EQ(events[1].count, 3u);
    EXPECT_EQ(events[1].word[2], 9u);
    EXPECT_EQ(events[1].word[3], 0u);
    EXPECT_EQ(events[2].count, 16u);
    EXPECT_EQ(events[2].word[15], ~uint64_t{0});
    EXPECT_TRUE(received.on_one_other_thread());
    EXPECT_EQ(client->close(), 0);
}

TEST(DriverNotification, LosesAndReordersNothingAlsoBesideAProgramThatDoesNotRead) {
    constexpr uint64_t kMessages = 50'000;
    RunningSimulator simulator;
    const auto stuck = first_client();
    const auto good = first_client();
    std::promise<void> gate;
    stuck->set_callback([opened = gate.get_future().share()](const InterruptEvent&) { opened.wait(); });
    std::atomic<uint64_t> in_order = 0;
    good->set_callback([&](const InterruptEvent& event) { in_order += event.word[0] == in_order; });
    ASSERT_TRUE(open_for_messages(*stuck, simulator));
    ASSERT_TRUE(open_for_messages(*good, simulator));
    send(simulator, "[0]", kMessages);
    EXPECT_TRUE(wait_until([&] { return in_order == kMessages; })) << in_order;
    gate.set_value();
    EXPECT_EQ(stuck->close(), 0);
    EXPECT_EQ(good->close(), 0);
}

TEST(DriverNotification, TheCallbackMayThrowReplaceItselfAndTryToClose) {
    RunningSimulator simulator;
    const auto client = first_client();
    std::atomic<int> closed = 0;
    Received* later = nullptr;
    std::unique_ptr<Received> holder;
    client->set_callback([&](const InterruptEvent&) {
        closed = client->close();
        holder = std::make_unique<Received>(*client);
        later = holder.get();
        throw 1;
    });
    ASSERT_TRUE(open_for_messages(*client, simulator));
    send(simulator, "[5]", 3);
    ASSERT_TRUE(wait_until([&] { return closed == -1; }));
    EXPECT_TRUE(client->isOpen());
    EXPECT_EQ(client->reset_buffer(), 0);
    client->set_callback(nullptr);
    ASSERT_NE(later, nullptr);
    EXPECT_LE(later->count(), 2u);
    send(simulator, "[5]");
    EXPECT_EQ(client->close(), 0);
}

TEST(DriverNotification, EnabledInterruptsComeByTheCardsOwnTimer) {
    auto cards = kivsim::default_cards();
    cards[0].interrupt_ms = 5;
    RunningSimulator simulator(cards);
    const auto client = first_client();
    Received received(*client);
    ASSERT_TRUE(open_for_messages(*client, simulator));
    ASSERT_EQ(client->enable_interrupt(4), 0);
    ASSERT_TRUE(received.reach(3));
    ASSERT_EQ(client->disable_interrupt(4), 0);
    EXPECT_EQ(parsed(simulator.control("GET").body)["driver"]["connections"][0]["interrupts"], Json::array());
    const auto events = received.events();
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(events[i].word[0], 4u);
        EXPECT_EQ(events[i].word[1], i + 1);
    }
    EXPECT_GT(events[1].word[2], events[0].word[2]);
}

TEST(DriverNotification, EachFailureIsSaidAndLeavesAClientThatCanTryAgain) {
    auto cards = kivsim::default_cards();
    cards[0].driver_faults = {fault(wire::kRegisterInterruptAsyncCallback).nth(1).status(kIOReturnBusy)};
    RunningSimulator simulator(cards);
    const auto client = first_client();
    Received received(*client);
    DriverLines lines;
    const std::pair<Failing, const char*> rows[] = {
        {Failing::Port, "Failed to create notification port for application."},
        {Failing::MachPort, "Failed to get mach notification port for application."},
        {Failing::Source, "Failed to get run loop for application."},
        {Failing::Nothing, "Failed ExternalMethodType_RegisterInterruptAsyncCallback"}};
    for (const auto& [failing, text] : rows) {
        SCOPED_TRACE(text);
        g_failing = failing;
        EXPECT_EQ(client->open(true), 0);
        Lines said;
        EXPECT_TRUE(wait_until([&] { return !(said = lines.take()).empty(); }));
        EXPECT_EQ(said, Lines{text});
    }
    EXPECT_TRUE(open_for_messages(*client, simulator));
    send(simulator, "[5]");
    EXPECT_TRUE(received.reach(1));
    EXPECT_EQ(client->close(), 0);
}

TEST(DriverNotification, OpensAndClosesTwoHundredTimesInARow) {
    RunningSimulator simulator;
    const Stopwatch watch;
    for (int round = 0; round < 200; ++round) {
        const auto client = first_client();
        client->set_callback([](const InterruptEvent&) {});
        ASSERT_EQ(client->open(true), 0);
        if (round % 2 == 0) {
            ASSERT_EQ(client->close(), 0);
        }
    }
    EXPECT_LT(watch.elapsed().count(), 20'000);
}

TEST(DriverNotification, OutlivesTheDriverProcess) {
    TemporaryDirectory directory;
    const std::string socket = directory / "socket";
    setenv("KIVSIM_SOCKET", socket.c_str(), 1);
    write_file(directory / "cards.json", R"({"cards": [{"id": 1, "interrupt_ms": 1}]})");
    const auto start = [&] {
        auto program = std::make_unique<Program>(std::vector<std::string>{
            KIVSIM_PROGRAM, "--socket", socket, "--config", directory / "cards.json"});
        program->read_line();
        return program;
    };
    auto running = start();
    const auto client = first_client();
    Received received(*client);
    ASSERT_EQ(client->open(true), 0);
    client->enable_interrupt(1);
    ASSERT_TRUE(received.reach(1));
    std::atomic<int32_t> status = 0;
    auto calls = std::async(std::launch::async, [&] {
        uint32_t value = 0;
        while ((status = client->read_pci32(0, 0, &value)) == 0) {
        }
    });
    running->send_signal(SIGKILL);
    ASSERT_EQ(calls.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(status, MACH_SEND_INVALID_DEST);
    EXPECT_TRUE(client->close() == -1 && client->isOpen()) << "nobody takes the leave";
    running = start();
    kiv_scan_t scan{};
    EXPECT_EQ(kiv_scan(&scan), KIV_OK);
    EXPECT_EQ(scan.count, 1);
    kiv_close();
}
