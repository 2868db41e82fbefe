// DMA memory, BARs and the ANC memories in this process.
#include <kivos/shared_memory.h>
#include <sys/mman.h>

#include <kiv/kivDext.h>
#include "driver/Clients.h"
#include "driver/DriverClients.h"
#include "support/Json.h"
#include "support/ThisProcess.h"

namespace {

uint8_t* at(uint64_t address) {
    return reinterpret_cast<uint8_t*>(address);
}

bool is_mapped(uint64_t address) {
    return msync(at(address), 4096, MS_ASYNC) == 0;
}

class DriverMemory : public OneClient {
  protected:
    /// The driver's memories that are mapped here.
    int mappings() const { return shared_mappings() - before_; }

    std::size_t calls(uint32_t selector) const { return simulator_.calls(selector).size(); }

    void expect_unmap(uint64_t address, int32_t status, size_t selections) {
        const size_t before = calls(wire::kSelectMemory);
        EXPECT_EQ(client_->unmap(address), status);
        EXPECT_EQ(calls(wire::kSelectMemory) - before, selections);
    }

    /// What the control address shows of the first card's driver.
    Json shown() const { return parsed(simulator_.control("GET").body)["driver"]; }

  private:
    const int before_ = shared_mappings();
};
using Dext = DriverMemory;

}  // namespace

TEST_F(DriverMemory, IsOneForEveryMappingAndTheCard) {
    const auto list = clients();
    kivDriverClient &one = *list[0], &two = *list[1];
    dextBuffer buffer{};
    EXPECT_EQ(one.get_buffer(7, buffer), -1);
    const uint64_t two_pages = 2 * kivos::page_size();
    ASSERT_EQ(one.allocate_buffer(7, static_cast<uint32_t>(two_pages - 1), 3), 0);
    ASSERT_EQ(one.get_buffer(7, buffer), 0);
    EXPECT_EQ(buffer.depth, 3u);
    ASSERT_EQ(buffer.infos.size(), 3u);
    EXPECT_EQ(buffer.infos[2].mapped_size, two_pages);
    EXPECT_EQ(buffer.infos[2].bus_address - buffer.infos[1].bus_address, two_pages);

    uint64_t address = 0, size = 0, none = 0;
    ASSERT_EQ(two.map_iomemory(7, 2, &address, &size), 0);
    EXPECT_EQ(size, two_pages);
    std::memcpy(at(buffer.infos[2].mapped_address), "\x12\x34", 2);
    EXPECT_EQ(at(address)[1], 0x34);
    EXPECT_EQ(simulator_.control("GET", "/memory/7/2").body.substr(0, 7), "\"123400");
    EXPECT_EQ(two.map_iomemory(7, 3, &none, nullptr), kIOReturnBadArgument);
    EXPECT_EQ(two.map_iomemory(8, 0, &none, nullptr), kIOReturnNotFound);

    ASSERT_EQ(two.map_pci(1, &address, &size), 0);
    EXPECT_EQ(size, 16u << 20);
    std::memcpy(at(address + 0x40), "\x04\x03\x02\x01", 4);
    uint32_t value = 0;
    EXPECT_EQ(one.read_pci32(1, 0x40, &value), 0);
    EXPECT_EQ(value, 0x01020304u);
    EXPECT_EQ(one.write_pci32(1, 0x44, 9), 0);
    EXPECT_EQ(at(address)[0x44], 9);
    const auto selections = simulator_.calls(wire::kSelectMemory);
    EXPECT_EQ(selections[3].input, "0100000000000000070000000200000000000000") << "block 7, element 2";
    EXPECT_EQ(selections[6].input, "0100000001000000000000000000000001000000") << "BAR 1";
    const uint64_t mapped = buffer.infos[0].mapped_address;
    EXPECT_EQ(one.close(), 0);
    EXPECT_FALSE(is_mapped(mapped)) << "close unmaps";
    EXPECT_EQ(one.get_buffer(7, buffer), -1);
    EXPECT_EQ(one.unmap(mapped), -1);
}

TEST_F(DriverMemory, IsUndoneAtTheAddressWhateverWasSelectedSince) {
    uint64_t element[2] = {}, bar = 0, again = 0;
    ASSERT_EQ(client_->iomalloc(7, 4096, 2), 0);
    for (const uint32_t index : {0u, 1u})
        ASSERT_EQ(client_->map_iomemory(7, index, &element[index], nullptr), 0);
    ASSERT_EQ(client_->map_pci(1, &bar, nullptr), 0);
    expect_unmap(element[0], 0, 1);
    EXPECT_TRUE(!is_mapped(element[0]) && is_mapped(element[1]) && is_mapped(bar));
    for (const uint64_t unknown : {element[0], bar + 4096, uint64_t{0}})
        expect_unmap(unknown, kIOReturnBadArgument, 0);

    ASSERT_EQ(client_->map_pci(1, &again, nullptr), 0);
    EXPECT_EQ(again, bar);
    expect_unmap(bar, 0, 0);
    expect_unmap(bar, kIOReturnBadArgument, 0);
    EXPECT_EQ(mappings(), 1);

    ASSERT_EQ(client_->map_iomemory(7, 1, &again, nullptr), 0);
    EXPECT_EQ(again, element[1]);
    EXPECT_EQ(client_->map_pci(6, nullptr, nullptr), kIOReturnBadArgument)
        << "what is selected now is anybody's guess";
    expect_unmap(element[1], 0, 1);
    EXPECT_EQ(mappings(), 0);
}

TEST_F(DriverMemory, ThatWasFreedIsNotTakenForItsSuccessor) {
    uint64_t first = 0, second = 0;
    const auto map_new = [&](uint64_t& address) {
        ASSERT_EQ(client_->iomalloc(7, 4096, 1), 0);
        ASSERT_EQ(client_->map_iomemory(7, 0, &address, nullptr), 0);
    };
    map_new(first);
    ASSERT_EQ(client_->iofree(7), 0);
    EXPECT_EQ(client_->unmap(first), kIOReturnNotFound);
    EXPECT_EQ(client_->unmap(first), kIOReturnBadArgument);
    map_new(first);
    ASSERT_EQ(client_->iofree(7), 0);
    map_new(second);
    EXPECT_EQ(client_->unmap(first), kIOReturnBadArgument);
    EXPECT_TRUE(is_mapped(second));
    EXPECT_EQ(client_->unmap(second), 0);
    EXPECT_FALSE(is_mapped(second));
    for (const bool of_buffers : {false, true}) {
        ASSERT_EQ(client_->map_pci(1, &second, nullptr), 0);
        ASSERT_EQ(of_buffers ? client_->reset_buffer() : client_->reset(0, 0), 0);
        expect_unmap(second, 0, 1);  // A reset may select another.
    }
    EXPECT_EQ(client_->close(), 0);
    EXPECT_EQ(mappings(), 0);
}

TEST_F(DriverMemory, OfBuffersIsUnmappedBeforeItIsFreed) {
    ASSERT_EQ(client_->allocate_buffer(3, 4096, 2), 0);
    ASSERT_EQ(client_->allocate_buffer(4, 4096, 1), 0);
    EXPECT_EQ(mappings(), 3);
    const auto before = static_cast<std::ptrdiff_t>(simulator_.selectors().size());
    EXPECT_EQ(client_->free_buffer(), 0);
    EXPECT_EQ(mappings(), 0);
    const std::vector<uint32_t> all = simulator_.selectors();
    EXPECT_EQ(std::vector(all.begin() + before, all.end()),
              (std::vector<uint32_t>{wire::kSelectMemory, wire::kSelectMemory, wire::kIoFree,
                                     wire::kSelectMemory, wire::kIoFree}));

    ASSERT_EQ(client_->allocate_buffer(3, 4096, 1), 0);
    uint64_t bar = 0;
    ASSERT_EQ(client_->map_pci(1, &bar, nullptr), 0);
    EXPECT_EQ(client_->free_buffer(3), 0);
    EXPECT_EQ(mappings(), 2) << "one buffer alone keeps its mapping";
    EXPECT_TRUE(is_mapped(bar));
}

TEST_F(DriverMemory, IsAllocatedWholeOrNotAtAll) {
    uint64_t bar = 0;
    ASSERT_EQ(client_->map_pci(1, &bar, nullptr), 0);
    for (const auto selector : {wire::kSelectMemory, wire::kGetIoBusAddress}) {
        SCOPED_TRACE(selector);
        fail_call(selector, 4);
        const std::size_t selections = calls(wire::kSelectMemory), addresses = calls(wire::kGetIoBusAddress),
                          freed = calls(wire::kIoFree);
        dextBuffer buffer{};
        EXPECT_EQ(client_->allocate_buffer(3, 4096, 8), kIOReturnBusy);
        EXPECT_EQ(client_->get_buffer(3, buffer), -1);
        EXPECT_EQ(calls(wire::kGetIoBusAddress) - addresses, 4u);
        EXPECT_EQ(calls(wire::kSelectMemory) - selections, selector == wire::kSelectMemory ? 7u : 6u)
            << "three are selected again";
        EXPECT_TRUE(mappings() == 1 && is_mapped(bar)) << "what is in use stays";
        EXPECT_EQ(calls(wire::kIoFree) - freed, 1u);
        EXPECT_EQ(shown()["memory"].size(), 4u) << "only the driver's own";
    }
    DriverLines lines;
    EXPECT_EQ(client_->allocate_buffer(3, 0, 8), -1);
    EXPECT_EQ(lines.take(), Lines{"fail iomalloc=E00002C2 elm_size=0 buffer_depth=8"});
    EXPECT_EQ(client_->allocate_buffer(3, 16, 0), 0);
}

TEST_F(DriverMemory, OfOneIdIsTakenInTheOrderOfItsAllocation) {
    dextBuffer buffer{};
    ASSERT_EQ(client_->allocate_buffer(3, 4096, 1), 0);
    EXPECT_EQ(client_->allocate_buffer(3, 4096, 2), kIOReturnBadArgument) << "the first block counts";
    ASSERT_EQ(client_->get_buffer(3, buffer), 0);
    EXPECT_TRUE(is_mapped(buffer.infos[0].mapped_address)) << "the failed one took its memory along";
    EXPECT_EQ(client_->allocate_buffer(3, 4096, 1), 0);
    EXPECT_EQ(client_->allocate_buffer(4, 4096, 1), 0);
    EXPECT_EQ(client_->free_buffer(9), -1);
    EXPECT_EQ(client_->free_buffer(3), 0);
    EXPECT_EQ(client_->get_buffer(3, buffer), 0);
    EXPECT_TRUE(kivDriverClient::isAddressValid(buffer.infos[0].mapped_address));
    EXPECT_EQ(client_->free_buffer(), 0);
    EXPECT_EQ(client_->get_buffer(4, buffer), -1);
    EXPECT_EQ(shown()["memory"].size(), 4u);
    EXPECT_FALSE(kivDriverClient::isAddressValid(~uint64_t{0}));
}

TEST_F(DriverMemory, SelectedByOneThreadIsNotMappedByAnother) {
    ASSERT_EQ(client_->allocate_buffer(3, 4096, 1), 0);
    const auto expect_size = [&](uint64_t expected, auto map) {
        for (int i = 0; i < 1000; ++i) {
            uint64_t address = 0, size = 0;
            ASSERT_EQ(map(&address, &size), 0);
            ASSERT_EQ(size, expected);
        }
    };
    std::thread other([&] {
        expect_size(16u << 20, [&](auto* address, auto* size) { return client_->map_pci(2, address, size); });
    });
    expect_size(kivos::page_size(),
                [&](auto* address, auto* size) { return client_->map_iomemory(3, 0, address, size); });
    other.join();
}

TEST_F(DriverMemory, OfTheAncEngineIsMappedByOpenAndItsRecordsReachTheCard) {
    ASSERT_EQ(client_->open(true), 0);
    for (unsigned i = 0; i < 4; ++i) {
        EXPECT_EQ(client_->get_anc_buffer(i).mapped_size, 64u << 10);
        EXPECT_EQ(client_->get_anc_buffer(i).bus_address != 0, i < 2);
    }
    EXPECT_EQ(client_->get_anc_buffer(4).mapped_size, 0u);
    uint32_t count = 1;
    uint64_t descriptor[2] = {0x0102, 0x03};
    EXPECT_EQ(client_->set_descriptor_anc(true, count, descriptor), 0);
    EXPECT_EQ(client_->control_anc({1, 2, 3}), 0);
    const Json driver = shown();
    EXPECT_EQ(driver["anc"], parsed(
                                 R"({"direction": true, "descriptors": "02010000000000000300000000000000",
                                    "control": [1, 2, 3]})"));
    EXPECT_EQ(driver["connections"][0]["announced"], 1);
    EXPECT_EQ(driver["connections"][0]["messages"], true);
    EXPECT_EQ(client_->register_process_data(true, 2, 3, 4), 0);
    EXPECT_EQ(client_->register_process_data(false, 2, 3, 5), 0);
    EXPECT_EQ(client_->unregister_process_data(true, 2, 3), 0);
    EXPECT_EQ(shown()["connections"][0]["process_data"], parsed("[[[0, 2, 3], 5]]"));
    EXPECT_EQ(client_->close(), 0);
    EXPECT_EQ(client_->get_anc_buffer(0).mapped_address, 0u);
}

TEST_F(Dext, CountsFunctionsAndLeavesOthersConnectionsAlone) {
    EXPECT_EQ(kivDext_get_selected_ptp_card(), 0);
    ASSERT_EQ(client_->open(false), 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(kivDext_new(), 0);
    EXPECT_EQ(kivDext_get_selected_ptp_card(), 4) << "none is selected";
    kivDriverClientList& found = kiv::driver_clients(false)->g_clients;
    found[0]->device_conf.ptp_selected = 0xFE;
    found[2]->device_conf.ptp_selected = 0x01;
    EXPECT_EQ(kivDext_get_selected_ptp_card(), 2) << "bit 0 is the selection";
    EXPECT_EQ(kivDext_new(), 0);
    EXPECT_EQ(shown()["connections"].size(), 3u);
    EXPECT_EQ(shown()["connections"][0]["announced"], 1);
    setenv("KIVSIM_SOCKET", "/nonexistent/socket", 1);
    EXPECT_EQ(kivDext_new(), 1);
    EXPECT_EQ(kivDext_get_selected_ptp_card(), 0);
    EXPECT_EQ(kivDext_open_hps(1, "any"), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}
