// The write of firmware: what is refused, what is seen of it, and what is said when it ends otherwise.
#include <fcntl.h>
#include <sys/stat.h>

#include "kivctl/Kivctl.h"

/// The digest that the card takes as the identifier of image().
constexpr char kImage[] = "183f7bcf424938735c60bf6575e48a88";

TEST_F(KivctlCard, FlashWriteNamesTheSlotThatHasChanged) {
    const Json before = json_of({"flash", "1"});
    EXPECT_EQ(before["state"], "idle");
    EXPECT_EQ(before["next_boot_slot"], 0);

    const Ended lines = expect({"flash", "write", "1", image()}, 0, "kivctl flash select 1 1");
    EXPECT_EQ(lines.out.substr(0, 40), "uploading\nerasing\nwriting\nverifying\ndone");
    EXPECT_TRUE(has(lines.out, "slot 1 is written: " + std::string(kImage)));
    EXPECT_EQ(json_of({"flash"})["slots"], Json({before["slots"][0], kImage}));

    EXPECT_EQ(json_of({"flash", "write", "1", image()}, 1)["name"], "NOT_WRITTEN")
        << "the image was there already: nobody saw it written";
    const Json selected = json_of({"flash", "write", "1", image("another"), "--select"});
    EXPECT_EQ((Json{selected["written_slot"], selected["next_boot_slot"], selected["bytes"]}),
              (Json{1, 1, 7}));
    EXPECT_EQ(json_of({"flash"})["next_boot_slot"], 1);
    EXPECT_EQ(run({"flash", "select", "1", "0"}).out, "card 1 boots slot 0 next\n");
    EXPECT_EQ(json_of({"flash"})["next_boot_slot"], 0);
    add_fault(R"({"path": "/hps/firmware/switch", "status": 200, "body": "{}"})");
    add_fault(R"({"path": "/hps/firmware/info", "patch": {"User1": "a", "User2": "b"}})");
    EXPECT_EQ(json_of({"flash", "select", "1", "1"}, 1)["name"], "NOT_SELECTED")
        << "the card does not say so";
}

TEST_F(KivctlCard, FlashWriteRefusesWhatIsNoImageBeforeAnythingIsSent) {
    const std::string fifo = directory_ / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string large = image();
    ASSERT_EQ(truncate(large.c_str(), (256 << 20) + 1), 0);
    write_file(directory_ / "empty", "");
    const std::pair<std::string, const char*> files[] = {
        {directory_ / "none", "No such file"},
        {fifo, "is no regular file"},
        {"/tmp", "is no regular file"},
        {directory_ / "empty", "is empty"},
        {large, "has 268435457 bytes; an image has at most 268435456"}};
    for (const auto& [file, reason] : files) {
        const Ended ended = expect({"flash", "write", "1", file}, 2, reason);
        EXPECT_TRUE(ended.err.starts_with("kivctl: nothing was sent: ")) << ended.err;
    }
    expect({"flash", "write", "1", large, "--select", "--no-wait"}, 2, "exclude each other");
    EXPECT_FALSE(was_asked("\"method\""));
    expect({"flash", "write", "2", image()}, 1, "there is no card 2");
}

TEST_F(KivctlCard, FlashWaitTakesUpTheWait) {
    EXPECT_EQ(json_of({"flash", "wait", "1"})["state"], "idle");
    change({{"flash_ms", 600'000}});
    const Ended begun = expect({"flash", "write", "1", image(), "--no-wait"}, 0, "kivctl flash wait 1");
    EXPECT_FALSE(has(begun.out, "done"));
    EXPECT_EQ(json_of({"flash", "write", "1", image()}, 1)["name"], "KIV_ERR_BUSY");
    Program waiting(kivctl({"flash", "wait", "1"}));
    EXPECT_NE(waiting.read_line(), "");
    change({{"flash_ms", 1}});
    const Ended waited = waiting.wait();
    EXPECT_EQ(waited.status, 0) << waited.err;
    EXPECT_TRUE(has(waited.out, "done")) << waited.out;
    EXPECT_TRUE(has(waited.out, "slot 1 is written: " + std::string(kImage))) << waited.out;
}

TEST_F(KivctlCard, FlashWriteSaysHowItEndedOtherwise) {
    // The first looks at the state are before the upload, by this program and the library, and the library's
    // own wait.
    add_fault(R"({"path": "/hps/firmware/status", "nth": 5, "patch": "Verify FAILED: code 7"})");
    const std::string failed = text_of(json_of({"flash", "write", "1", image()}, 1));
    EXPECT_TRUE(has(failed, R"("name":"WRITE_FAILED","layer":"card","card":1)"));
    EXPECT_TRUE(has(failed, "Verify FAILED: code 7"));
    json_of({"flash", "wait", "1"});

    add_fault(R"({"path": "/hps/firmware/status", "nth": 15, "status": 503})");
    add_fault(R"({"path": "/hps/firmware/status", "nth": 16, "cut": "before"})");
    EXPECT_EQ(json_of({"flash", "write", "1", image("single failed looks")}).value("written_slot", -1), 1);
    control("DELETE", "/http_faults");

    add_fault(R"({"path": "/hps/firmware/upload", "status": 400})");
    EXPECT_EQ(json_of({"flash", "write", "1", image("refused")}, 1)["name"], "KIV_ERR_REST");
    control("DELETE", "/http_faults");

    change({{"flash_ms", 600'000}});
    const Json late = json_of({"flash", "write", "1", image("too slow"), "--timeout", "1"}, 4);
    EXPECT_EQ(late["name"], "TIMEOUT");
    EXPECT_TRUE(has(text_of(late["remedy"]), "may still be writing"));

    Program waiting(kivctl({"flash", "wait", "1"}));
    EXPECT_NE(waiting.read_line(), "");
    expect_error(waiting.end(SIGINT), 5, "\"kivctl flash wait 1\" takes up the wait again");
}

TEST_F(KivctlCard, FlashWriteIsNotMisledByACardsWords) {
    // Idle when it is looked at for the first time, and no failure.
    add_fault(R"({"path": "/hps/firmware/status", "nth": 4, "patch": "idle"})");
    add_fault(R"({"path": "/hps/firmware/status", "nth": 6, "patch": "writing, no errors so far"})");
    EXPECT_EQ(json_of({"flash", "write", "1", image()})["written_slot"], 1);
    control("DELETE", "/http_faults");

    // A wait would not help against the first.
    const std::pair<Json, const char*> states[] = {
        {"Failed", R"("name":"CARD_STATE")"}, {"erasing", "erasing"}, {7, "has no word for the state"}};
    for (const auto& [state, phrase] : states) {
        change({{"answers", {{"/hps/firmware/status", state}}}});
        const Json error = json_of({"flash", "write", "1", image("x")}, 1);
        EXPECT_EQ(error["card"], 1);
        EXPECT_TRUE(has(text_of(error), phrase));
    }
    change({{"answers", {{"/hps/firmware/info", {{"User1", std::string(100'000, '"')}, {"User2", "x"}}}}}});
    EXPECT_LT(expect({"flash", "--timeout", "5"}, 0, "(100000 bytes in all)").out.size(), 2000u);
}

TEST_F(KivctlCard, FlashWriteSendsTheFileThatWasLookedAt) {
    const std::string file = image();
    add_fault(R"({"path": "/hps/firmware/info", "nth": 1, "delay_ms": 600})");
    Program writing(kivctl({"flash", "write", "1", file}));
    EXPECT_TRUE(wait_until([&] { return was_asked("firmware/status"); }));
    write_file(file, "another image");
    expect_error(writing.wait(), 2, "nothing was sent: " + file + ": has changed");
    EXPECT_FALSE(was_asked("firmware/upload"));
}

TEST_F(KivctlCard, FlashWriteGoesOnWithoutAReader) {
    const Words words = shell("exec \"$0\" flash write 1 \"$1\" > /dev/full", {image()});
    expect_error(run_program(words), 1, "standard output cannot be written");
    EXPECT_EQ(json_of({"flash"})["slots"][1], kImage) << "it was written all the same";
}

TEST_F(KivctlCard, FlashWriteGivesUpOnACardThatFallsSilentAndSaysThatItMayGoOn) {
    Program writing(kivctl({"flash", "write", "1", image(), "--json"}));
    EXPECT_TRUE(wait_until([&] { return was_asked("\"md5hush"); }));
    change({{"removed", true}});
    const Ended ended = writing.wait();
    EXPECT_EQ(ended.status, 1);
    const Json error = parsed(ended.out);
    EXPECT_EQ(error["name"], "NO_ANSWER") << ended.out;
    EXPECT_TRUE(has(text_of(error["remedy"]), "may still be writing"));
}

TEST_F(KivctlCard, FlashWriteLivesInOneLineOfATerminalThatCanMoveItsCursor) {
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
    if (terminal < 0 || grantpt(terminal) != 0 || unlockpt(terminal) != 0)
        GTEST_SKIP() << "this machine gives no pseudo-terminal";
    const std::string name = ptsname(terminal);
    const int other_end = open(name.c_str(), O_RDWR | O_NOCTTY);  // Until what was written is read.
    fcntl(terminal, F_SETFL, O_NONBLOCK);
    const auto shown_with = [&](const char* kind, const std::string& file) {
        const Words words = shell("exec \"$0\" flash write 1 \"$1\" > \"$2\"", {file, name});
        expect_error(run_program(words, {{"TERM", kind}}), 0, "");
        std::string shown;
        EXPECT_TRUE(wait_until([&] {
            char text[4096];
            const ssize_t size = read(terminal, text, sizeof text);
            if (size > 0) shown.append(text, static_cast<std::size_t>(size));
            return shown.ends_with("is written: " + json_of({"flash"})["slots"][1].get<std::string>() +
                                   "\r\n");
        })) << shown;
        return shown;
    };
    const std::string live = shown_with("xterm", image(std::string(100000, 'x')));
    EXPECT_EQ(live.substr(0, 18), "\r\x1b[Kuploading 0:00");
    EXPECT_TRUE(has(live, " of 100000 bytes"));
    EXPECT_TRUE(has(live, "\r\x1b[Kwriting   0:0"));
    EXPECT_TRUE(has(live, "\r\x1b[Kdone      0:0"));
    EXPECT_EQ(live.find('\n'), live.find("slot 1") - 1) << "one line until the end";
    EXPECT_EQ(shown_with("dumb", image("plain")).find('\x1b'), std::string::npos);
    close(other_end);
    close(terminal);
}
