// The write of a firmware image, from the file to the slot that has changed.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <thread>

#include "commands.h"
#include "flash.h"
#include "guard.h"
#include "image_file.h"
#include "progress.h"

namespace kivctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kTick{250};
constexpr std::chrono::seconds kSilence{15};  ///< How long a card may give no answer while it writes.

constexpr std::chrono::seconds kStart{10};  ///< How long a card may take to begin.

std::string may_go_on(uint8_t id) {
    return fmt::format(
        "the card may still be writing: leave its power on; \"kivctl flash wait {}\" takes up the wait again",
        id);
}

bool differ(const FlashSlots& a, const FlashSlots& b) {
    return a.image != b.image;
}

/// Whether the wait is over: the card is idle after it was seen busy, a slot has changed, or nothing begins.
/// Throws when the card says that the write has failed.
class Waiting {
  public:
    Waiting(const Found& card, const FlashSlots& before) : card_(card), before_(before) {}

    bool is_over(Progress& progress) {
        const std::string word = read_state(card_);
        if (word == "idle")
            return busy_ || differ(read_slots(card_), before_) || Clock::now() - start_ > kStart;
        busy_ = true;
        if (says_failure(word)) {
            const uint8_t id = card_.device.device_id;
            throw Failure(Layer::Card, "WRITE_FAILED",
                          fmt::format("card {} says that the write failed: {}", id, printable(word)),
                          "the slot that boots is untouched unless \"kivctl flash\" says otherwise")
                .of_card(id);
        }
        progress.phase(printable(word));
        return false;
    }

    bool was_busy() const { return busy_; }

  private:
    const Found& card_;
    const FlashSlots& before_;
    const Clock::time_point start_ = Clock::now();
    bool busy_ = false;
};

/// Asks again and again; a card that writes may leave single questions unanswered, but not for long.
template <typename Ask>
auto ask_patiently(const Found& card, Progress& progress, Ask ask) {
    const auto start = Clock::now();
    for (;;) {
        try {
            return ask();
        } catch (const Failure& failure) {
            const bool answered = failure.layer != Layer::Server && failure.layer != Layer::Network;
            if (answered) throw;
            const uint8_t id = card.device.device_id;
            if (Clock::now() - start > kSilence)
                throw Failure(failure.layer, "NO_ANSWER",
                              fmt::format("card {} has given no good answer for {} s: {}", id,
                                          kSilence.count(), failure.message),
                              may_go_on(id))
                    .of_card(id);
            progress.detail("no answer, asking again");
        }
        std::this_thread::sleep_for(kTick);
    }
}

void wait_until_over(const Found& card, Waiting& waiting, Progress& progress) {
    while (!ask_patiently(card, progress, [&] { return waiting.is_over(progress); }))
        std::this_thread::sleep_for(kTick);
}

/// Throws why a card does not take an image, in its own word.
void need_idle(const Found& card) {
    const uint8_t id = card.device.device_id;
    const std::string word = read_state(card);
    if (word == "idle") return;
    if (says_failure(word))
        throw Failure(Layer::Card, "CARD_STATE",
                      fmt::format("nothing was sent: card {} reports \"{}\", and takes no image so", id,
                                  printable(word)),
                      "restart the card's processor; its manual says how")
            .of_card(id);
    Failure busy = failure_of(KIV_ERR_BUSY, "the upload", id);
    busy.message = fmt::format("nothing was sent: card {} is busy with its flash: {}", id, printable(word));
    throw Failure(busy);
}

/// Why the upload did not go well: the file's fault, or the card's.
Failure why_not_uploaded(kiv_result_t result, const Found& card, const Image& image) {
    const uint8_t id = card.device.device_id;
    Failure failure = failure_of(result, "the upload", id);
    if (!image.is_as_it_was()) {
        failure.layer = Layer::Argument;
        failure.name = "FILE_CHANGED";
        failure.message = printable(image.path()) + ": has changed while it was sent";
    } else if (result == KIV_ERR_REST) {
        failure.message = fmt::format(
            "card {}: the image was not taken: the upload or the start of the write was refused or not "
            "answered",
            id);
    } else {
        return failure;
    }
    failure.remedy =
        fmt::format("\"kivctl flash {}\" tells whether the card is writing; -v shows the log", id);
    return failure;
}

/// Uploads the image and starts its write.
void upload(const Found& card, const Image& image, Progress& progress) {
    struct Told {
        Progress& progress;
        int64_t size;
    } told{progress, image.size()};
    const auto tell = [](uint64_t sent, uint64_t total, void* user) {
        // Around the image stands some text: what was sent of the whole is at most the image.
        const Told& self = *static_cast<Told*>(user);
        const auto around = static_cast<int64_t>(total) - self.size;
        const int64_t of_image = std::clamp<int64_t>(static_cast<int64_t>(sent) - around, 0, self.size);
        self.progress.detail(fmt::format("{} of {} bytes", of_image, self.size));
    };
    if (!image.is_as_it_was()) throw image.refusal("has changed since it was looked at");
    const uint8_t id = card.device.device_id;
    const kiv_result_t result = kiv_write_flash_image_with_progress(id, image.path().c_str(), tell, &told);
    if (result != KIV_OK) throw why_not_uploaded(result, card, image);
    if (image.is_as_it_was()) return;
    throw Failure(Layer::Argument, "FILE_CHANGED",
                  fmt::format("{}: has changed while it was sent, and card {} writes what was there then",
                              printable(image.path()), id),
                  "\"kivctl flash wait\" waits for the card; then write the file again")
        .of_card(id);
}

struct Written {
    FlashSlots slots;
    std::optional<int> slot;  ///< That has changed.
};

/// Which slot has another image than before. Throws when none has: nothing that was seen says "done".
Written compare(const FlashSlots& before, const FlashSlots& after, bool was_busy, uint8_t id) {
    Written written{after, std::nullopt};
    const bool changed[] = {before.image[0] != after.image[0], before.image[1] != after.image[1]};
    if (changed[0] && changed[1])
        throw Failure(Layer::Card, "BOTH_CHANGED", fmt::format("card {}: both slots have changed", id),
                      "see \"kivctl flash\" before the card boots")
            .of_card(id);
    if (!changed[0] && !changed[1])
        throw Failure(
            Layer::Card, "NOT_WRITTEN",
            fmt::format("card {}: {}, and no slot has changed: nothing was written, or one had this "
                        "image already",
                        id, was_busy ? "it is idle again" : "no write was seen to start"),
            "\"kivctl flash\" shows both slots")
            .of_card(id);
    written.slot = changed[0] ? 0 : 1;
    return written;
}

/// The end of a write that goes on.
Written wait_for_write(const Found& card, const FlashSlots& before, Progress& progress) {
    const uint8_t id = card.device.device_id;
    Waiting waiting(card, before);
    wait_until_over(card, waiting, progress);
    guard().also_say("");
    try {
        const FlashSlots after = ask_patiently(card, progress, [&] { return read_slots(card); });
        return compare(before, after, waiting.was_busy(), id);
    } catch (const Failure& failure) {
        if (failure.name != "NO_ANSWER") throw;
        throw Failure(
            failure.layer, "SLOT_UNKNOWN",
            fmt::format("card {} is idle again, but does not tell its slots: {}", id, failure.message),
            fmt::format("\"kivctl flash {}\" asks again", id))
            .of_card(id);
    }
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
    const Image image(request.file);
    const Found card = open_card(request.card, Asks::Server);
    const uint8_t id = card.device.device_id;
    need_idle(card);
    const FlashSlots before = read_slots(card);
    Json json = document("flash-write");
    json["card"] = id;
    json["file"] = request.file;
    json["bytes"] = image.size();

    Progress progress(output, request.json);
    progress.phase("uploading");
    expect_long_wait(id);
    upload(card, image, progress);
    Written written{before, std::nullopt};
    if (request.no_wait) {
        progress.end("writing");
        json["state"] = "writing";
        Output::note(fmt::format("the card goes on by itself: \"kivctl flash wait {}\" waits for it", id));
    } else {
        written = wait_for_write(card, before, progress);
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
    const FlashSlots before = read_slots(card);
    const bool was_idle = read_state(card) == "idle";
    Json json = document("flash-wait");
    json["card"] = id;
    Progress progress(output, request.json);
    Written written{before, std::nullopt};
    if (was_idle) {
        Output::note(fmt::format("card {} writes nothing: \"kivctl flash {}\" shows its slots", id, id));
    } else {
        expect_long_wait(id);
        written = wait_for_write(card, before, progress);
        progress.end("done");
    }
    json["state"] = was_idle ? "idle" : "done";
    json["seconds"] = progress.seconds();
    print_end(request, output, json, written, false);
    return kDone;
}

}  // namespace kivctl
