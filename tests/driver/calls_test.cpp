#include "driver/Clients.h"
#include "platform/Services.h"

namespace {

using Client = kivDriverClient;
using Values = std::vector<uint64_t>;

constexpr uint64_t kOld = 0xEEEEEEEEEEEEEEEE;  ///< In every byte of a result before the call.

/// A wire number, little-endian, as the trace writes bytes.
std::string le(uint64_t value, std::size_t width) {
    std::string bytes(reinterpret_cast<const char*>(&value), sizeof value);
    bytes.resize(width);
    return hex(bytes, width);
}
constexpr auto u8 = [](uint64_t value) { return le(value, 1); };
constexpr auto u16 = [](uint64_t value) { return le(value, 2); };
constexpr auto u32 = [](uint64_t value) { return le(value, 4); };
constexpr auto u64 = [](uint64_t value) { return le(value, 8); };

/// Where in the reply a result is.
struct Field {
    size_t offset;
    size_t width;

    /// Bytes that were not sent are 0.
    uint64_t in(std::string reply) const {
        reply.resize(2 * 4096, '0');
        uint64_t value = 0;
        for (size_t i = offset + width; i-- > offset;)
            value = value << 8 | std::stoul(reply.substr(2 * i, 2), nullptr, 16);
        return value;
    }
};

struct Operation {
    uint32_t selector;
    std::string input;
    std::vector<Field> results;
    bool zeroed;  ///< The results, on failure; otherwise they are left alone.
    std::function<int32_t(Client&, Values&)> run;
};

/// `operation` with results of type T that were kOld before, as values.
template <typename T, size_t count>
auto giving(int32_t (*operation)(Client&, T (&)[count])) {
    return [operation](Client& client, Values& values) {
        T results[count];
        std::memset(static_cast<void*>(results), 0xEE, sizeof results);
        const int32_t status = operation(client, results);
        values.assign(std::begin(results), std::end(results));
        return status;
    };
}

/// `operation` without results.
template <typename Call>
auto only(Call operation) {
    return [operation](Client& client, Values&) { return operation(client); };
}

int32_t device_conf(Client& client, Values& values) {
    Client::device_conf_t conf{0xEE, {0xEEEEEEEE, 0xEEEEEEEE}, 0xEEEEEEEE, 0xEEEE, 0xEE};
    const int32_t status = client.get_device_conf(conf);
    EXPECT_EQ(conf.ptp_selected, 0xEE);
    values = {conf.device_index, conf.ip[0], conf.ip[1], conf.tun, conf.port};
    return status;
}

std::string pci_access(uint32_t bar, uint64_t offset, uint32_t data32, uint64_t data64) {
    return u32(bar) + u32(0) + u64(offset) + u32(data32) + u32(0) + u64(data64);
}

/// Every operation that calls the driver, in an order in which the simulator takes them all.
std::vector<Operation> operations() {
    const std::string process = u64(static_cast<uint64_t>(getpid()));
    static uint32_t two = 2;
    static uint64_t descriptors[] = {0x1111, 0x2222, 0x3333, 0x4444444444444444};
    // clang-format off
    return {
        {wire::kInit, process, {}, true, only([](auto& c) { return c.init(); })},
        {wire::kGetVersion, "", {{0, 2}, {2, 2}, {4, 2}}, false,
            giving<uint16_t, 3>([](auto& c, auto& v) { return c.get_version_dext(v[0], v[1], v[2]); })},
        {wire::kWritePci32, pci_access(2, 0x10, 0xCAFE0001, 0), {}, true,
            only([](auto& c) { return c.write_pci32(2, 0x10, 0xCAFE0001); })},
        {wire::kWritePci64, pci_access(3, 0xFFFFF8, 0, 0xCAFE000200000003), {}, true,
            only([](auto& c) { return c.write_pci64(3, 0xFFFFF8, 0xCAFE000200000003); })},
        {wire::kReadPci32, pci_access(2, 0x10, 0, 0), {{16, 4}}, true,
            giving<uint32_t, 1>([](auto& c, auto& v) { return c.read_pci32(2, 0x10, v); })},
        {wire::kReadPci64, pci_access(3, 0xFFFFF8, 0, 0), {{24, 8}}, true,
            giving<uint64_t, 1>([](auto& c, auto& v) { return c.read_pci64(3, 0xFFFFF8, v); })},
        {wire::kReadPci32, pci_access(2, 0x10, 0xCAFE0004, 0), {}, true,
            only([](auto& c) { return c.write_pci32_test(2, 0x10, 0xCAFE0004); })},
        {wire::kIoMalloc, le(0, 16) + u32(7) + u32(4096) + u32(3) + u32(0), {}, true,
            only([](auto& c) { return c.iomalloc(7, 4096, 3); })},
        {wire::kGetIoBusAddress, u32(7) + u32(2) + u64(0), {{8, 8}}, true,
            giving<uint64_t, 1>([](auto& c, auto& v) { return c.get_iobus_address(7, 2, v); })},
        {wire::kIoFree, le(0, 16) + u32(7) + le(0, 12), {}, true, only([](auto& c) { return c.iofree(7); })},
        {wire::kGetPtpEpochTime, "", {{24, 8}}, true,
            giving<uint64_t, 1>([](auto& c, auto& v) { return c.get_ptp_epoch_time(v); })},
        {wire::kGetPtpEpochTimeAndSystemTime, "", {{0, 8}, {8, 8}, {16, 8}}, true,
            giving<uint64_t, 3>([](auto& c, auto& v) {
                return c.get_ptp_epoch_time_and_system_time(v[0], v[1], v[2]); })},
        {wire::kReset, u32(0xFFFFFFFF) + u32(2), {}, true, only([](auto& c) { return c.reset(-1, 2); })},
        {wire::kResetBuffer, "", {}, true, only([](auto& c) { return c.reset_buffer(); })},
        {wire::kEnableInterrupt, u32(0x80000001), {}, true, only([](auto& c) { return c.enable_interrupt(0x80000001); })},
        {wire::kDisableInterrupt, u32(0x80000001), {}, true, only([](auto& c) { return c.disable_interrupt(0x80000001); })},
        {wire::kLoadBootConf, "", {{0, 8}, {8, 8}, {24, 8}, {32, 8}, {40, 8}, {48, 8}, {56, 8}, {64, 8}}, false,
            giving<uint64_t, 8>([](auto& c, auto& v) {
                Client::boot_conf_t conf;
                std::memset(&conf, 0xEE, sizeof conf);
                const int32_t status = c.load_boot_conf(conf);
                std::memcpy(v, &conf, sizeof v);
                return status; })},
        {wire::kSetDescriptorAnc, u32(1) + u32(2) + u64(0x1111) + u64(0x2222) + u64(0x3333) + u64(0x4444444444444444) + le(0, 4048),
            {}, true, only([](auto& c) { return c.set_descriptor_anc(true, two, descriptors); })},
        {wire::kControlAnc, u8(1) + le(0, 3) + u32(0x23456789) + u16(0xABCD) + le(0, 2), {}, true,
            only([](auto& c) { return c.control_anc({1, 0x23456789, 0xABCD}); })},
        {wire::kGetAncInfo, "", {{0, 8}, {8, 8}}, false,
            giving<uint64_t, 2>([](auto& c, auto& v) { return c.get_anc_info(&v[0], &v[1]); })},
        {wire::kSetDeviceConf, u8(9) + le(0, 3) + u32(0x0A000001) + u32(0x0A000002) + u32(0x0A000003) + u16(0x1F90) + u8(1) + u8(0),
            {}, true,
            only([](auto& c) {
                return c.set_device_conf({9, {0x0A000001, 0x0A000002}, 0x0A000003, 0x51F90, 1}); })},
        {wire::kGetDeviceConf, "", {{0, 1}, {4, 4}, {8, 4}, {12, 4}, {16, 2}}, false, device_conf},
        {wire::kRegisterProcessData, process + u32(1) + u32(0xFE) + u16(0xFFFE) + u16(0) + u32(0xFFFFFFFE), {}, true,
            only([](auto& c) { return c.register_process_data(true, 0xFE, 0xFFFE, 0xFFFFFFFE); })},
        {wire::kUnregisterProcessData, process + u32(0) + u32(0xFE) + u16(0xFFFE) + u16(0) + u32(0), {}, true,
            only([](auto& c) { return c.unregister_process_data(false, 0xFE, 0xFFFE); })},
        {wire::kGetUseResourceData, "", {{0, 2}, {2, 2}, {4, 2}, {6, 2}, {8, 2}, {10, 2}}, false,
            giving<uint16_t, 6>([](auto& c, auto& v) {
                return c.get_use_resource_data(reinterpret_cast<Client::use_resource&>(v)); })},
        {wire::kGetPciLinkInfo, "", {{0, 1}, {1, 1}}, false,
            giving<uint8_t, 2>([](auto& c, auto& v) {
                return c.get_pci_link_info(reinterpret_cast<Client::pci_link_info&>(v)); })},
        {wire::kDeinit, process, {}, true, only([](auto& c) { return c.deinit(); })},
    };
    // clang-format on
}

TEST(DriverCalls, SendTheirBytesAndFindTheirResultsInTheReplyHoweverShort) {
    for (const uint32_t longest : {4096u, 50u, 17u, 3u, 0u}) {
        auto cards = kivsim::default_cards();
        for (uint32_t selector = 0; selector < 64; ++selector)
            cards[0].driver_faults.push_back(fault(selector).reply_size(longest));
        const RunningSimulator simulator(cards);
        const auto client = first_client();
        size_t events = simulator.trace().size();
        for (const Operation& operation : operations()) {
            SCOPED_TRACE(std::to_string(operation.selector) + ", " + std::to_string(longest) + " bytes");
            Values values;
            EXPECT_EQ(operation.run(*client, values), 0);
            const auto trace = simulator.trace();
            ASSERT_EQ(trace.size(), ++events);
            EXPECT_EQ(trace.back().selector, operation.selector);
            EXPECT_EQ(trace.back().input, operation.input);
            Values expected;
            for (const Field& field : operation.results)
                expected.push_back(field.in(trace.back().reply));
            EXPECT_EQ(values, expected);
        }
    }
}

TEST(DriverCalls, ThatFailGiveTheStatusAndNoResults) {
    auto cards = kivsim::default_cards();
    for (uint32_t selector = 0; selector < 64; ++selector)
        cards[0].driver_faults.push_back(fault(selector).status(kIOReturnBusy));
    const RunningSimulator simulator(cards);
    DriverLines lines;
    const auto list = clients();
    Client& failing = *list.at(0);
    Client& closed = *list.at(2);
    EXPECT_EQ(closed.close(), 0);
    for (const Operation& operation : operations()) {
        SCOPED_TRACE(operation.selector);
        Values expected;
        for (const Field& field : operation.results)
            expected.push_back(operation.zeroed ? 0 : kOld >> (64 - 8 * field.width));
        Values values;
        EXPECT_EQ(operation.run(failing, values), kIOReturnBusy);
        EXPECT_EQ(values, expected);
        EXPECT_EQ(lines.take(), Lines{});
        EXPECT_EQ(operation.run(closed, values), -1);
        EXPECT_EQ(lines.take(), Lines{"Not Initialized"});
    }
    EXPECT_FALSE(failing.is_hpq_anc_enable());
    EXPECT_TRUE(simulator.trace().back().status == "0xe00002d5") << "a call on a closed client";
}

TEST(DriverCalls, CheckTheirArgumentsInTheirOrder) {
    auto cards = kivsim::default_cards();
    cards[0].driver_faults = {fault(wire::kGetPtpEpochTime).nth(2).status(kIOReturnBusy)};
    const RunningSimulator simulator(cards);
    DriverLines lines;
    const auto open = first_client();
    const auto closed = first_client();
    closed->close();
    uint64_t descriptors[2 * 254] = {};
    descriptors[2 * 254 - 1] = 0x0102030405060708;
    const auto set = [](uint32_t count, uint64_t* first) {
        return [=](Client& c) mutable { return c.set_descriptor_anc(false, count, first); };
    };
    const auto bus = [](Client& c) { return c.get_iobus_address(0, 0, nullptr); };
    const auto time = [](Client& c) { return c.get_ptp_epoch_time(nullptr); };
    const Lines bad = {"Bad Arugment"};
    const std::tuple<const char*, std::function<int32_t(Client&)>, Lines, bool, int32_t> rows[] = {
        {"read", [](Client& c) { return c.read_pci32(0, 0, nullptr); }, bad, false, -1},
        {"bus address", bus, {"Bad arugment"}, false, -1},
        {"time", time, bad, true, -1},
        {"failing time", time, {}, true, kIOReturnBusy},
        {"ANC info", [](Client& c) { return c.get_anc_info(nullptr, nullptr); }, {}, true, 0},
        {"2^32-1 descriptors", set(~0u, nullptr), {"Over size max=255 now=4294967295"}, false, -1},
        {"255 descriptors", set(255, descriptors), {"Over size max=255 now=255"}, false, -1},
        {"no place", set(1, nullptr), bad, false, -1},
        {"no descriptors", set(0, nullptr), {}, true, 0},
        {"254 descriptors", set(254, descriptors), {}, true, 0},
    };
    size_t events = simulator.trace().size();
    for (const auto& [what, run, said, sent, status] : rows) {
        SCOPED_TRACE(what);
        EXPECT_EQ(run(*open), status);
        EXPECT_EQ(lines.take(), said);
        EXPECT_EQ(run(*closed), -1);
        EXPECT_EQ(lines.take(), Lines{"Not Initialized"});
        events += sent ? 1 : 0;
        EXPECT_EQ(simulator.trace().size(), events);
    }
    EXPECT_EQ(simulator.calls(wire::kSetDescriptorAnc).back().input,
              u32(0) + u32(254) + le(0, 16 * 254 - 8) + u64(0x0102030405060708) + le(0, 16));
}

TEST(DriverCalls, ReadTheAncModeFromOneBitAndPrintTheDiagnosticReply) {
    const RunningSimulator simulator;
    const auto client = first_client();
    for (const uint32_t value : {1u << 29, ~(1u << 29)}) {
        ASSERT_EQ(client->write_pci32(1, 0x0C, value), 0);
        EXPECT_EQ(client->is_hpq_anc_enable(), value == 1u << 29);
    }
    uint16_t version[3]{};
    client->get_version(version[0], version[1], version[2]);
    EXPECT_EQ(std::tuple(version[0], version[1], version[2]), std::tuple(2, 3, 1));
    testing::internal::CaptureStdout();
    EXPECT_EQ(client->write_pci32_test(1, 0x0C, 1), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "device index=1 address=000000000000000C\npre=DFFFFFFF\naft=00000000\n");
}

}  // namespace
