// The library with a driver process that is hostile, or broken: clients, their calls and memories, their
// interrupts, and the C interface above them.
//
// Input: a byte with the number of operations, a byte for each, and what the driver says.
#include <kiv/kiv_api.h>

#include <atomic>
#include <cstring>
#include <iterator>

#include <kiv/kivDriverClient.h>
#include "HostileDriver.h"
#include "requests.h"

namespace {

using fuzz::expect;

/// A memory that was mapped can be touched to its end.
void touch(int32_t status, uint64_t address, uint64_t size) {
    if (status != 0) return;
    expect(address != 0 && size != 0, "what is mapped has a place");
    auto* const bytes = reinterpret_cast<volatile char*>(address);
    bytes[0] = 1;
    bytes[size - 1] = 2;
}

void map(kivDriverClient& client, bool is_bar) {
    uint64_t address = 0;
    uint64_t size = 0;
    const int32_t status =
        is_bar ? client.map_pci(1, &address, &size) : client.map_iomemory(7, 0, &address, &size);
    touch(status, address, size);
    if (status == 0) expect(kivDriverClient::isAddressValid(address), "what is mapped is valid");
    client.unmap(address);
}

void allocate(kivDriverClient& client) {
    dextBuffer buffer{};
    const int32_t status = client.allocate_buffer(9, 100, 3);
    expect((client.get_buffer(9, buffer) == 0) == (status == 0), "a buffer is allocated, or is not there");
    if (status != 0) return;
    expect(buffer.depth == 3 && buffer.infos.size() == 3, "a buffer has its elements");
    for (const buffer_info& element : buffer.infos)
        touch(0, element.mapped_address, element.mapped_size);
    client.free_buffer(9);
}

void read_configurations(kivDriverClient& client) {
    kivDriverClient::boot_conf_t boot{};
    client.load_boot_conf(boot);
    expect(std::memchr(boot.identity_text, 0, sizeof boot.identity_text) != nullptr, "the text has an end");
    kivDriverClient::device_conf_t device{};
    client.get_device_conf(device);
    client.set_device_conf(device);
}

void read_counters(kivDriverClient& client) {
    kivDriverClient::use_resource resource;
    std::memset(&resource, 0x5A, sizeof resource);
    const bool failed = client.get_use_resource_data(resource) != 0;
    expect(!failed || resource.tx[0] == 0x5A5A, "a failure leaves the counts alone");
    kivDriverClient::pci_link_info link{};
    client.get_pci_link_info(link);
    uint64_t a = 0;
    uint64_t b = 0;
    client.get_anc_info(&a, &b);
    client.get_ptp_epoch_time(&a);
    client.get_ptp_epoch_time_and_system_time(a, b, b);
}

void read_registers(kivDriverClient& client) {
    uint32_t small = client.isOpen() ? 1 : 0;
    uint64_t large = small;
    expect(client.read_pci32(1, 16, &small) == 0 || small == 0, "a failed read gives 0");
    expect(client.read_pci64(1, 16, &large) == 0 || large == 0, "a failed read gives 0");
    client.write_pci32(1, 16, small);
    client.write_pci64(1, 16, large);
    client.write_pci32_test(1, 16, small);
}

void use_anc(kivDriverClient& client) {
    client.init_anc_buffer();
    for (unsigned number = 0; number < 5; ++number)
        static_cast<void>(client.get_anc_buffer(number));
    uint32_t count = 2;
    uint64_t words[4] = {1, 2, 3, 4};
    client.set_descriptor_anc(true, count, words);
    client.control_anc({1, 2, 3});
    client.is_hpq_anc_enable();
}

void tell(kivDriverClient& client) {
    client.init();
    client.iomalloc(1, 4096, 1);
    uint64_t address = 0;
    client.get_iobus_address(1, 0, &address);
    client.iofree(1);
    client.enable_interrupt(3);
    client.disable_interrupt(3);
    client.register_process_data(true, 1, 2, 3);
    client.unregister_process_data(true, 1, 2);
    client.reset(1, 2);
    client.reset_buffer();
    uint16_t version = 0;
    client.get_version_dext(version, version, version);
}

void reopen(kivDriverClient& client) {
    if (client.close() == 0) expect(!client.isOpen(), "what is closed is not open");
    client.open(false);
}

void (*const kOperations[])(kivDriverClient& client) = {
    [](kivDriverClient& client) { map(client, true); },
    [](kivDriverClient& client) { map(client, false); },
    allocate,
    read_configurations,
    read_counters,
    read_registers,
    use_anc,
    tell,
    reopen,
};

/// Every query of the C interface, about the first card that a scan finds.
void ask_card(uint8_t id) {
    kiv_card_info_t info{};
    kiv_get_card_info(id, &info);
    kiv_card_status_t status{};
    kiv_get_card_status(id, &status);
    kiv_net_status_t net{};
    kiv_get_net_status(id, &net);
    kiv_ptp_status_t ptp{};
    kiv_get_ptp_status(id, &ptp);
    kiv_tx_stream_status_t streams{};
    kiv_get_tx_stream_status(id, &streams);
    kiv_get_rx_stream_status(id, &streams);
    uint64_t time = 0;
    kiv_get_epoch_and_2point(id, &time, &time, &time);
    kiv_net_config_t config{};
    kiv_get_media_net_config(id, &config);
}

void use_interface(bool each) {
    kiv_scan_each_t cards{};
    kiv_scan_t scan{};
    const kiv_result_t result = each ? kiv_scan_each(nullptr, 0, &cards) : kiv_scan(&scan);
    expect(std::strcmp(kiv_result_name(result), "unknown") != 0, "a scan gives a code of its own");
    for (uint32_t i = 0; result == KIV_OK && i < (each ? cards.count : scan.count); ++i)
        ask_card(each ? cards.cards[i].device.device_id : scan.devices[i].device_id);
    kiv_close();
}

void use_clients(fuzz::Bytes& operations) {
    static std::atomic<uint32_t> told = 0;
    kivDriverClientList clients = kivDriverClient::enumerateDevices(KIV_DRIVER_SERVICE_NAME);
    for (const auto& client : clients) {
        client->set_callback([](const InterruptEvent& event) {
            expect(event.count != 0 && event.count != 2 && event.count <= 16, "a message has its arguments");
            ++told;
        });
        client->open(true);
    }
    for (std::size_t i = 0; !clients.empty() && !operations.empty(); ++i)
        kOperations[operations.byte() % std::size(kOperations)](*clients[i % clients.size()]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::be_quiet();
    static auto& driver = *new fuzz::HostileDriver;
    if (size == 0) return 0;
    // Cards are where the driver says: nobody is asked for them on any network.
    fuzz::set_server([](const fuzz::Sent&) { return fuzz::Answer{200, R"({"interfaces": []})"}; });
    const std::span input(data, size);
    const std::size_t count = std::min<std::size_t>(input[0] % 32, size - 1);
    fuzz::Bytes operations(input.subspan(1, count));
    driver.speak({input.begin() + 1 + static_cast<std::ptrdiff_t>(count), input.end()});
    if (input[0] < 192) {
        use_clients(operations);
    } else {
        use_interface(input[0] % 2 == 0);
    }
    return 0;
}
