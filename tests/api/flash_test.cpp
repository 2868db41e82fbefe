// Firmware images: their upload, the wait for the card to begin, and the choice of a slot.
#include <kiv/kivClient.h>

#include "card/Firmware.h"

#include "api/FoundCards.h"

TEST(Flash, AnIdleCardGetsTheImageAndTheWaitForItsStartEndsWithSuccess) {
    const TemporaryDirectory directory;
    const std::string file = directory / "image", none = directory / "none", bytes(200000, '\xA5');
    write_file(file, bytes);
    const std::string start =
        R"(PATCH firmware/control {"start":true,"md5hush":")" + kivsim::md5_of(bytes) + "\"}";
    const char* const image = file.c_str();
    // clang-format off
    // Fault, image, result; requests: status, upload, control.
    const std::tuple<const char*, const char*, kiv_result_t, std::string> rows[] = {
        {R"(status", "patch": "idle")", image, KIV_OK, "SUCSSSSSSSSSS"},
        {R"(status", "nth": 2, "status": 500)", image, KIV_OK, "SUCS"},
        {R"(status", "nth": 2, "patch": 5)", image, KIV_OK, "SUCS"},
        {R"(status", "nth": 2, "patch": "idle ")", image, KIV_OK, "SUCS"},
        {R"(status", "patch": "idle ")", nullptr, KIV_ERR_BUSY, "S"},
        {R"(status", "status": 500)", nullptr, KIV_ERR_REST, "S"},
        {R"(control", "status": 500)", image, KIV_ERR_REST, "SUC"},
        {R"(switch")", none.c_str(), KIV_ERR_REST, "S"},
    };
    // clang-format on
    auto card = kivsim::believable_card(1);
    card.flash_ms = 1;
    FoundCards cards({card});
    for (const auto& [fault, path, result, requests] : rows) {
        SCOPED_TRACE(fault);
        kiv_flash_status_t busy = 1;
        ASSERT_TRUE(wait_until([&] { return kiv_get_flash_write_status(1, &busy) == KIV_OK && busy == 0; }));
        cards.control("POST", 1, std::string(R"({"path": "/hps/firmware/)") + fault + "}");
        cards.take_requests();
        const Stopwatch watch;
        EXPECT_EQ(kiv_write_flash_image(1, path), result);
        EXPECT_EQ(watch.elapsed() >= std::chrono::seconds(1), requests.size() == 13);
        Lines sent;
        for (const char c : requests)
            sent.push_back(c == 'S' ? "GET firmware/status" : c == 'U' ? "POST firmware/upload" : start);
        EXPECT_EQ(cards.take_requests(), sent);
        EXPECT_EQ(result == KIV_ERR_BUSY, cards.log_end() == "Can't write now. Status=1");
        cards.control("DELETE", 1, "");
    }
}

TEST(Flash, TheSlotToBootIsZeroOrOne) {
    FoundCards cards;
    for (const kiv_flash_slot_t slot : {-1, 2, 256, 1, 0}) {
        const bool valid = slot == 0 || slot == 1;
        EXPECT_EQ(kiv_select_flash_slot(1, &slot), valid ? KIV_OK : KIV_ERR_INVALID_PARAM) << slot;
        const std::string line = "PATCH firmware/switch {\"image\":" + std::to_string(slot) + "}";
        EXPECT_EQ(cards.take_requests(), Lines(valid ? 1 : 0, line)) << slot;
    }
}

TEST(Flash, TheUploadTellsWhatHasBeenSent) {
    const TemporaryDirectory directory;
    const std::string file = directory / "image";
    write_file(file, std::string(8 << 20, 'x'));
    FoundCards cards;
    cards.control("PATCH", 1, R"({"flash_ms": 600000})");
    struct Told {
        uint64_t last = 0, total = 0;
        int calls = 0;
    } told;
    const auto tell = [](uint64_t sent, uint64_t total, void* user) {
        Told& all = *static_cast<Told*>(user);
        EXPECT_GE(sent, all.last);
        EXPECT_LE(sent, total);
        EXPECT_GT(total, 0u) << "it tells nothing before it knows the size";
        all = {sent, total, all.calls + 1};
    };
    EXPECT_EQ(kiv_write_flash_image_with_progress(1, file.c_str(), tell, &told), KIV_OK);
    EXPECT_EQ(told.last, told.total);
    EXPECT_GT(told.total, 8u << 20);
    EXPECT_LT(told.total, (8u << 20) + 1000);
    EXPECT_GT(told.calls, 1);
    EXPECT_EQ(kiv_write_flash_image_with_progress(2, file.c_str(), tell, &told), KIV_ERR_NO_DEVICE);

    HttpClient client("http://" + cards.simulator->server_addresses()[0] + "/api/v1.0");
    const auto throwing = [](uint64_t, uint64_t) { throw 1; };
    EXPECT_EQ(client.upload("/hps/firmware/upload", file, throwing).error, "http status 400")
        << "a write runs";
    EXPECT_EQ(client.upload("/hps/firmware/upload", directory / "none", throwing).error, "file open error");
}
