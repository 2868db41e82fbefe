// The examples, as a person runs them.
#include <kivos/shared_memory.h>

#include "kivctl/Kivctl.h"
#include "support/LoopbackServer.h"

TEST_F(KivctlSettings, HasExamplesOnTheExportedClassesBesideIt) {
    const Ended driver = run_program({USE_DRIVER_PROGRAM, "1", "4"});
    EXPECT_EQ(driver.status, 0) << driver.err;
    EXPECT_EQ(std::count(driver.out.begin(), driver.out.end(), '\n'), 6);
    EXPECT_TRUE(has(driver.out, ", " + std::to_string(kivos::page_size()) +
                                    " bytes mapped\nregister 0x02000010 by mapping, 0x02000010 by call\n"
                                    "3 messages of 3 arguments, the first 4\n"));

    const std::string server = simulator_.server_addresses()[0];
    const std::size_t colon = server.find(':');
    const Ended talked =
        run_program({TALK_TO_CARD_PROGRAM, server.substr(0, colon), server.substr(colon + 1)});
    EXPECT_EQ(talked.status, 0) << talked.err;
    EXPECT_TRUE(has(talked.out, "\nPTP master 00:1d:c1:ff:fe:12:34:56, UTC offset 37 s\n"));
}

TEST_F(KivctlSettings, HasExamplesInCBesideIt) {
    EXPECT_EQ(run_program({LIST_CARDS_PROGRAM}).out, "card 1: MAC 02:4b:56:00:01:00 and 02:4b:56:00:01:01\n");
    EXPECT_EQ(run_program({READ_CARD_PROGRAM, "1"}).out,
              "card word    0x5354323131300001\nFPGA fabric  58 (alarm at 95)\nboard power  63\n"
              "port 0       02:4b:56:00:01:00, link up\nport 1       02:4b:56:00:01:01, link up\n"
              "PTP          state 0, grandmaster 0x001DC1FFFE123456\n");
    // The library looks at the state before and after the upload; to the next look the card has not begun
    // yet.
    add_fault(R"({"path": "/hps/firmware/status", "nth": 3, "patch": "idle"})");
    const Ended written = run_program({WRITE_FLASH_PROGRAM, "1", image()});
    EXPECT_EQ(written.status, 0) << written.err;
    EXPECT_TRUE(has(written.out, "\nslot 1 is written: "));
    const Ended again = run_program({WRITE_FLASH_PROGRAM, "1", image()});
    EXPECT_EQ(std::tuple(again.status, again.err),
              std::tuple(1, "no slot has changed: nothing was written\n"));
    change({{"flash_ms", 20000}});  // No end before the signal.
    Program interrupted({WRITE_FLASH_PROGRAM, "1", image("interrupted")});
    EXPECT_TRUE(wait_until([&] { return text_of(json_of({"flash"})["state"]) != "\"idle\""; }));
    const Ended ended = interrupted.end(SIGINT);
    EXPECT_EQ(std::tuple(ended.status, ended.err),
              std::tuple(1, "the card may still be writing: leave its power on\n"));
    EXPECT_TRUE(has(run_program({WRITE_FLASH_PROGRAM, "1", image("")}).err, " has 0 bytes"));
    const Ended watched = run_program({WATCH_EVENTS_PROGRAM, "3"});
    EXPECT_EQ(watched.status, 0) << watched.err;
    EXPECT_EQ(watched.out, "card 1: link of port 0 is up, of port 1 up\n");

    const std::pair<Words, int> failing[] = {{{READ_CARD_PROGRAM}, 2},
                                             {{READ_CARD_PROGRAM, "x"}, 2},
                                             {{READ_CARD_PROGRAM, "2"}, 1},
                                             {{USE_DRIVER_PROGRAM, "x"}, 2},
                                             {{USE_DRIVER_PROGRAM, "2"}, 1},
                                             {{WRITE_FLASH_PROGRAM, "256", "f"}, 2},
                                             {{WRITE_FLASH_PROGRAM, "01", "f"}, 2},
                                             {{WRITE_FLASH_PROGRAM, "1", "/nonexistent"}, 1}};
    for (const auto& [words, status] : failing)
        EXPECT_EQ(run_program(words).status, status) << testing::PrintToString(words);
}

TEST_F(KivctlConfigured, HasAnExampleThatWritesACardBesideOneWithoutServer) {
    kivsim::CardSettings card = kivsim::believable_card(1);
    card.flash_ms = 1;  // Its end comes before the first look: only the slot tells.
    RunningSimulator simulator({card, card_with_server(2, closed_port())});
    const std::string file = ConfigurationFile::path();
    EXPECT_EQ(run_program({WRITE_FLASH_PROGRAM, "1", file}).status, 0);
    EXPECT_TRUE(has(run_program({WRITE_FLASH_PROGRAM, "2", file}).err, "card 2 cannot be used: "));
}
