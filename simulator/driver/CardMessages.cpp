#include "driver/CardMessages.h"

#include <algorithm>

#include "driver/selectors.h"

namespace kivsim {

namespace {

/// Messages that a stream without pauses sends before others get their turn.
constexpr int kBatch = 1000;

/// How long to wait for a program that is far behind before looking again.
constexpr std::chrono::milliseconds kRoomPause{100};

}  // namespace

bool CardMessages::send() {
    const Clock::time_point now = Clock::now();
    bool more = false;
    for (const auto& card : cards_) {
        const std::lock_guard lock(card->mutex);
        if (is_interrupt_due(*card, now) && !card->settings.removed) send_interrupts(*card);
        if (!has_listener(*card)) card->driver.streams.clear();
        more = send_streams(*card, now) || more;
    }
    return more;
}

/// Follows the period that the card has now; one that is new begins with an interrupt.
bool CardMessages::is_interrupt_due(const VirtualCard& card, Clock::time_point now) {
    const std::chrono::milliseconds period(card.settings.interrupt_ms);
    if (period.count() == 0) {
        timers_.erase(&card);
        return false;
    }
    Timer& timer = timers_[&card];
    if (timer.period == period && now < timer.due) return false;
    timer = {period, now + period};
    return true;
}

void CardMessages::send_interrupts(VirtualCard& card) {
    for (const auto& [number, connection] : card.driver.connections) {
        for (const uint32_t interrupt : connection.interrupts) {
            if (channels_.is_full(number)) break;  // Interrupts do not pile up.
            const uint64_t arguments[] = {interrupt, ++card.driver.interrupt_count, tai_ns()};
            channels_.send(number, arguments);
        }
    }
}

bool CardMessages::send_streams(VirtualCard& card, Clock::time_point now) {
    bool more = false;
    for (MessageStream& stream : card.driver.streams) {
        for (int sent = 0; stream.left != 0 && stream.due <= now && !waits_for_room(card); ++sent) {
            if (sent == kBatch) {
                more = true;
                break;
            }
            for (const auto& [number, connection] : card.driver.connections)
                channels_.send(number, stream.arguments);
            if (!stream.arguments.empty()) ++stream.arguments.front();
            --stream.left;
            stream.due += stream.pause;
        }
    }
    std::erase_if(card.driver.streams, [](const MessageStream& stream) { return stream.left == 0; });
    return more;
}

std::optional<CardMessages::Clock::time_point> CardMessages::next_time() {
    std::optional<Clock::time_point> next;
    const auto consider = [&](Clock::time_point time) { next = next ? std::min(*next, time) : time; };
    for (const auto& [card, timer] : timers_)
        consider(timer.due);
    for (const auto& card : cards_) {
        const std::lock_guard lock(card->mutex);
        const Clock::time_point room =
            waits_for_room(*card) ? Clock::now() + kRoomPause : Clock::time_point{};
        for (const MessageStream& stream : card->driver.streams)
            consider(std::max(stream.due, room));
    }
    return next;
}

/// Whether a program that takes the card's messages is far behind.
bool CardMessages::waits_for_room(const VirtualCard& card) {
    for (const auto& [number, connection] : card.driver.connections) {
        if (channels_.is_full(number)) return true;
    }
    return false;
}

bool CardMessages::has_listener(const VirtualCard& card) const {
    const auto& connections = card.driver.connections;
    return !card.settings.removed &&
           std::any_of(connections.begin(), connections.end(),
                       [&](const auto& entry) { return channels_.has(entry.first); });
}

}  // namespace kivsim
