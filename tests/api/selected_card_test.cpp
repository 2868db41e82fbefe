// Which card the PTP selection names. No driver reports one: the test sets it where the driver's would stand.
#include "api/FoundCards.h"
#include "driver/DriverClients.h"

TEST(SelectedCard, IsTheOneWhoseSelectionByteIsNotZero) {
    uint8_t id = 99;
    EXPECT_EQ(kiv_get_id_selected_ptp_card(&id), KIV_ERR_FAILED) << "before a scan";
    EXPECT_EQ(kiv_get_id_selected_ptp_card(nullptr), KIV_ERR_NULL_ARGUMENT);
    // A selection of -1: the driver's client is gone.
    const std::tuple<std::vector<int>, kiv_result_t, int> rows[] = {{{0, 1, -1}, KIV_OK, 5},
                                                                    {{255, 0, 0}, KIV_OK, 3},
                                                                    {{-1, -1, 128}, KIV_OK, 0},
                                                                    {{0, -1, 0}, KIV_ERR_FAILED, 99}};
    for (const auto& [selected, result, selected_id] : rows) {
        FoundCards cards(
            {kivsim::believable_card(3), kivsim::believable_card(5), kivsim::believable_card(0)});
        auto& clients = kiv::driver_clients(false)->kivDev_;  // Two of each card.
        ASSERT_EQ(clients.size(), 6u);
        for (std::size_t card = 3; card-- > 0;) {
            const auto client = clients.begin() + 2 * static_cast<std::ptrdiff_t>(card);
            (*client)->device_conf.ptp_selected = static_cast<uint8_t>(selected[card]);
            if (selected[card] < 0) clients.erase(client);
        }
        id = 99;
        EXPECT_EQ(kiv_get_id_selected_ptp_card(&id), result) << testing::PrintToString(selected);
        EXPECT_EQ(id, selected_id) << testing::PrintToString(selected);
    }
}
