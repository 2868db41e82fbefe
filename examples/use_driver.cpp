// DMA memory, BARs and interrupt messages of one card, through its driver: use_driver ID [INTERRUPT]
#include <kiv/kivDriverClient.h>

#include <chrono>
#include <cinttypes>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace {

constexpr uint32_t kMemory = 0x4D59;  ///< The id of our DMA memory: our own choice.
constexpr uint32_t kElementSize = 4096;
constexpr uint32_t kElements = 4;
constexpr uint32_t kBar = 1;
constexpr uint64_t kControl = 0x20004;  ///< Control register of the transmit streams.
constexpr std::chrono::seconds kPatience{5};

/// Counts interrupt messages; the client calls it on a thread of the library.
class Messages {
  public:
    void operator()(const InterruptEvent& event) {
        {
            const std::lock_guard lock(mutex_);
            last_ = event;
            ++count_;
        }
        arrived_.notify_one();
    }

    bool wait_for(unsigned count, InterruptEvent& last) {
        std::unique_lock lock(mutex_);
        if (!arrived_.wait_for(lock, kPatience, [&] { return count_ >= count; })) return false;
        last = last_;
        return true;
    }

  private:
    std::mutex mutex_;
    std::condition_variable arrived_;
    unsigned count_ = 0;
    InterruptEvent last_{};
};

bool done(int32_t status, const char* what) {
    if (status != 0) std::fprintf(stderr, "%s: 0x%08X\n", what, static_cast<unsigned>(status));
    return status == 0;
}

/// The card's DMA engines are given the bus addresses; this process writes at the mapped ones.
bool use_memory(kivDriverClient& client) {
    dextBuffer buffer;
    if (!done(client.allocate_buffer(kMemory, kElementSize, kElements), "DMA memory")) return false;
    if (!done(client.get_buffer(kMemory, buffer), "DMA memory")) return false;
    for (const buffer_info& element : buffer.infos) {
        std::memset(reinterpret_cast<void*>(element.mapped_address), 0x5A, kElementSize);
        std::printf("element at bus address 0x%" PRIx64 ", %" PRIu64 " bytes mapped\n", element.bus_address,
                    element.mapped_size);
    }
    return done(client.free_buffer(), "release");
}

/// A register of a mapped BAR is read where it lies; the driver reads the same one by a call.
bool use_bar(kivDriverClient& client) {
    uint64_t address = 0;
    uint64_t size = 0;
    uint32_t by_call = 0;
    if (!done(client.map_pci(kBar, &address, &size), "BAR")) return false;
    const uint32_t by_mapping = *reinterpret_cast<const volatile uint32_t*>(address + kControl);
    const bool read = done(client.read_pci32(kBar, kControl, &by_call), "register");
    if (read) std::printf("register 0x%08X by mapping, 0x%08X by call\n", by_mapping, by_call);
    return done(client.unmap(address), "unmap") && read;
}

/// Needs a client that was opened with interrupts.
bool use_interrupts(kivDriverClient& client, Messages& messages, uint32_t number) {
    InterruptEvent event{};
    if (!done(client.enable_interrupt(number), "interrupt")) return false;
    const bool came = messages.wait_for(3, event);
    if (came) {
        std::printf("3 messages of %u arguments, the first %" PRIu64 "\n", event.count, event.word[0]);
    } else {
        std::fprintf(stderr, "no messages\n");
    }
    return done(client.disable_interrupt(number), "interrupt") && came;
}

int use(uint8_t id, const char* interrupt) {
    kivDriverClientList functions = kivDriverClient::enumerateDevices(KIV_DRIVER_SERVICE_NAME);
    const auto client =
        kivDriverClient::get_class_sptr_ByPciId_FuncId(functions, id, kivDriverClient::pf0_st2110_id);
    if (!client) {
        std::fprintf(stderr, "the driver has no card %u\n", id);
        return 1;
    }
    Messages messages;
    client->set_callback([&](const InterruptEvent& event) { messages(event); });
    bool all = done(client->open(true), "open") && use_memory(*client) && use_bar(*client);
    if (all && interrupt != nullptr)
        all = use_interrupts(*client, messages, static_cast<uint32_t>(std::strtoul(interrupt, nullptr, 0)));
    // Ends the callback, before what it uses goes.
    client->set_callback({});
    return done(client->close(), "close") && all ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    char* end = nullptr;
    const unsigned long id = argc == 2 || argc == 3 ? std::strtoul(argv[1], &end, 0) : 256;
    if (id > 255 || end == argv[1] || *end != '\0') {
        std::fprintf(stderr, "usage: use_driver ID [INTERRUPT]\n");
        return 2;
    }
    return use(static_cast<uint8_t>(id), argc == 3 ? argv[2] : nullptr);
}
