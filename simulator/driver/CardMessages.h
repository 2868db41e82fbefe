/// What the driver sends unasked: the interrupts of cards, and the streams of messages asked for.
#ifndef KIVSIM_CARD_MESSAGES_H
#define KIVSIM_CARD_MESSAGES_H

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "card/VirtualCard.h"
#include "driver/MessageChannels.h"

namespace kivsim {

/// One thread, that of the channels. Its calls lock the cards.
class CardMessages {
  public:
    using Clock = MessageStream::Clock;

    CardMessages(const std::vector<std::shared_ptr<VirtualCard>>& cards, MessageChannels& channels)
        : cards_(cards), channels_(channels) {}

    /// Sends what is due. True when there is more to send at once.
    bool send();

    /// When the next is due, or there may be room for it; nothing when there is none.
    std::optional<Clock::time_point> next_time();

  private:
    struct Timer {
        std::chrono::milliseconds period{};
        Clock::time_point due;
    };

    bool is_interrupt_due(const VirtualCard& card, Clock::time_point now);
    void send_interrupts(VirtualCard& card);
    bool send_streams(VirtualCard& card, Clock::time_point now);
    bool waits_for_room(const VirtualCard& card);
    bool has_listener(const VirtualCard& card) const;

    const std::vector<std::shared_ptr<VirtualCard>>& cards_;
    MessageChannels& channels_;
    std::map<const VirtualCard*, Timer> timers_;  ///< Of cards with interrupts of their own.
};

}  // namespace kivsim

#endif
