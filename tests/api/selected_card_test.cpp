// Which card the PTP selection names. No driver reports one, so a platform of the test's own does.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <kiv/kiv_api.h>
#include "state.h"

namespace {

using kiv::access::IDeviceAccess;
using kiv::device::DeviceFactoryRegistry;
using kiv::device::DeviceInfo;
using kiv::device::IDeviceEnumerator;

/// A card with one PCI function, and what that says of the selection.
struct Card {
    uint8_t id;
    int32_t selected;
};

class Cards final : public IDeviceEnumerator {
  public:
    explicit Cards(std::vector<Card> cards) : cards_(std::move(cards)) {}

    std::vector<DeviceInfo> enumerate() override {
        std::vector<DeviceInfo> found;
        for (const Card& card : cards_)
            found.push_back({"test", "", card.id, {{0, 0, 0}}, ""});
        return found;
    }
    void* getDeviceAccessPtr(unsigned id, unsigned) override {
        const auto card =
            std::find_if(cards_.begin(), cards_.end(), [id](const Card& c) { return c.id == id; });
        return &card->selected;
    }

  private:
    std::vector<Card> cards_;
};

class Access final : public IDeviceAccess {
  public:
    explicit Access(int32_t selected) : IDeviceAccess(0), selected_(selected) {}

    int32_t selected_ptp_card() override { return selected_; }

    int32_t open() override { return 0; }
    int32_t close() override { return 0; }
    bool isOpen() const override { return true; }
    int32_t readRegister32(uint8_t, uint64_t, uint32_t&) override { return -1; }
    int32_t writeRegister32(uint8_t, uint64_t, uint32_t) override { return -1; }
    int32_t readRegister64(uint8_t, uint64_t, uint64_t&) override { return -1; }
    int32_t writeRegister64(uint8_t, uint64_t, uint64_t) override { return -1; }
    int32_t getPtpTai(uint64_t&) override { return -1; }
    int32_t getTxUseResourceData(uint8_t&, uint8_t&, uint8_t&) override { return -1; }
    int32_t getRxUseResourceData(uint8_t&, uint8_t&, uint8_t&) override { return -1; }
    int32_t getTunIP(uint32_t&, uint32_t&) override { return -1; }
    int32_t getEpochAnd2point(uint64_t&, uint64_t&, uint64_t&) override { return -1; }
    int32_t getLinkStatus(uint8_t&, uint8_t&) override { return -1; }

  private:
    const int32_t selected_;
};

class Factory final : public kiv::device::IDeviceFactory {
  public:
    std::unique_ptr<IDeviceAccess> createDeviceAccess(void* handle, unsigned) override {
        return std::make_unique<Access>(*static_cast<int32_t*>(handle));
    }
    std::unique_ptr<kiv::rest::IRestApiClient> createRestApiClient(const std::string&) override {
        return nullptr;
    }
};

/// The process's manager, as a scan that found these cards leaves it.
void fill_manager(DeviceFactoryRegistry& registry, std::vector<Card> cards) {
    auto manager =
        std::make_shared<kiv::device::DeviceManager>(registry, std::make_unique<Cards>(std::move(cards)));
    manager->loadDevices();
    kiv::api::Process::instance().exchange_manager(std::move(manager));
}

}  // namespace

TEST(SelectedCard, IsTheOneWhoseSelectionByteIsNotZero) {
    uint8_t id = 99;
    EXPECT_EQ(kiv_get_id_selected_ptp_card(&id), KIV_ERR_FAILED) << "before a scan";
    EXPECT_EQ(kiv_get_id_selected_ptp_card(nullptr), KIV_ERR_NULL_ARGUMENT);

    DeviceFactoryRegistry registry;
    registry["test"] = std::make_unique<Factory>();
    const struct {
        std::vector<Card> cards;
        kiv_result_t result;
        uint8_t id;
    } rows[] = {
        {{{3, 0}, {5, 1}, {7, -1}}, KIV_OK, 5},
        {{{3, 255}, {5, 0}, {7, 0}}, KIV_OK, 3},
        {{{3, -1}, {5, -1}, {0, 128}}, KIV_OK, 0},
        {{{3, 0}, {5, -1}}, KIV_ERR_FAILED, 99},  // A card without a driver is not selected.
        {{}, KIV_ERR_FAILED, 99},
    };
    for (const auto& row : rows) {
        fill_manager(registry, row.cards);
        id = 99;
        EXPECT_EQ(kiv_get_id_selected_ptp_card(&id), row.result) << &row - rows;
        EXPECT_EQ(id, row.id) << &row - rows;
        EXPECT_EQ(kiv_close(), KIV_OK);
    }
}
