#include <kivos/shared_memory.h>
#include <kivos/sockets.h>
#include <kivplatform/frames.h>
#include <kivplatform/waker.h>
#include <mach/mach_vm.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/un.h>

#include "platform/Services.h"
#include "support/RawFrames.h"
#include "support/TemporaryDirectory.h"
#include "support/ThisProcess.h"

namespace {

constexpr auto kDone = kIOReturnSuccess;
constexpr auto kRefused = kIOReturnBadArgument;
const uint64_t kPage = kivos::page_size();

/// A driver process on a thread of the test: one service, and replies and messages as the test says.
class ScriptedDriver {
  public:
    struct Reply {
        int32_t status;
        kivplatform_mapping payload;
        size_t size, files;  ///< So much of the payload is sent, and the file's descriptor so often.
    };
    Reply map_reply{};  ///< To KIVPLATFORM_MAP.
    kivos::Descriptor file = kivos::shared_memory(4 * kPage);
    std::atomic<int> channel = -1;  ///< Of the last asynchronous call; selector 0 is refused.

    ScriptedDriver() {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, (directory_ / "driver.sock").c_str());
        setenv("KIVSIM_SOCKET", address.sun_path, 1);
        EXPECT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        listen(listener_.get(), 8);
        thread_ = std::thread([this] { serve(); });
    }
    ~ScriptedDriver() { die(); }

    /// As a process that is killed.
    void die() {
        end_.wake();
        if (thread_.joinable()) thread_.join();
        listener_.reset();
        kivos::Descriptor(channel.exchange(-1)).reset();
    }

    /// A message of so many bytes, with the arguments 1, 2, 3...; may block.
    bool send_message(int32_t result, uint32_t count = 0, size_t size = 8) const {
        uint64_t words[20] = {uint64_t{count} << 32 | static_cast<uint32_t>(result)};
        for (uint64_t i = 1; i < 20; ++i)
            words[i] = i;
        return send_raw(channel, framed({reinterpret_cast<const char*>(words), size}));
    }

  private:
    struct Program {
        kivos::Descriptor socket;
        kivplatform::IncomingFrames requests{4096, kivplatform::IncomingFrames::Descriptors::Taken};
    };

    void serve() {
        std::vector<std::unique_ptr<Program>> programs;
        for (;;) {
            std::vector<pollfd> polled{{end_.descriptor(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
            for (const auto& each : programs)
                polled.push_back({each->socket.get(), POLLIN, 0});
            poll(polled.data(), static_cast<nfds_t>(polled.size()), -1);
            if (polled[0].revents != 0) return;
            for (size_t i = programs.size(); i-- > 0;) {
                if (polled[i + 2].revents != 0 && !answer(*programs[i]))
                    programs.erase(programs.begin() + static_cast<std::ptrdiff_t>(i));
            }
            if (polled[1].revents != 0)
                programs.push_back(std::make_unique<Program>(Program{kivos::accept_from(listener_.get())}));
        }
    }

    bool answer(Program& program) {
        kivplatform_request request{};
        kivos::Descriptor beside;
        if (program.requests.receive(program.socket.get()) == kivplatform::IncomingFrames::Outcome::Ended)
            return false;
        const auto message = program.requests.take(beside);
        if (!message) return true;
        std::memcpy(&request, message->data(), sizeof request);
        Reply reply{0, {7, 0, 0}, request.kind == KIVPLATFORM_LIST ? sizeof(uint64_t) : 0, 0};
        if (request.kind == KIVPLATFORM_MAP) reply = map_reply;
        if (request.kind == KIVPLATFORM_CALL_ASYNC) {
            const kivos::Descriptor former(channel.exchange(dup(beside.get())));
            if (request.number == 0) reply.status = -1;
        }
        const std::string text =
            bytes_of(kivplatform_reply{reply.status, 0}) + bytes_of(reply.payload).substr(0, reply.size);
        return send_raw(program.socket.get(), framed(text, static_cast<uint32_t>(reply.files)), file.get(),
                        reply.files);
    }

    const TemporaryDirectory directory_;
    kivos::Descriptor listener_ = kivos::stream_socket(AF_UNIX);
    const kivplatform::Waker end_;
    std::thread thread_;
};

/// A driver process and a connection to it, a port that is never destroyed, and the results and arguments.
class Connected : public testing::Test {
  protected:
    Connected() { add_source(); }
    ~Connected() override { IOServiceClose(connect_); }

    void add_source() {
        const CFRunLoopSourceRef source = IONotificationPortGetRunLoopSource(port_);
        CFRunLoopAddSource(CFRunLoopGetCurrent(), source, kCFRunLoopDefaultMode);
    }
    kern_return_t call_async(io_connect_t connect, uint32_t selector = 1, uint32_t words = 3) {
        uint64_t reference[9] = {77, reinterpret_cast<uint64_t>(&receive), reinterpret_cast<uint64_t>(this)};
        return IOConnectCallAsyncStructMethod(connect, selector, IONotificationPortGetMachPort(port_),
                                              reference, words, nullptr, 0, nullptr, nullptr);
    }
    static CFRunLoopRunResult run(double seconds, bool one = true) {
        return CFRunLoopRunInMode(kCFRunLoopDefaultMode, seconds, one);
    }
    kern_return_t map(ScriptedDriver::Reply reply) {
        driver_.map_reply = reply;
        address_ = size_ = 1;
        return IOConnectMapMemory64(connect_, 0, mach_task_self(), &address_, &size_, kIOMapAnywhere);
    }
    kern_return_t unmap(mach_vm_address_t at) const {
        return IOConnectUnmapMemory64(connect_, 0, mach_task_self(), at);
    }
    static bool mapped(uint64_t at) { return msync(reinterpret_cast<void*>(at), kPage, MS_ASYNC) == 0; }

    ScriptedDriver driver_;
    const io_connect_t connect_ = open_first();
    const IONotificationPortRef port_ = IONotificationPortCreate(kIOMainPortDefault);
    std::vector<std::vector<uint64_t>> came_;
    std::function<void()> on_message_ = [] {};
    mach_vm_address_t address_ = 0;
    mach_vm_size_t size_ = 0;

  private:
    static void receive(void* context, IOReturn result, void** arguments, uint32_t count) {
        auto& test = *static_cast<Connected*>(context);
        auto* const values = reinterpret_cast<uint64_t*>(arguments);
        auto& message = test.came_.emplace_back(values, values + (count == 1 ? 0 : count));
        if (count == 1) message.push_back(reinterpret_cast<uint64_t>(arguments));
        message.insert(message.begin(), static_cast<uint64_t>(result));
        test.on_message_();
    }
};
using PlatformMessages = Connected;
using PlatformMemory = Connected;

TEST_F(PlatformMessages, ComeWithTheirArgumentsOrNotAtAll) {
    ASSERT_EQ(call_async(connect_), kDone);
    const std::tuple<uint32_t, size_t, bool> rows[] = {
        {0, 8, true},   {1, 16, true},  {3, 32, true},     {16, 136, true}, {2, 24, false},
        {4, 32, false}, {3, 40, false}, {~0u, 136, false}, {0, 7, false},   {0, 0, false}};
    for (const auto& [count, size, comes] : rows) {
        std::vector<std::vector<uint64_t>> expected{{6}};
        if (comes) expected.insert(expected.begin(), {5});
        for (uint64_t i = 1; comes && i <= count; ++i)
            expected.front().push_back(i);
        came_.clear();
        ASSERT_TRUE(driver_.send_message(5, count, size) && driver_.send_message(6));
        while (came_.size() < expected.size())
            ASSERT_EQ(run(20), kCFRunLoopRunHandledSource) << count;
        EXPECT_EQ(came_, expected);
    }
    for (const uint32_t words : {0u, 9u})
        EXPECT_EQ(call_async(connect_, 1, words), kRefused);
    EXPECT_EQ(call_async(connect_, 0), -1);
    EXPECT_EQ(IOConnectCallAsyncStructMethod(connect_, 1, connect_, nullptr, 0, nullptr, 0, nullptr, nullptr),
              kRefused);
}

TEST_F(PlatformMessages, WaitForARunAndAStopDoesNot) {
    std::thread(CFRunLoopRun).join();  // Without a source it returns.
    ASSERT_EQ(call_async(connect_), kDone);
    for (int i = 1; i <= 3; ++i)
        driver_.send_message(i);
    CFRunLoopStop(CFRunLoopGetCurrent());  // Lost.
    on_message_ = [this] {
        if (came_.size() > 1) return;
        CFRunLoopStop(CFRunLoopGetCurrent());  // Of this run, not of the one inside it.
        EXPECT_EQ(run(20), kCFRunLoopRunHandledSource);
    };
    EXPECT_EQ(run(20, false), kCFRunLoopRunStopped);
    EXPECT_EQ(came_.size(), 2u);
    EXPECT_EQ(run(0), kCFRunLoopRunHandledSource);
    EXPECT_EQ(run(0.01), kCFRunLoopRunTimedOut);
    IONotificationPortDestroy(port_);
    EXPECT_EQ(run(20), kCFRunLoopRunFinished);
}

TEST_F(PlatformMessages, ReachARunningLoopInOrderUntilItIsStopped) {
    const ptrdiff_t before = open_descriptors();
    std::atomic<CFRunLoopRef> loop = nullptr;
    std::atomic<uint64_t> in_order = 0;
    on_message_ = [&] { in_order += came_.back().front() == in_order ? 1u : 0u; };
    std::thread runner([&] {
        add_source();
        CFRetain(CFRunLoopGetCurrent());
        loop = CFRunLoopGetCurrent();
        CFRunLoopRun();
    });
    ASSERT_TRUE(wait_until([&] { return loop.load() != nullptr; }));
    const io_connect_t other = open_first();
    int sent = 0;
    for (const io_connect_t each : {connect_, other}) {  // The driver leaves the first for the second.
        ASSERT_EQ(call_async(each), kDone);
        for (int i = 0; i < 10000; ++i)
            driver_.send_message(sent++);
        EXPECT_TRUE(wait_until([&] { return in_order == static_cast<uint64_t>(sent); }));
    }
    driver_.die();
    IOServiceClose(other);
    EXPECT_TRUE(wait_until([&] { return open_descriptors() <= before; }));
    CFRunLoopStop(loop);
    CFRunLoopStop(loop);  // Perhaps the thread has ended: the reference keeps its loop.
    runner.join();
    CFRelease(loop);
}

TEST_F(PlatformMessages, OfAFloodDoNotHoldUpThoseOfAnotherConnection) {
    const io_connect_t other = open_first();
    int channels[2];
    for (int& each : channels) {
        ASSERT_EQ(call_async(&each == channels ? connect_ : other), kDone);
        each = driver_.channel.exchange(-1);
    }
    const auto send_one = [&](uint64_t from) {  // The result, and no arguments.
        return send_raw(channels[from], framed(bytes_of(from)));
    };
    on_message_ = [&] { EXPECT_TRUE(send_one(came_.back().front())); };  // Neither ever runs dry.
    EXPECT_TRUE(send_one(0) && send_one(1));
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(run(20), kCFRunLoopRunHandledSource);
    for (const uint64_t from : {0u, 1u})
        EXPECT_GE(std::count(came_.begin(), came_.end(), std::vector{from}), 5) << from;
    IOServiceClose(other);
    for (const int each : channels)
        close(each);
}

TEST_F(PlatformMessages, EndWithTheirConnectionAlsoInsideACallback) {
    ptrdiff_t before = 0;
    for (int round = 0; round < 100; ++round) {
        const bool inside = round % 2 == 0;
        const io_connect_t connect = open_first();
        ASSERT_EQ(call_async(connect), kDone);
        on_message_ = [connect] { EXPECT_EQ(IOServiceClose(connect), kDone); };
        EXPECT_TRUE(driver_.send_message(1) && driver_.send_message(2));
        if (!inside) on_message_();
        came_.clear();
        EXPECT_EQ(run(0), inside ? kCFRunLoopRunHandledSource : kCFRunLoopRunTimedOut);
        EXPECT_EQ(run(0), kCFRunLoopRunTimedOut);
        EXPECT_EQ(came_.size(), inside ? 1u : 0u);
        if (before == 0) before = open_descriptors();
    }
    EXPECT_TRUE(wait_until([&] { return open_descriptors() <= before; }));
}

TEST_F(PlatformMemory, IsSharedBothWaysAndMappedOnce) {
    ASSERT_EQ(map({0, {1, kPage, 2 * kPage}, 24, 1}), kDone);
    const mach_vm_address_t first = address_;
    EXPECT_EQ(size_, 2 * kPage);
    void* const drivers = mmap(nullptr, 4 * kPage, PROT_READ | PROT_WRITE, MAP_SHARED, driver_.file.get(), 0);
    ASSERT_NE(drivers, MAP_FAILED);
    auto* const memory = static_cast<volatile char*>(drivers);
    auto* const program = reinterpret_cast<volatile char*>(first);
    memory[kPage] = 'd';
    EXPECT_EQ(program[0], 'd');
    program[size_ - 1] = 'p';
    EXPECT_EQ(memory[3 * kPage - 1], 'p');
    munmap(drivers, 4 * kPage);

    ASSERT_EQ(map({0, {1, kPage, 2 * kPage}, 24, 1}), kDone);
    EXPECT_EQ(address_, first);
    ASSERT_EQ(map({0, {1, 2 * kPage, 2 * kPage}, 24, 1}), kDone);
    EXPECT_NE(address_, first);
    // The driver's memory of this moment is undone, at whatever address.
    const mach_vm_address_t second = address_;
    for (const kern_return_t expected : {kDone, kRefused})
        EXPECT_EQ(unmap(first), expected);
    EXPECT_TRUE(mapped(first) && !mapped(second));
    driver_.map_reply = {-1, {}, 0, 0};
    EXPECT_EQ(unmap(first), kRefused);
    driver_.map_reply = {0, {1, kPage, 2 * kPage}, 24, 1};
    EXPECT_EQ(unmap(second), kDone);
    EXPECT_FALSE(mapped(first));
    ASSERT_EQ(map({0, {1, kPage, kPage}, 24, 1}), kDone);
    EXPECT_EQ(IOServiceClose(connect_), kDone);
    EXPECT_FALSE(mapped(address_));
}

TEST_F(PlatformMemory, ThatCannotBeTrustedIsRefusedAndLeaksNothing) {
    // clang-format off
    const ScriptedDriver::Reply refused[] = {
        {-1, {1, 0, kPage}, 0, 0}, {-1, {1, 0, kPage}, 24, 1},                           // By the driver.
        {0, {1, 0, kPage}, 24, 0}, {0, {1, 0, kPage}, 24, 2}, {0, {1, 0, kPage}, 24, 8},    // Not one descriptor.
        {0, {1, 0, kPage}, 23, 1}, {0, {1, 0, 0}, 24, 1}, {0, {1, 0, kPage + 1}, 24, 1}, {0, {1, 8, kPage}, 24, 1},
        {0, {1, 0, 5 * kPage}, 24, 1}, {0, {1, 4 * kPage, kPage}, 24, 1}, {0, {1, -kPage, 2 * kPage}, 24, 1}};
    // clang-format on
    const ptrdiff_t before = open_descriptors();
    for (const ScriptedDriver::Reply& reply : refused) {
        EXPECT_EQ(map(reply), kRefused) << &reply - refused;
        EXPECT_TRUE(address_ == 1 && size_ == 1);
    }
    EXPECT_EQ(IOConnectMapMemory64(connect_, 0, 1, nullptr, &size_, kIOMapAnywhere), kRefused);
    EXPECT_EQ(IOConnectMapMemory64(connect_, 0, 1, &address_, nullptr, kIOMapAnywhere), kRefused);
    EXPECT_EQ(map({0, {1, 3 * kPage, kPage}, 24, 1}), kDone);
    EXPECT_LE(open_descriptors(), before);
    if (kivos::kMemoryIsSealed) {
        const std::unique_ptr<FILE, int (*)(FILE*)> unsealed(std::tmpfile(), &std::fclose);
        EXPECT_EQ(ftruncate(fileno(unsealed.get()), static_cast<off_t>(kPage)), 0);
        driver_.file = kivos::Descriptor(dup(fileno(unsealed.get())));
        EXPECT_EQ(map({0, {2, 0, kPage}, 24, 1}), kRefused) << "it might shrink under the mapping";
    }
    driver_.die();
    EXPECT_EQ(map({}), MACH_SEND_INVALID_DEST);
    EXPECT_EQ(unmap(address_), MACH_SEND_INVALID_DEST);
}

TEST(PlatformMemoryRegions, AreFoundByAddressOrAboveIt) {
    // A hole, then a page that is readable; what differs above keeps it a region of its own.
    void* const block = mmap(nullptr, 3 * kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(block, MAP_FAILED);
    const uint64_t readable = reinterpret_cast<uint64_t>(block) + kPage;
    ASSERT_EQ(mprotect(static_cast<char*>(block) + kPage, kPage, PROT_READ), 0);
    ASSERT_EQ(munmap(block, kPage), 0);
    for (const uint64_t asked : {readable - 1, readable, readable + kPage - 1, ~uint64_t{0}}) {
        mach_vm_address_t address = asked;
        mach_vm_size_t size = 0;
        vm_region_basic_info_data_64_t info{};
        mach_msg_type_number_t count = VM_REGION_BASIC_INFO_COUNT_64;
        mach_port_t object = MACH_PORT_NULL;
        const bool found = asked != ~uint64_t{0};
        EXPECT_EQ(mach_vm_region(mach_task_self(), &address, &size, VM_REGION_BASIC_INFO_64,
                                 reinterpret_cast<vm_region_info_t>(&info), &count, &object),
                  found ? KERN_SUCCESS : KERN_INVALID_ADDRESS);
        EXPECT_EQ(address, found ? readable : asked);
        EXPECT_EQ(size, found ? kPage : 0);
        EXPECT_EQ(info.protection, found ? VM_PROT_READ : 0);
    }
    munmap(static_cast<char*>(block) + kPage, 2 * kPage);
}

}  // namespace
