// The owner's callback: which messages reach it, and what replacing it promises.
#include "driver/Clients.h"

namespace {

/// What the last registration gave to the platform.
std::atomic<IOAsyncCallback> g_function = nullptr;
std::atomic<void*> g_context = nullptr;

}  // namespace

// Stands before the platform's own.
kern_return_t IOConnectCallAsyncStructMethod(mach_port_t connection, uint32_t selector, mach_port_t wake_port,
                                             uint64_t* reference, uint32_t reference_count, const void* input,
                                             size_t input_size, void* output, size_t* output_size) {
    g_context = reinterpret_cast<void*>(reference[kIOAsyncCalloutRefconIndex]);
    g_function = reinterpret_cast<IOAsyncCallback>(reference[kIOAsyncCalloutFuncIndex]);
    return original<decltype(IOConnectCallAsyncStructMethod)>("IOConnectCallAsyncStructMethod")(
        connection, selector, wake_port, reference, reference_count, input, input_size, output, output_size);
}

namespace {

/// A client that has registered for messages, which the test sends in place of the run loop.
class DriverCallback : public OneClient {
  protected:
    DriverCallback() {
        g_function = nullptr;
        client_->open(true);
        EXPECT_TRUE(wait_until([] { return g_function != nullptr; }));
    }
    static void send(uint32_t count, void** arguments) { g_function.load()(g_context, 0, arguments, count); }
    static void send_one(uint64_t argument) { send(1, reinterpret_cast<void**>(argument)); }
};

TEST_F(DriverCallback, GetsOneArgumentOrThreeToSixteenAndNothingElseIsRead) {
    std::vector<InterruptEvent> events;
    client_->set_callback([&](const InterruptEvent& event) { events.push_back(event); });
    for (const uint32_t count : {0u, 2u, 17u, 0x80000000u, ~0u})
        send(count, reinterpret_cast<void**>(uintptr_t{8}));
    send(3, nullptr);
    EXPECT_EQ(events.size(), 0u);
    send_one(8);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].word[0], 8u);
}

TEST_F(DriverCallback, HasEndedWhenItIsReplaced) {
    std::atomic<bool> running = false;
    std::atomic<bool> replaced = false;
    client_->set_callback([&](const InterruptEvent&) {
        running = true;
        EXPECT_FALSE(wait_until([&] { return replaced.load(); }, std::chrono::milliseconds(100)));
        running = false;
    });
    std::thread message([] { send_one(1); });
    EXPECT_TRUE(wait_until([&] { return running.load(); }));
    client_->set_callback(nullptr);
    EXPECT_FALSE(running);
    replaced = true;
    message.join();
}

TEST_F(DriverCallback, IsReplacedInTheMiddleOfAFlood) {
    constexpr uint64_t kMessages = 5000;
    std::atomic<uint64_t> calls = 0;
    std::atomic<bool> done = false;
    const auto replace = [&] {
        client_->set_callback(
            [&calls, one = std::make_shared<uint64_t>(1)](const InterruptEvent&) { calls += *one; });
    };
    replace();
    std::thread messages([&] {
        for (uint64_t i = 0; i < kMessages; ++i)
            send_one(i);
        done = true;
    });
    while (!done)
        replace();
    messages.join();
    EXPECT_EQ(calls, kMessages);
}

}  // namespace
