/// What travels between the driver client and the driver extension: selectors and structs, little-endian.
/// Fields named `unset` are sent as zero and ignored when received.
#ifndef KIV_DRIVER_WIRE_H
#define KIV_DRIVER_WIRE_H

#include <cstddef>
#include <cstdint>

namespace kiv::wire {

/// Function ids: the type of the connection, and the client's key.
inline constexpr uint8_t kFunctionSt2110 = 22;  ///< ST 2110 media function, PCI function 0.
inline constexpr uint8_t kFunctionHps = 23;     ///< On-card processor, PCI function 1.

// clang-format off
enum Selector : uint32_t {                  // input                 output
    kGetVersion                      = 4,   // -                     Version
    kReadPci32                       = 5,   // PciAccess             PciAccess
    kReadPci64                       = 6,   // PciAccess             PciAccess
    kWritePci32                      = 7,   // PciAccess             -
    kWritePci64                      = 8,   // PciAccess             -
    kIoMalloc                        = 10,  // IoMemory              -
    kIoFree                          = 11,  // IoMemory              -
    kSelectMemory                    = 13,  // MemorySelection       -
    kGetIoBusAddress                 = 14,  // IoBusAddress          IoBusAddress
    kGetPtpEpochTime                 = 16,  // -                     PtpTime
    kGetPtpEpochTimeAndSystemTime    = 17,  // -                     ThreeTimes
    kReset                           = 18,  // Reset                 -
    kResetBuffer                     = 19,  // -                     -
    kEnableInterrupt                 = 20,  // uint32_t              -
    kDisableInterrupt                = 21,  // uint32_t              -
    kRegisterInterruptAsyncCallback  = 22,  // -, asynchronous       -
    kInit                            = 24,  // int64_t process id    -
    kDeinit                          = 25,  // int64_t process id    -
    kLoadBootConf                    = 26,  // -                     BootConf
    kSetDescriptorAnc                = 27,  // AncDescriptors        -
    kControlAnc                      = 28,  // AncControl            -
    kGetAncInfo                      = 29,  // -                     AncInfo
    kSetDeviceConf                   = 30,  // DeviceConf            -
    kGetDeviceConf                   = 31,  // -                     DeviceConf
    kRegisterProcessData             = 32,  // ProcessData           -
    kUnregisterProcessData           = 33,  // ProcessData           -
    kGetUseResourceData              = 34,  // -                     UseResource
    kGetPciLinkInfo                  = 35,  // -                     PciLink
};
// clang-format on

struct Version {
    uint16_t major;
    uint16_t minor;
    uint16_t patch;
};
static_assert(sizeof(Version) == 6);

/// The 32-bit and the 64-bit data travel in different fields.
struct PciAccess {
    uint32_t bar;
    uint32_t unset;
    uint64_t offset;  ///< Bytes from the start of the BAR.
    uint32_t data32;
    uint32_t zero;
    uint64_t data64;
};
static_assert(sizeof(PciAccess) == 32 && offsetof(PciAccess, data32) == 16 &&
              offsetof(PciAccess, data64) == 24);

struct MemorySelection {
    uint8_t one;  ///< Always 1.
    uint8_t unset[3];
    uint32_t kind;   ///< 0: driver-allocated memory block, 1: a PCI BAR.
    uint32_t id;     ///< Kind 0.
    uint32_t index;  ///< Kind 0.
    uint32_t bar;    ///< Kind 1.
};
static_assert(sizeof(MemorySelection) == 20 && offsetof(MemorySelection, bar) == 16);

struct IoMemory {
    uint32_t zero_0;
    uint32_t unset_4;
    uint64_t zero_8;
    uint32_t id;
    uint32_t elm_size;  ///< Bytes in an element.
    uint32_t depth;     ///< Number of elements.
    uint32_t unset_28;
};
static_assert(sizeof(IoMemory) == 32 && offsetof(IoMemory, id) == 16 && offsetof(IoMemory, depth) == 24);

struct IoBusAddress {
    uint32_t id;
    uint32_t index;
    uint64_t address;  ///< In the reply.
};
static_assert(sizeof(IoBusAddress) == 16);

struct PtpTime {
    uint64_t other[3];
    uint64_t time;
};
static_assert(sizeof(PtpTime) == 32 && offsetof(PtpTime, time) == 24);

struct ThreeTimes {
    uint64_t value[3];
};
static_assert(sizeof(ThreeTimes) == 24);

struct Reset {
    int32_t a;
    int32_t b;
};
static_assert(sizeof(Reset) == 8);

struct BootConf {
    uint32_t memory_ids[4];
    uint8_t skipped_16[8];
    uint8_t host_16[16];  ///< Host bytes 16 to 31.
    uint8_t bus;          ///< Host byte 32.
    uint8_t device;       ///< Host byte 33.
    uint8_t function;     ///< Host byte 34: PCI function number.
    /// Host byte 35: non-zero, cards are told apart by identity; zero, by identity_text.
    uint8_t identity_kind;
    uint8_t skipped_44[4];
    uint64_t identity;
    char identity_text[64];
};
static_assert(sizeof(BootConf) == 120 && offsetof(BootConf, host_16) == 24 && offsetof(BootConf, bus) == 40 &&
              offsetof(BootConf, identity) == 48 && offsetof(BootConf, identity_text) == 56);

struct DeviceConf {
    uint8_t device_index;
    uint8_t unset_1[3];
    uint32_t ip[2];  ///< Media port addresses, IPv4, first octet in the most significant byte.
    uint32_t tun;    ///< Tunnel address, likewise.
    uint16_t port;   ///< TCP port of the management server at `tun`.
    uint8_t ptp_selected;
    uint8_t unset_19;
};
static_assert(sizeof(DeviceConf) == 20 && offsetof(DeviceConf, ip) == 4 && offsetof(DeviceConf, tun) == 12 &&
              offsetof(DeviceConf, port) == 16 && offsetof(DeviceConf, ptp_selected) == 18);

struct UseResource {
    uint16_t tx[3];
    uint16_t rx[3];
};
static_assert(sizeof(UseResource) == 12);

struct PciLink {
    uint8_t value[2];
};
static_assert(sizeof(PciLink) == 2);

struct AncControl {
    uint8_t a;
    uint8_t unset_1[3];
    uint32_t b;
    uint16_t c;
    uint8_t unset_10[2];
};
static_assert(sizeof(AncControl) == 12 && offsetof(AncControl, c) == 8);

struct AncDescriptor {
    uint64_t word[2];
};
inline constexpr uint32_t kAncSlots = 255;

struct AncDescriptors {
    uint32_t direction;  ///< 0 or 1.
    uint32_t count;
    AncDescriptor slot[kAncSlots];
};
static_assert(sizeof(AncDescriptors) == 4088 && offsetof(AncDescriptors, slot) == 8);

struct AncInfo {
    uint64_t a;
    uint64_t b;
};
static_assert(sizeof(AncInfo) == 16);

struct ProcessData {
    int64_t process_id;
    uint32_t flag;    ///< 0 or 1.
    uint32_t number;  ///< An 8-bit value.
    uint16_t value;
    uint8_t unset_18[2];
    uint32_t data;
};
static_assert(sizeof(ProcessData) == 24 && offsetof(ProcessData, data) == 20);

}  // namespace kiv::wire

#endif
