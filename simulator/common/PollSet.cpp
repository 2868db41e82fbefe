#include "common/PollSet.h"

namespace kivsim {

void PollSet::watch(uint64_t number, int descriptor, short events) {
    const auto [place, is_new] = places_.try_emplace(number, entries_.size());
    if (is_new) {
        entries_.emplace_back();
        numbers_.push_back(number);
    }
    entries_[place->second] = {descriptor, events, 0};
}

/// The last one takes its place.
void PollSet::forget(uint64_t number) {
    const auto found = places_.find(number);
    if (found == places_.end()) return;
    entries_[found->second] = entries_.back();
    numbers_[found->second] = numbers_.back();
    places_[numbers_.back()] = found->second;
    entries_.pop_back();
    numbers_.pop_back();
    places_.erase(number);
}

const std::vector<uint64_t>& PollSet::wait(int milliseconds) {
    ready_.clear();
    int count = poll(entries_.data(), static_cast<nfds_t>(entries_.size()), milliseconds);
    for (std::size_t i = 0; count > 0 && i < entries_.size(); ++i) {
        if (entries_[i].revents == 0) continue;
        ready_.push_back(numbers_[i]);
        --count;
    }
    return ready_;
}

}  // namespace kivsim
