// The write of a firmware image, from the file to the slot that has changed.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <nlohmann/json.hpp>
#include <system_error>
#include <thread>

#include "commands.h"
#include "flash.h"
#include "guard.h"
#include "time_text.h"

namespace kivctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kTick{250};
constexpr std::chrono::seconds kSilence{15};  ///< How long a card may give no answer while it writes.
constexpr int64_t kLargest = int64_t{256} << 20;

/// Size of an image that can be sent. Throws what is wrong with the file, of which no card is to blame.
int64_t size_of_image(const std::string& path) {
    const auto refuse = [&](const std::string& what) {
        return Failure(Layer::Argument, "FILE", "nothing was sent: " + printable(path) + ": " + what)
            .ends_with(kUsage);
    };
    struct stat state {};
    if (stat(path.c_str(), &state) != 0) throw refuse(std::generic_category().message(errno));
    if (!S_ISREG(state.st_mode)) throw refuse("is no regular file");
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) throw refuse("cannot be read: " + std::generic_category().message(errno));
    close(file);
    if (state.st_size == 0) throw refuse("is empty");
    if (state.st_size > kLargest)
        throw refuse(fmt::format("has {} bytes; an image has at most {}", state.st_size, kLargest));
    return state.st_size;
}

/// What a person sees of a write: on a terminal one line that lives, else a line for each phase.
class Progress {
  public:
    Progress(Output& output, bool silent)
        : output_(output), silent_(silent), live_(!silent && output.is_terminal()) {}
    ~Progress() {
        if (open_line_) std::fputs("\n", stderr);  // A failure has come in between; its message follows.
    }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void phase(const std::string& name) {
        if (name == phase_) return show();
        phase_ = name;
        detail_.clear();
        if (!live_ && !silent_) output_.print(phase_ + "\n");
        show();
    }

    void detail(std::string text) {
        detail_ = std::move(text);
        show();
    }

    void end(const std::string& name) {
        phase_ = name;
        detail_.clear();
        if (!live_ && !silent_) output_.print(text() + "\n");
        show();
        if (live_) output_.print("\n");
        open_line_ = false;
    }

    int64_t seconds() const {
        return std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start_).count();
    }

  private:
    void show() {
        if (!live_) return;
        output_.print("\r\x1b[K" + text());  // From the line's start, what was there removed.
        open_line_ = true;
    }
    std::string text() const {
        return fmt::format("{:<10}{}{}", phase_, minutes_and_seconds(Clock::now() - start_),
                           detail_.empty() ? "" : "  " + detail_);
    }

    Output& output_;
    const bool silent_;
    const bool live_;
    const Clock::time_point start_ = Clock::now();
    std::string phase_;
    std::string detail_;
    bool open_line_ = false;
};

/// Whether the card's word for its state says that the write has come to a bad end.
bool says_failure(const std::string& word) {
    std::string lower = word;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    constexpr const char* kWords[] = {"fail",    "error",    "abort",   "cancel",
                                      "invalid", "mismatch", "timeout", "corrupt"};
    return std::any_of(std::begin(kWords), std::end(kWords),
                       [&](const char* bad) { return lower.find(bad) != std::string::npos; });
}

std::string may_go_on(uint8_t id) {
    return fmt::format(
        "the card may still be writing: leave its power on; \"kivctl flash wait {}\" takes up the wait again",
        id);
}

/// Waits until the card's flash is idle. Throws when the card says that the write has failed, and when it
/// gives no answer for too long.
void wait_until_idle(const Found& card, Progress& progress) {
    const uint8_t id = card.device.device_id;
    const Server server = server_of(card);
    auto last_answer = Clock::now();
    for (;;) {
        try {
            const std::string word = read_state(server);
            last_answer = Clock::now();
            if (word == "idle") return;
            if (says_failure(word))
                throw Failure(
                    Layer::Card, "WRITE_FAILED",
                    fmt::format("card {} says that the write failed: {}", id, printable(word)),
                    "the slot that boots is untouched unless \"kivctl flash\" says otherwise; write again")
                    .of_card(id);
            progress.phase(printable(word));
        } catch (const Failure& failure) {
            if (failure.name == "WRITE_FAILED") throw;
            if (Clock::now() - last_answer > kSilence)
                throw Failure(failure.layer, "NO_ANSWER",
                              fmt::format("card {} has given no answer for {} s: {}", id, kSilence.count(),
                                          failure.message),
                              may_go_on(id))
                    .of_card(id);
            progress.detail("no answer, asking again");
        }
        std::this_thread::sleep_for(kTick);
    }
}

/// The slots after a write; asked for a while, as a card may be short of time.
FlashSlots read_slots_patiently(const Server& server) {
    const auto end = Clock::now() + kSilence;
    for (;;) {
        try {
            return read_slots(server);
        } catch (const Failure&) {
            if (Clock::now() > end) throw;
        }
        std::this_thread::sleep_for(kTick);
    }
}

/// Uploads the image and starts its write.
void upload(const Found& card, const std::string& path, int64_t size, Progress& progress) {
    const uint8_t id = card.device.device_id;
    progress.phase("uploading");
    struct Told {
        Progress& progress;
        int64_t size;
    } told{progress, size};
    const auto tell = [](uint64_t sent, uint64_t total, void* user) {
        // Around the image stands some text: what was sent of the whole is at most the image.
        const Told& self = *static_cast<Told*>(user);
        const auto around = static_cast<int64_t>(total) - self.size;
        const int64_t of_image = std::clamp<int64_t>(static_cast<int64_t>(sent) - around, 0, self.size);
        self.progress.detail(fmt::format("{} of {} bytes", of_image, self.size));
    };
    const kiv_result_t result = kiv_write_flash_image_with_progress(id, path.c_str(), tell, &told);
    if (result == KIV_OK) return;
    Failure failure = failure_of(result, "the upload", id);
    if (result == KIV_ERR_REST) {
        failure.message = fmt::format(
            "card {}: the image was not taken: the upload or the start of the write was refused or not "
            "answered",
            id);
        failure.remedy =
            fmt::format("\"kivctl flash {}\" tells whether the card is writing; -v shows the log", id);
    }
    throw Failure(failure);
}

struct Written {
    FlashSlots slots;
    std::optional<int> slot;  ///< That has changed.
};

/// Which slot has another image than before. Throws when none has: nothing that was seen says "done".
Written compare(const FlashSlots& before, const FlashSlots& after, uint8_t id) {
    Written written{after, std::nullopt};
    const bool changed[] = {before.image[0] != after.image[0], before.image[1] != after.image[1]};
    if (changed[0] && changed[1])
        throw Failure(Layer::Card, "BOTH_CHANGED", fmt::format("card {}: both slots have changed", id),
                      "see \"kivctl flash\" before the card boots")
            .of_card(id);
    if (!changed[0] && !changed[1])
        throw Failure(
            Layer::Card, "NOT_WRITTEN",
            fmt::format("card {} is idle again, but no slot has changed: nothing was written, or one had "
                        "this image already",
                        id),
            "\"kivctl flash\" shows both slots")
            .of_card(id);
    written.slot = changed[0] ? 0 : 1;
    return written;
}

void select_written_slot(const Found& card, int slot) try {
    select_slot(card, slot);
} catch (const Failure& failure) {
    Failure both(failure);
    both.message =
        fmt::format("slot {} is written, but whether it boots next is not sure: {}", slot, failure.message);
    both.remedy =
        fmt::format("\"kivctl flash select {} {}\" tries the choice again", card.device.device_id, slot);
    throw Failure(both);
}

void expect_long_wait(uint8_t id) {
    guard().also_say(may_go_on(id));
    guard().end_on_signals(Failure(Layer::Card, "INTERRUPTED",
                                   fmt::format("interrupted while card {} is being written", id),
                                   may_go_on(id))
                               .of_card(id)
                               .ends_with(kInterrupted));
    waiting_for(Layer::Card, "the card's flash");
}

void print_end(const Request& request, Output& output, Json json, const Written& written, bool selected) {
    const uint8_t id = json["card"];
    json["written_slot"] = written.slot ? Json(*written.slot) : Json();
    add_to(json, written.slots);
    if (selected) json["next_boot_slot"] = *written.slot;
    if (request.json) return output.print_json(json);
    if (!written.slot) return;
    output.print(fmt::format("slot {} is written: {}\n", *written.slot,
                             printable(written.slots.image[static_cast<std::size_t>(*written.slot)])));
    if (selected) {
        output.print(fmt::format("card {} boots slot {} next\n", id, *written.slot));
    } else if (written.slots.next_boot != written.slot) {
        Output::note(
            fmt::format("the card boots the slot that it booted before: \"kivctl flash select {} {}\" "
                        "makes it boot the new image",
                        id, *written.slot));
    }
}

}  // namespace

Options flash_write_options(Request& request) {
    return {{text_option("FILE", "Firmware image", " ", request.file),
             {"--no-wait", "End when the card has the image", "", nullptr, &request.no_wait},
             {"--select", "Boot the slot that was written next", "", nullptr, &request.select_written}}};
}

Exit flash_write(const Request& request, Output& output) {
    if (request.no_wait && request.select_written)
        throw usage("--select needs the end of the write: it and --no-wait exclude each other");
    const int64_t size = size_of_image(request.file);
    const Found card = open_card(request.card, Asks::Server);
    const uint8_t id = card.device.device_id;
    const Server server = server_of(card);
    const FlashSlots before = read_slots(server);
    Json json = document("flash-write");
    json["card"] = id;
    json["file"] = request.file;
    json["bytes"] = size;

    Progress progress(output, request.json);
    expect_long_wait(id);
    upload(card, request.file, size, progress);
    Written written{before, std::nullopt};
    if (request.no_wait) {
        progress.end("writing");
        json["state"] = "writing";
        Output::note(fmt::format("the card goes on by itself: \"kivctl flash wait {}\" waits for it", id));
    } else {
        wait_until_idle(card, progress);
        written = compare(before, read_slots_patiently(server), id);
        if (request.select_written) select_written_slot(card, *written.slot);
        progress.end("done");
        json["state"] = "done";
    }
    json["seconds"] = progress.seconds();
    print_end(request, output, json, written, request.select_written);
    return kDone;
}

Exit flash_wait(const Request& request, Output& output) {
    const Found card = open_card(request.card, Asks::Server);
    const uint8_t id = card.device.device_id;
    const Server server = server_of(card);
    const FlashSlots before = read_slots(server);
    const bool was_idle = read_state(server) == "idle";
    Json json = document("flash-wait");
    json["card"] = id;
    Progress progress(output, request.json);
    Written written{before, std::nullopt};
    if (was_idle) {
        Output::note(fmt::format("card {} writes nothing: \"kivctl flash {}\" shows its slots", id, id));
    } else {
        expect_long_wait(id);
        wait_until_idle(card, progress);
        written = compare(before, read_slots_patiently(server), id);
        progress.end("done");
    }
    json["state"] = was_idle ? "idle" : "done";
    json["seconds"] = progress.seconds();
    print_end(request, output, json, written, false);
    return kDone;
}

}  // namespace kivctl
