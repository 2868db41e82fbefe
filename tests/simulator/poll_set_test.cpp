// Waiting for many descriptors: the silent ones are left to a thread, and nothing may be seen of that.
#include <gtest/gtest.h>
#include <kivos/sockets.h>

#include "common/PollSet.h"

namespace {

constexpr std::size_t kMany = 300;
constexpr int kLimit = 20'000;  ///< Milliseconds.

struct Pair {
    Pair() { EXPECT_TRUE(kivos::socket_pair(near_end, far_end)); }
    void speak() const { EXPECT_EQ(send(far_end.get(), "x", 1, kivos::kNoSignal), 1); }
    void hear() const {
        char heard = 0;
        EXPECT_EQ(recv(near_end.get(), &heard, 1, MSG_DONTWAIT), 1);
    }
    kivos::Descriptor near_end{};
    kivos::Descriptor far_end{};
};

class Polling : public testing::Test {
  protected:
    Polling() {
        for (std::size_t i = 0; i < kMany; ++i)
            set_.watch(i, pairs_[i].near_end.get(), POLLIN);
        EXPECT_TRUE(set_.wait(0).empty());  // From now on most are silent.
    }

    std::vector<Pair> pairs_ = std::vector<Pair>(kMany);
    kivsim::PollSet set_;
};

TEST_F(Polling, TellsOfEachHoweverLongItWasSilent) {
    for (int round = 0; round < 3; ++round) {
        for (std::size_t i = 0; i < kMany; ++i) {
            pairs_[i].speak();
            ASSERT_EQ(set_.wait(kLimit), std::vector<uint64_t>{i});
            pairs_[i].hear();
        }
    }
    EXPECT_TRUE(set_.wait(0).empty());
}

TEST_F(Polling, ForgetsASilentOneBeforeItsNumberIsAnothers) {
    for (std::size_t i = 0; i < kMany; i += 2) {
        set_.forget(i);
        pairs_[i].speak();
    }
    EXPECT_TRUE(set_.wait(20).empty());
    pairs_[1].speak();
    EXPECT_EQ(set_.wait(kLimit), std::vector<uint64_t>{1});
}

TEST_F(Polling, WaitsForOtherEventsOfASilentOne) {
    set_.watch(5, pairs_[5].near_end.get(), POLLOUT);
    EXPECT_EQ(set_.wait(kLimit), std::vector<uint64_t>{5});
    set_.watch(5, pairs_[5].near_end.get(), POLLIN);
    EXPECT_TRUE(set_.wait(0).empty());
    pairs_[7].far_end.reset();
    EXPECT_EQ(set_.wait(kLimit), std::vector<uint64_t>{7}) << "hung up";
}

}  // namespace
