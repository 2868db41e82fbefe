#include "driver/selectors.h"

#include <IOKit/IOReturn.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <type_traits>

namespace kivsim {

namespace {

namespace wire = kiv::wire;
using std::chrono::nanoseconds;

struct Nothing {};

struct Context {
    VirtualCard& card;
    const FunctionSettings& function;
    uint64_t number;  ///< Of the connection.

    DriverState& driver() const { return card.driver; }
    ConnectionState& connection() const { return card.driver.connections[number]; }
};

using Handler = int32_t (*)(Context&, std::span<const std::byte>, std::vector<std::byte>&);

struct Row {
    uint32_t selector;
    Handler handler;
};

template <typename Function>
struct Signature;
template <typename In, typename Out>
struct Signature<int32_t (*)(Context&, const In&, Out&)> {
    using Input = In;
    using Output = Out;
};

template <typename Struct>
inline constexpr std::size_t kSize = std::is_same_v<Struct, Nothing> ? 0 : sizeof(Struct);

// What a connection may enable and register.
constexpr std::size_t kMostInterrupts = 64;
constexpr std::size_t kMostRegistrations = 1024;

/// The bytes around a method on structs: the input must have just its size; the reply starts as zero.
template <auto method>
int32_t on_structs(Context& context, std::span<const std::byte> bytes, std::vector<std::byte>& output) {
    using Input = typename Signature<decltype(method)>::Input;
    using Output = typename Signature<decltype(method)>::Output;
    if (bytes.size() != kSize<Input>) return kIOReturnBadArgument;
    Input input{};
    Output reply{};
    if (!bytes.empty()) std::memcpy(static_cast<void*>(&input), bytes.data(), bytes.size());
    const int32_t status = method(context, input, reply);
    output.resize(kSize<Output>);
    if (!output.empty()) std::memcpy(output.data(), static_cast<const void*>(&reply), output.size());
    return status;
}

uint64_t now_ns() {
    return static_cast<uint64_t>(
        std::chrono::duration_cast<nanoseconds>(std::chrono::system_clock::now().time_since_epoch()).count());
}

int32_t done(bool inside_bar) {
    return inside_bar ? kIOReturnSuccess : kIOReturnBadArgument;
}

int32_t get_version(Context& context, const Nothing&, wire::Version& reply) {
    const auto& [major, minor, patch] = context.card.settings.driver_version;
    reply = {major, minor, patch};
    return kIOReturnSuccess;
}

int32_t read_pci32(Context& context, const wire::PciAccess& request, wire::PciAccess& reply) {
    reply.bar = request.bar;
    reply.offset = request.offset;
    return done(context.card.bars.read(request.bar, request.offset, reply.data32));
}

int32_t read_pci64(Context& context, const wire::PciAccess& request, wire::PciAccess& reply) {
    reply.bar = request.bar;
    reply.offset = request.offset;
    return done(context.card.bars.read(request.bar, request.offset, reply.data64));
}

int32_t write_pci32(Context& context, const wire::PciAccess& request, Nothing&) {
    return done(context.card.bars.write(request.bar, request.offset, request.data32));
}

int32_t write_pci64(Context& context, const wire::PciAccess& request, Nothing&) {
    return done(context.card.bars.write(request.bar, request.offset, request.data64));
}

int32_t io_malloc(Context& context, const wire::IoMemory& request, Nothing&) {
    return context.driver().allocate(request.id, request.elm_size, request.depth, context.number);
}

int32_t io_free(Context& context, const wire::IoMemory& request, Nothing&) {
    return context.driver().release(request.id, context.number);
}

int32_t get_io_bus_address(Context& context, const wire::IoBusAddress& request, wire::IoBusAddress& reply) {
    const MemoryBlock* const block = context.driver().block(request.id, context.number);
    if (block == nullptr) return kIOReturnNotFound;
    if (request.index >= block->depth) return kIOReturnBadArgument;
    reply = {request.id, request.index, block->bus_address + request.index * block->element_size()};
    return kIOReturnSuccess;
}

int32_t select_memory(Context& context, const wire::MemorySelection& request, Nothing&) {
    if (request.one != 1 || request.kind > 1) return kIOReturnBadArgument;
    if (request.kind == 1 && request.bar >= BarMemory::kBars) return kIOReturnBadArgument;
    if (request.kind == 0) {
        const MemoryBlock* const block = context.driver().block(request.id, context.number);
        if (block == nullptr) return kIOReturnNotFound;
        if (request.index >= block->depth) return kIOReturnBadArgument;
    }
    context.connection().selected = request;
    return kIOReturnSuccess;
}

int32_t get_ptp_time(Context&, const Nothing&, wire::PtpTime& reply) {
    reply.time = tai_ns();
    return kIOReturnSuccess;
}

int32_t get_three_times(Context&, const Nothing&, wire::ThreeTimes& reply) {
    const uint64_t before = now_ns();
    reply = {{tai_ns(), before, now_ns()}};
    return kIOReturnSuccess;
}

int32_t reset(Context&, const wire::Reset&, Nothing&) {
    return kIOReturnSuccess;
}

int32_t reset_buffer(Context&, const Nothing&, Nothing&) {
    return kIOReturnSuccess;
}

int32_t enable_interrupt(Context& context, const uint32_t& number, Nothing&) {
    std::set<uint32_t>& enabled = context.connection().interrupts;
    if (enabled.size() >= kMostInterrupts) return kIOReturnNoResources;
    enabled.insert(number);
    return kIOReturnSuccess;
}

int32_t disable_interrupt(Context& context, const uint32_t& number, Nothing&) {
    context.connection().interrupts.erase(number);
    return kIOReturnSuccess;
}

int32_t init(Context& context, const int64_t& process_id, Nothing&) {
    if (process_id <= 0) return kIOReturnBadArgument;
    ++context.connection().announced;
    return kIOReturnSuccess;
}

int32_t deinit(Context& context, const int64_t& process_id, Nothing&) {
    if (process_id <= 0) return kIOReturnBadArgument;
    uint32_t& announced = context.connection().announced;
    if (announced != 0) --announced;
    return kIOReturnSuccess;
}

int32_t load_boot_conf(Context& context, const Nothing&, wire::BootConf& reply) {
    const CardSettings& settings = context.card.settings;
    std::copy(std::begin(kAncMemories), std::end(kAncMemories), reply.memory_ids);
    reply.bus = settings.bus;
    reply.device = settings.device;
    reply.function = context.function.number;
    reply.identity_kind = settings.identity_kind;
    reply.identity = settings.identity;
    std::memcpy(reply.identity_text, settings.identity_text.data(), settings.identity_text.size());
    return kIOReturnSuccess;
}

int32_t set_descriptor_anc(Context& context, const wire::AncDescriptors& request, Nothing&) {
    if (request.count > wire::kAncSlots) return kIOReturnBadArgument;
    AncSettings& anc = context.card.settings.anc;
    anc.direction = request.direction != 0;
    anc.descriptors.clear();
    for (uint32_t i = 0; i < request.count; ++i)
        anc.descriptors.push_back({request.slot[i].word[0], request.slot[i].word[1]});
    return kIOReturnSuccess;
}

int32_t control_anc(Context& context, const wire::AncControl& request, Nothing&) {
    AncSettings& anc = context.card.settings.anc;
    anc.a = request.a;
    anc.b = request.b;
    anc.c = request.c;
    return kIOReturnSuccess;
}

int32_t get_anc_info(Context& context, const Nothing&, wire::AncInfo& reply) {
    const AncSettings& anc = context.card.settings.anc;
    reply = {anc.descriptors.size(), anc.b};
    return kIOReturnSuccess;
}

int32_t set_device_conf(Context& context, const wire::DeviceConf& request, Nothing&) {
    context.card.device_conf = request;
    std::copy(std::begin(request.ip), std::end(request.ip), context.card.settings.addresses);
    context.card.settings.ptp_selected = request.ptp_selected;
    return kIOReturnSuccess;
}

int32_t get_device_conf(Context& context, const Nothing&, wire::DeviceConf& reply) {
    reply = context.card.device_conf;
    return kIOReturnSuccess;
}

int32_t register_process_data(Context& context, const wire::ProcessData& request, Nothing&) {
    if (request.process_id <= 0) return kIOReturnBadArgument;
    auto& registered = context.connection().process_data;
    if (registered.size() >= kMostRegistrations) return kIOReturnNoResources;
    registered[{request.flag, request.number, request.value}] = request.data;
    return kIOReturnSuccess;
}

int32_t unregister_process_data(Context& context, const wire::ProcessData& request, Nothing&) {
    if (request.process_id <= 0) return kIOReturnBadArgument;
    context.connection().process_data.erase({request.flag, request.number, request.value});
    return kIOReturnSuccess;
}

int32_t get_use_resource(Context& context, const Nothing&, wire::UseResource& reply) {
    const ResourceSettings& use = context.card.settings.resources;
    std::copy(std::begin(use.tx), std::end(use.tx), reply.tx);
    std::copy(std::begin(use.rx), std::end(use.rx), reply.rx);
    return kIOReturnSuccess;
}

int32_t get_pci_link(Context& context, const Nothing&, wire::PciLink& reply) {
    for (const FunctionSettings& function : context.card.settings.functions) {
        if (function.number == context.function.number)
            std::copy(std::begin(function.pci_link), std::end(function.pci_link), reply.value);
    }
    return kIOReturnSuccess;
}

// clang-format off
constexpr Row kRows[] = {
    {wire::kGetVersion,                    on_structs<&get_version>},
    {wire::kReadPci32,                     on_structs<&read_pci32>},
    {wire::kReadPci64,                     on_structs<&read_pci64>},
    {wire::kWritePci32,                    on_structs<&write_pci32>},
    {wire::kWritePci64,                    on_structs<&write_pci64>},
    {wire::kIoMalloc,                      on_structs<&io_malloc>},
    {wire::kIoFree,                        on_structs<&io_free>},
    {wire::kSelectMemory,                  on_structs<&select_memory>},
    {wire::kGetIoBusAddress,               on_structs<&get_io_bus_address>},
    {wire::kGetPtpEpochTime,               on_structs<&get_ptp_time>},
    {wire::kGetPtpEpochTimeAndSystemTime,  on_structs<&get_three_times>},
    {wire::kReset,                         on_structs<&reset>},
    {wire::kResetBuffer,                   on_structs<&reset_buffer>},
    {wire::kEnableInterrupt,               on_structs<&enable_interrupt>},
    {wire::kDisableInterrupt,              on_structs<&disable_interrupt>},
    {wire::kInit,                          on_structs<&init>},
    {wire::kDeinit,                        on_structs<&deinit>},
    {wire::kLoadBootConf,                  on_structs<&load_boot_conf>},
    {wire::kSetDescriptorAnc,              on_structs<&set_descriptor_anc>},
    {wire::kControlAnc,                    on_structs<&control_anc>},
    {wire::kGetAncInfo,                    on_structs<&get_anc_info>},
    {wire::kSetDeviceConf,                 on_structs<&set_device_conf>},
    {wire::kGetDeviceConf,                 on_structs<&get_device_conf>},
    {wire::kRegisterProcessData,           on_structs<&register_process_data>},
    {wire::kUnregisterProcessData,         on_structs<&unregister_process_data>},
    {wire::kGetUseResourceData,            on_structs<&get_use_resource>},
    {wire::kGetPciLinkInfo,                on_structs<&get_pci_link>},
};
// clang-format on

}  // namespace

uint64_t tai_ns() {
    constexpr uint64_t kAheadOfUtc = 37'000'000'000u;
    return now_ns() + kAheadOfUtc;
}

bool selected_memory(VirtualCard& card, uint64_t connection, SelectedMemory& memory) {
    const std::lock_guard lock(card.mutex);
    const std::optional<wire::MemorySelection>& selected = card.driver.connections[connection].selected;
    if (!selected) return false;
    if (selected->kind == 1) {
        const SharedMemory& bar = card.bars.memory(selected->bar);
        memory = {bar.descriptor(), {bar.number(), 0, BarMemory::kBarSize}};
        return static_cast<bool>(bar);
    }
    const MemoryBlock* const block = card.driver.block(selected->id, connection);
    if (block == nullptr || selected->index >= block->depth) return false;
    const uint64_t size = block->element_size();
    memory = {block->memory.descriptor(), {block->memory.number(), selected->index * size, size}};
    return true;
}

bool is_selector(uint32_t selector) {
    return selector == wire::kRegisterInterruptAsyncCallback ||
           std::any_of(std::begin(kRows), std::end(kRows),
                       [&](const Row& row) { return row.selector == selector; });
}

int32_t run_selector(VirtualCard& card, const FunctionSettings& function, uint64_t connection,
                     uint32_t selector, std::span<const std::byte> input, std::vector<std::byte>& output) {
    output.clear();
    const auto row = std::find_if(std::begin(kRows), std::end(kRows),
                                  [&](const Row& candidate) { return candidate.selector == selector; });
    if (row == std::end(kRows)) return kIOReturnUnsupported;
    Context context{card, function, connection};
    const std::lock_guard lock(card.mutex);
    const int32_t status = row->handler(context, input, output);
    if (status != kIOReturnSuccess) output.clear();
    return status;
}

}  // namespace kivsim
