/// What one thread waits for.
#ifndef KIVSIM_POLL_SET_H
#define KIVSIM_POLL_SET_H

#include <poll.h>

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

namespace kivsim {

/// Descriptors, each known by a number. One thread.
class PollSet {
  public:
    /// From now on waits for these events (POLLIN, POLLOUT) of that descriptor: an errant one or one that is
    /// hung up counts as ready too. For a number that is known its events change.
    void watch(uint64_t number, int descriptor, short events);
    void forget(uint64_t number);

    /// Waits for at most so many milliseconds, -1 for ever. The numbers of what is ready, until the next
    /// wait.
    const std::vector<uint64_t>& wait(int milliseconds);

  private:
    std::vector<pollfd> entries_;
    std::vector<uint64_t> numbers_;  ///< Of the entries.
    std::unordered_map<uint64_t, std::size_t> places_;
    std::vector<uint64_t> ready_;
};

}  // namespace kivsim

#endif
