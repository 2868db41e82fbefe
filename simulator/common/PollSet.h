/// What one thread waits for.
#ifndef KIVSIM_POLL_SET_H
#define KIVSIM_POLL_SET_H

#include <kivplatform/waker.h>
#include <poll.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

namespace kivsim {

/// Descriptors, each known by a number. One thread. poll() looks at every descriptor at every call, so that
/// one call of a thousand connections costs more than the answer to one of them: those that have been silent
/// for long are left to a second thread, which gives back what is ready.
class PollSet {
  public:
    PollSet() = default;
    ~PollSet();
    PollSet(const PollSet&) = delete;
    PollSet& operator=(const PollSet&) = delete;

    /// From now on waits for these events (POLLIN, POLLOUT) of that descriptor; one that is hung up is ready,
    /// too. For a number that is known its events change.
    void watch(uint64_t number, int descriptor, short events);

    /// Before the descriptor is closed.
    void forget(uint64_t number);

    /// Waits for at most so many milliseconds, -1 for ever. The numbers of what is ready, until the next
    /// wait.
    const std::vector<uint64_t>& wait(int milliseconds);

  private:
    /// Entries and their numbers, side by side as poll() wants them. The first entry wakes the wait.
    class List {
      public:
        explicit List(const kivplatform::Waker& waker)
            : entries_{{waker.descriptor(), POLLIN, 0}}, numbers_{0} {}
        void add(uint64_t number, pollfd entry);
        /// The entry that goes; its place is taken by the last one.
        pollfd remove(std::size_t place);
        pollfd remove_number(uint64_t number);
        std::size_t size() const { return entries_.size(); }
        uint64_t number(std::size_t place) const { return numbers_[place]; }
        int wait(int milliseconds);
        bool is_ready(std::size_t place) const { return entries_[place].revents != 0; }

      private:
        std::vector<pollfd> entries_;
        std::vector<uint64_t> numbers_;
    };
    struct Known {
        short events = 0;
        bool is_silent = false;  ///< Left to the second thread.
        uint64_t last_ready = 0;
    };
    struct Entry {
        uint64_t number;
        pollfd entry;
    };

    void leave_silent_ones();
    void take_ready_ones();
    void serve_silent_ones();

    kivplatform::Waker waker_;
    List active_{waker_};
    std::unordered_map<uint64_t, Known> known_;
    std::vector<uint64_t> ready_;
    uint64_t waits_ = 0;

    kivplatform::Waker silent_waker_;
    std::mutex mutex_;  ///< Guards all below.
    std::condition_variable changed_;
    std::vector<Entry> falling_silent_;
    std::vector<uint64_t> forgotten_;
    std::vector<Entry> speaking_again_;
    bool ends_ = false;
    std::thread thread_;  ///< From the first that is left to it.
};

}  // namespace kivsim

#endif
