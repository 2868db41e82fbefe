// Interrupt messages: from the driver process over the run loop to the owner's callback.
#include <CoreFoundation/CoreFoundation.h>

#include <mutex>
#include <set>

#include <kiv/kiv_api.h>
#include "driver/Clients.h"
#include "support/Json.h"

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
    bool reach(std::size_t count) {
        return wait_until([&] { return events().size() >= count; });
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

class DriverNotification : public OneClient {
  protected:
    /// Registrations for messages that the driver has seen.
    std::vector<DriverEvent> registrations() const {
        return simulator_.calls(wire::kRegisterInterruptAsyncCallback);
    }

    /// Opens with interrupts, and waits until the driver knows where messages go.
    bool open_for_messages(kivDriverClient& client) const {
        const std::size_t before = registrations().size();
        return client.open(true) == 0 && wait_until([&] { return registrations().size() > before; });
    }

    /// Has the driver send a message with these arguments so many times; status of the answer.
    int send(const std::string& arguments, uint64_t count = 1) const {
        const std::string body =
            R"({"arguments": )" + arguments + R"(, "count": )" + std::to_string(count) + "}";
        return simulator_.control("POST", "/messages", body).status;
    }
};

}  // namespace

TEST_F(DriverNotification, StartsAndEndsWithOpenAndClose) {
    EXPECT_TRUE(open_for_messages(*client_));
    EXPECT_EQ(client_->open(true), 0) << "the thread that runs stays";
    EXPECT_EQ(client_->close(), 0);
    using namespace wire;
    // clang-format off
    const std::vector<uint32_t> expected = {
        kLoadBootConf, kGetDeviceConf, kInit,
        kGetIoBusAddress, kSelectMemory, kSelectMemory, kGetIoBusAddress, kSelectMemory, kSelectMemory,
        kRegisterInterruptAsyncCallback, kInit,
        kGetIoBusAddress, kSelectMemory, kSelectMemory, kGetIoBusAddress, kSelectMemory, kSelectMemory, kDeinit};
    // clang-format on
    EXPECT_EQ(simulator_.selectors("card 1 function 0"), expected);
    EXPECT_EQ(registrations()[0].input, "");
    EXPECT_EQ(client_->open(true), -1);
}

TEST_F(DriverNotification, DeliversEveryNumberOfArgumentsOnItsThread) {
    Received received(*client_);
    ASSERT_TRUE(open_for_messages(*client_));
    for (const char* const arguments :
         {"[]", "[18446744073709551614]", "[7, 8, 9]",
          "[1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 18446744073709551615]"})
        EXPECT_EQ(send(arguments), 200);
    for (const char* const arguments : {"[1, 2]", "[1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1]"})
        EXPECT_EQ(send(arguments), 400);
    ASSERT_TRUE(received.reach(3));
    const auto events = received.events();
    ASSERT_EQ(events.size(), 3u) << "a message without arguments is none";
    const auto& [one, three, sixteen] = std::tie(events[0], events[1], events[2]);
    EXPECT_EQ(std::tuple(one.count, one.word[0]), std::tuple(1, ~uint64_t{0} - 1));
    EXPECT_EQ(std::tuple(three.count, three.word[2], three.word[3]), std::tuple(3, 9, 0));
    EXPECT_EQ(std::tuple(sixteen.count, sixteen.word[15]), std::tuple(16, ~uint64_t{0}));
    EXPECT_TRUE(received.on_one_other_thread());
}

TEST_F(DriverNotification, LosesAndReordersNothingAlsoBesideAProgramThatDoesNotRead) {
    constexpr uint64_t kMessages = 50'000;
    const auto good = first_client();
    std::promise<void> gate;
    client_->set_callback([opened = gate.get_future().share()](const InterruptEvent&) { opened.wait(); });
    std::atomic<uint64_t> in_order = 0;
    good->set_callback([&](const InterruptEvent& event) { in_order += event.word[0] == in_order; });
    ASSERT_TRUE(open_for_messages(*client_) && open_for_messages(*good));
    send("[0]", kMessages);
    EXPECT_TRUE(wait_until([&] { return in_order == kMessages; })) << in_order;
    gate.set_value();
    EXPECT_EQ(client_->close(), 0);
    EXPECT_EQ(good->close(), 0);
}

TEST_F(DriverNotification, TheCallbackMayThrowReplaceItselfAndTryToClose) {
    std::atomic<int> closed = 0;
    std::unique_ptr<Received> later;
    client_->set_callback([&](const InterruptEvent&) {
        closed = client_->close();
        later = std::make_unique<Received>(*client_);
        throw 1;
    });
    ASSERT_TRUE(open_for_messages(*client_));
    send("[5]", 3);
    ASSERT_TRUE(wait_until([&] { return closed == -1; }));
    EXPECT_TRUE(client_->isOpen());
    EXPECT_EQ(client_->reset_buffer(), 0);
    client_->set_callback(nullptr);
    ASSERT_NE(later, nullptr);
    EXPECT_LE(later->events().size(), 2u);
    send("[5]");
    EXPECT_EQ(client_->close(), 0);
}

TEST_F(DriverNotification, EnabledInterruptsComeByTheCardsOwnTimer) {
    simulator_.control("PATCH", "", R"({"interrupt_ms": 5})");
    Received received(*client_);
    ASSERT_TRUE(open_for_messages(*client_));
    ASSERT_EQ(client_->enable_interrupt(4), 0);
    ASSERT_TRUE(received.reach(3));
    ASSERT_EQ(client_->disable_interrupt(4), 0);
    EXPECT_EQ(parsed(simulator_.control("GET").body)["driver"]["connections"][0]["interrupts"],
              Json::array());
    const auto events = received.events();
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_EQ(std::tuple(events[i].word[0], events[i].word[1]), std::tuple(4, i + 1));
    EXPECT_GT(events[1].word[2], events[0].word[2]);
}

TEST_F(DriverNotification, EachFailureIsSaidAndLeavesAClientThatCanTryAgain) {
    fail_call(wire::kRegisterInterruptAsyncCallback, 1);
    Received received(*client_);
    DriverLines lines;
    const std::pair<Failing, const char*> rows[] = {
        {Failing::Port, "Failed to create notification port for application."},
        {Failing::MachPort, "Failed to get mach notification port for application."},
        {Failing::Source, "Failed to get run loop for application."},
        {Failing::Nothing, "Failed ExternalMethodType_RegisterInterruptAsyncCallback"}};
    for (const auto& [failing, text] : rows) {
        SCOPED_TRACE(text);
        g_failing = failing;
        EXPECT_EQ(client_->open(true), 0);
        Lines said;
        EXPECT_TRUE(wait_until([&] { return !(said = lines.take()).empty(); }));
        EXPECT_EQ(said, Lines{text});
    }
    EXPECT_TRUE(open_for_messages(*client_));
    send("[5]");
    EXPECT_TRUE(received.reach(1));
    EXPECT_EQ(client_->close(), 0);
}

TEST_F(DriverNotification, OpensAndClosesTwoHundredTimesInARow) {
    const Stopwatch watch;
    for (int round = 0; round < 200; ++round) {
        client_ = first_client();
        client_->set_callback([](const InterruptEvent&) {});
        ASSERT_EQ(client_->open(true), 0);
        ASSERT_EQ(round % 2 == 0 ? client_->close() : 0, 0);
    }
    EXPECT_LT(watch.elapsed().count(), 20'000);
}

TEST_F(DriverNotification, OutlivesTheDriverProcess) {
    simulator_.control("PATCH", "", R"({"interrupt_ms": 1})");
    Received received(*client_);
    ASSERT_EQ(client_->open(true), 0);
    client_->enable_interrupt(1);
    ASSERT_TRUE(received.reach(1));
    std::atomic<int32_t> status = 0;
    auto calls = std::async(std::launch::async, [&] {
        uint32_t value = 0;
        while ((status = client_->read_pci32(0, 0, &value)) == 0) {
        }
    });
    simulator_.stop();
    ASSERT_EQ(calls.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(status, MACH_SEND_INVALID_DEST);
    EXPECT_TRUE(client_->close() == -1 && client_->isOpen()) << "nobody takes the leave";
    const RunningSimulator next;
    kiv_scan_t scan{};
    EXPECT_EQ(kiv_scan(&scan), KIV_OK);
    EXPECT_EQ(scan.count, 2);
    kiv_close();
}
