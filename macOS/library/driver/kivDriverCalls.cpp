// The driver's external methods: how each operation's arguments become bytes, and the reply its results.
#include <IOKit/IOKitLib.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <type_traits>

#include <kiv/kivDriverClient.h>
#include "device/registers.h"
#include "driver/driverLog.h"
#include "driver/wire.h"

namespace wire = kiv::wire;

namespace {

/// No input or no output.
struct Nothing {};

template <typename Struct>
constexpr std::size_t size_of() {
    return std::is_same_v<Struct, Nothing> ? 0 : sizeof(Struct);
}

wire::PciAccess pci_access(uint32_t bar, uint64_t offset) {
    wire::PciAccess access{};
    access.bar = bar;
    access.offset = offset;
    return access;
}

/// Spelt so here, and otherwise in get_iobus_address(): docs/oddities.md.
int32_t bad_argument(int line) {
    driver_log(line, "Bad Arugment\n");
    return -1;
}

}  // namespace

/// The connection; 0, and a line that says so, when the client is closed.
uint32_t kivDriverClient::connected() const {
    const uint32_t connect = connect_;
    if (connect == 0) driver_log(__LINE__, "Not Initialized\n");
    return connect;
}

/// One call. The reply is zeroed first; the driver may produce less of it than its size.
template <typename In, typename Out>
int32_t kivDriverClient::call(uint32_t selector, const In* input, Out* output) {
    const uint32_t connect = connected();
    if (connect == 0) return -1;
    std::size_t size = size_of<Out>();
    const bool replies = size != 0;
    if (replies) std::memset(static_cast<void*>(output), 0, size);
    return IOConnectCallStructMethod(connect, selector, size_of<In>() != 0 ? input : nullptr, size_of<In>(),
                                     replies ? output : nullptr, replies ? &size : nullptr);
}

template <typename In>
int32_t kivDriverClient::send(uint32_t selector, const In& input) {
    return call<In, Nothing>(selector, &input, nullptr);
}

template <typename Out>
int32_t kivDriverClient::receive(uint32_t selector, Out& output) {
    return call<Nothing, Out>(selector, nullptr, &output);
}

int32_t kivDriverClient::init() {
    return send<int64_t>(wire::kInit, getpid());
}

int32_t kivDriverClient::deinit() {
    return send<int64_t>(wire::kDeinit, getpid());
}

int32_t kivDriverClient::load_boot_conf(boot_conf_t& conf) {
    static_assert(sizeof(boot_conf_t) == 112 && offsetof(boot_conf_t, unknown_16) == 16 &&
                  offsetof(boot_conf_t, bus) == 32 && offsetof(boot_conf_t, function) == 34 &&
                  offsetof(boot_conf_t, identity) == 40 && offsetof(boot_conf_t, identity_text) == 48);
    wire::BootConf reply;
    const int32_t status = receive(wire::kLoadBootConf, reply);
    if (status != 0) return status;
    conf = {};
    std::memcpy(conf.memory_ids, reply.memory_ids, sizeof conf.memory_ids);
    std::memcpy(conf.unknown_16, reply.host_16, sizeof conf.unknown_16);
    conf.bus = reply.bus;
    conf.device = reply.device;
    conf.function = reply.function;
    conf.identity_kind = reply.identity_kind;
    conf.identity = reply.identity;
    std::memcpy(conf.identity_text, reply.identity_text,
                strnlen(reply.identity_text, sizeof conf.identity_text - 1));
    return 0;
}

int32_t kivDriverClient::set_device_conf(const device_conf_t& conf) {
    wire::DeviceConf request{};
    request.device_index = conf.device_index;
    std::memcpy(request.ip, conf.ip, sizeof request.ip);
    request.tun = conf.tun;
    request.port = static_cast<uint16_t>(conf.port);
    request.ptp_selected = conf.ptp_selected;
    return send(wire::kSetDeviceConf, request);
}

int32_t kivDriverClient::get_device_conf(device_conf_t& conf) {
    wire::DeviceConf reply;
    const int32_t status = receive(wire::kGetDeviceConf, reply);
    if (status != 0) return status;
    conf.device_index = reply.device_index;
    std::memcpy(conf.ip, reply.ip, sizeof conf.ip);
    conf.tun = reply.tun;
    conf.port = reply.port;
    // `ptp_selected` is sent but never read back: docs/oddities.md.
    return 0;
}

void kivDriverClient::get_version(uint16_t& major, uint16_t& minor, uint16_t& patch) const {
    major = 2;
    minor = 3;
    patch = 1;
}

int32_t kivDriverClient::get_version_dext(uint16_t& major, uint16_t& minor, uint16_t& patch) {
    wire::Version reply;
    const int32_t status = receive(wire::kGetVersion, reply);
    if (status != 0) return status;
    major = reply.major;
    minor = reply.minor;
    patch = reply.patch;
    return 0;
}

int32_t kivDriverClient::read_pci32(uint32_t bar, uint64_t offset, uint32_t* value) {
    if (connected() == 0) return -1;
    if (value == nullptr) return bad_argument(__LINE__);
    *value = 0;
    const wire::PciAccess request = pci_access(bar, offset);
    wire::PciAccess reply;
    const int32_t status = call(wire::kReadPci32, &request, &reply);
    if (status == 0) *value = reply.data32;
    return status;
}

int32_t kivDriverClient::read_pci64(uint32_t bar, uint64_t offset, uint64_t* value) {
    if (connected() == 0) return -1;
    if (value == nullptr) return bad_argument(__LINE__);
    *value = 0;
    const wire::PciAccess request = pci_access(bar, offset);
    wire::PciAccess reply;
    const int32_t status = call(wire::kReadPci64, &request, &reply);
    if (status == 0) *value = reply.data64;
    return status;
}

int32_t kivDriverClient::write_pci32(uint32_t bar, uint64_t offset, uint32_t value) {
    wire::PciAccess request = pci_access(bar, offset);
    request.data32 = value;
    return send(wire::kWritePci32, request);
}

int32_t kivDriverClient::write_pci64(uint32_t bar, uint64_t offset, uint64_t value) {
    wire::PciAccess request = pci_access(bar, offset);
    request.data64 = value;
    return send(wire::kWritePci64, request);
}

int32_t kivDriverClient::write_pci32_test(uint32_t bar, uint64_t offset, uint32_t value) {
    wire::PciAccess request = pci_access(bar, offset);
    request.data32 = value;
    wire::PciAccess reply;
    // A read, whatever the name says: docs/oddities.md.
    const int32_t status = call(wire::kReadPci32, &request, &reply);
    if (status != 0) return status;
    std::printf("device index=%u address=%016" PRIX64 "\n", bar, offset);
    std::printf("pre=%08X\n", reply.data32);
    std::printf("aft=%08X\n", reply.zero);
    return 0;
}

int32_t kivDriverClient::iomalloc(uint32_t id, uint32_t elm_size, uint32_t depth) {
    wire::IoMemory request{};
    request.id = id;
    request.elm_size = elm_size;
    request.depth = depth;
    return send(wire::kIoMalloc, request);
}

int32_t kivDriverClient::iofree(uint32_t id) {
    wire::IoMemory request{};
    request.id = id;
    const int32_t status = send(wire::kIoFree, request);
    forget_selection();
    return status;
}

int32_t kivDriverClient::get_iobus_address(uint32_t id, uint32_t index, uint64_t* address) {
    if (connected() == 0) return -1;
    if (address == nullptr) {
        driver_log(__LINE__, "Bad arugment\n");
        return -1;
    }
    *address = 0;
    const wire::IoBusAddress request{id, index, 0};
    wire::IoBusAddress reply;
    const int32_t status = call(wire::kGetIoBusAddress, &request, &reply);
    if (status == 0) *address = reply.address;
    return status;
}

int32_t kivDriverClient::get_ptp_epoch_time(uint64_t* time) {
    wire::PtpTime reply;
    const int32_t status = receive(wire::kGetPtpEpochTime, reply);
    if (status != 0) {
        if (time != nullptr) *time = 0;
        return status;
    }
    if (time == nullptr) return bad_argument(__LINE__);  // Only now: docs/oddities.md.
    *time = reply.time;
    return 0;
}

int32_t kivDriverClient::get_ptp_epoch_time_and_system_time(uint64_t& a, uint64_t& b, uint64_t& c) {
    wire::ThreeTimes reply;
    const int32_t status = receive(wire::kGetPtpEpochTimeAndSystemTime, reply);
    a = status == 0 ? reply.value[0] : 0;
    b = status == 0 ? reply.value[1] : 0;
    c = status == 0 ? reply.value[2] : 0;
    return status;
}

int32_t kivDriverClient::reset(int32_t a, int32_t b) {
    const int32_t status = send(wire::kReset, wire::Reset{a, b});
    forget_selection();
    return status;
}

int32_t kivDriverClient::reset_buffer() {
    const int32_t status = send(wire::kResetBuffer, Nothing{});
    forget_selection();
    return status;
}

int32_t kivDriverClient::enable_interrupt(uint32_t number) {
    return send(wire::kEnableInterrupt, number);
}

int32_t kivDriverClient::disable_interrupt(uint32_t number) {
    return send(wire::kDisableInterrupt, number);
}

int32_t kivDriverClient::set_descriptor_anc(bool direction, uint32_t& count, uint64_t* descriptors) {
    if (connected() == 0) return -1;
    const uint32_t number = count;  // Another thread may change it.
    if (number > wire::kAncSlots - 1) {
        // The numbers stay, though one slot less is accepted: docs/oddities.md.
        driver_log(__LINE__, "Over size max=%u now=%u\n", wire::kAncSlots, number);
        return -1;
    }
    if (descriptors == nullptr && number != 0) return bad_argument(__LINE__);
    wire::AncDescriptors request{};
    request.direction = direction ? 1 : 0;
    request.count = number;
    if (number != 0) std::memcpy(request.slot, descriptors, number * sizeof(wire::AncDescriptor));
    return send(wire::kSetDescriptorAnc, request);
}

int32_t kivDriverClient::control_anc(const anc_control& control) {
    wire::AncControl request{};
    request.a = control.a;
    request.b = control.b;
    request.c = control.c;
    return send(wire::kControlAnc, request);
}

int32_t kivDriverClient::get_anc_info(uint64_t* a, uint64_t* b) {
    wire::AncInfo reply;
    const int32_t status = receive(wire::kGetAncInfo, reply);
    if (status != 0) return status;
    if (a != nullptr) *a = reply.a;
    if (b != nullptr) *b = reply.b;
    return 0;
}

bool kivDriverClient::is_hpq_anc_enable() {
    uint32_t value = 0;
    read_pci32(register_bar_, kiv::registers::kAncMode.offset, &value);
    return (value >> kiv::registers::kAncHighPriority & 1) != 0;
}

int32_t kivDriverClient::register_process_data(bool flag, uint8_t number, uint16_t value, uint32_t data) {
    return send(wire::kRegisterProcessData,
                wire::ProcessData{getpid(), flag ? 1u : 0u, number, value, {}, data});
}

int32_t kivDriverClient::unregister_process_data(bool flag, uint8_t number, uint16_t value) {
    return send(wire::kUnregisterProcessData,
                wire::ProcessData{getpid(), flag ? 1u : 0u, number, value, {}, 0});
}

int32_t kivDriverClient::get_use_resource_data(use_resource& resource) {
    wire::UseResource reply;
    const int32_t status = receive(wire::kGetUseResourceData, reply);
    if (status != 0) return status;
    static_assert(sizeof resource == sizeof reply);
    std::memcpy(&resource, &reply, sizeof reply);
    return 0;
}

int32_t kivDriverClient::get_pci_link_info(pci_link_info& info) {
    wire::PciLink reply;
    const int32_t status = receive(wire::kGetPciLinkInfo, reply);
    if (status != 0) return status;
    std::memcpy(info.value, reply.value, sizeof reply.value);
    return 0;
}
