// Frames on a stream: what comes in pieces, ends early or lies.
#include <kivos/sockets.h>
#include <kivplatform/frames.h>

#include "support/RawFrames.h"
#include "support/Test.h"
#include "support/ThisProcess.h"

namespace {

using kivplatform::IncomingFrames;
using kivplatform::OutgoingFrame;
using Outcome = IncomingFrames::Outcome;

constexpr std::size_t kLargest = 64;

/// Two ends of a stream: the test's, and that of the frames.
class Frames : public testing::Test {
  protected:
    Frames() { EXPECT_TRUE(kivos::socket_pair(test_, own_)); }

    Outcome receive() { return frames_.receive(own_.get(), MSG_DONTWAIT); }

    /// The next message; "-" when there is none.
    std::string take() {
        const auto message = frames_.take(descriptor_);
        return message ? std::string(reinterpret_cast<const char*>(message->data()), message->size()) : "-";
    }

    kivos::Descriptor test_, own_, descriptor_;
    IncomingFrames frames_{kLargest, IncomingFrames::Descriptors::Taken};
};

TEST_F(Frames, AreWholeWhereverTheyAreSplit) {
    const std::string both = framed("one", 1) + framed("") + framed("three");
    const auto before = open_descriptors();
    for (std::size_t cut = 1; cut < both.size(); ++cut) {
        SCOPED_TRACE(cut);
        std::vector<std::string> came;
        const auto collect = [&] {
            EXPECT_EQ(receive(), Outcome::Received);
            for (std::string next; (next = take()) != "-";)
                came.push_back(next + (descriptor_ ? " with a descriptor" : ""));
        };
        EXPECT_TRUE(send_raw(test_.get(), both.substr(0, cut), test_.get(), 1));
        collect();
        EXPECT_EQ(receive(), Outcome::Nothing);
        EXPECT_TRUE(send_raw(test_.get(), both.substr(cut)));
        collect();
        EXPECT_EQ(came, (std::vector<std::string>{"one with a descriptor", "", "three"}));
    }
    descriptor_.reset();
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Frames, ThatBreakOffAreNoMessages) {
    const std::string whole = framed("one");
    for (std::size_t cut = 0; cut < whole.size(); ++cut) {
        ASSERT_TRUE(kivos::socket_pair(test_, own_));
        IncomingFrames frames(kLargest, IncomingFrames::Descriptors::Taken);
        if (cut != 0) {
            EXPECT_TRUE(send_raw(test_.get(), whole.substr(0, cut)));
            EXPECT_EQ(frames.receive(own_.get()), Outcome::Received);
        }
        test_.reset();
        EXPECT_EQ(frames.receive(own_.get()), Outcome::Ended);
        EXPECT_FALSE(frames.has_message());
    }
}

TEST_F(Frames, ThatLieEndTheStreamAndLeakNothing) {
    // Bytes, so many descriptors that come along, what becomes of both.
    const std::tuple<std::string, std::size_t, Outcome, bool> rows[] = {
        {framed(std::string(kLargest, 'x')), 0, Outcome::Received, false},
        {framed("", 0, kLargest + 1), 0, Outcome::Ended, false},
        {framed("", 0, 0xFFFFFFFF), 0, Outcome::Ended, false},
        {framed("one", 1), 0, Outcome::Ended, false},
        {framed("one", 2), 1, Outcome::Ended, false},
        {framed("one", 0xFFFFFFFF), 1, Outcome::Ended, false},
        {framed("one", 0), 1, Outcome::Received, false},
        {framed("one", 1), 1, Outcome::Received, true},
        {framed("one", 1), 3, Outcome::Received, true},
        {framed("one", 2), 2, Outcome::Received, false},
        {framed("one", 100), 100, Outcome::Ended, false},
    };
    const auto before = open_descriptors();
    for (const auto& [bytes, descriptors, outcome, is_given] : rows) {
        SCOPED_TRACE(testing::PrintToString(bytes) + " with " + std::to_string(descriptors));
        IncomingFrames frames(kLargest, IncomingFrames::Descriptors::Taken);
        kivos::Descriptor given;
        ASSERT_TRUE(send_raw(test_.get(), bytes, test_.get(), descriptors));
        EXPECT_EQ(frames.receive(own_.get()), outcome);
        EXPECT_EQ(frames.take(given).has_value(), outcome == Outcome::Received);
        EXPECT_EQ(static_cast<bool>(given), is_given);
        const std::size_t kept =
            outcome == Outcome::Ended ? std::min<std::size_t>(descriptors, 64) : is_given;
        EXPECT_EQ(open_descriptors() - before, static_cast<std::ptrdiff_t>(kept)) << "while the frames live";
        given.reset();
    }
    EXPECT_EQ(open_descriptors(), before);
    for (const std::string& lie : {framed("", 0, 0xFFFFFFFF), framed("", 1)}) {
        IncomingFrames frames(kLargest, IncomingFrames::Descriptors::Taken);
        ASSERT_TRUE(send_raw(test_.get(), framed("one") + lie));
        EXPECT_EQ(frames.receive(own_.get()), Outcome::Received);
        EXPECT_TRUE(frames.take(descriptor_) && !frames.take(descriptor_));
        EXPECT_EQ(frames.receive(own_.get(), MSG_DONTWAIT), Outcome::Ended) << "behind a message";
    }
    IncomingFrames refusing(kLargest, IncomingFrames::Descriptors::Refused);
    ASSERT_TRUE(send_raw(test_.get(), framed("one"), test_.get(), 3));
    EXPECT_EQ(refusing.receive(own_.get()), Outcome::Received);
    EXPECT_TRUE(refusing.has_message());
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Frames, GoOutAsTheSocketTakesThem) {
    ASSERT_TRUE(kivos::do_not_wait(own_.get()));
    const std::string large(1 << 20, 'l');
    const std::span message(reinterpret_cast<const std::byte*>(large.data()), large.size());
    OutgoingFrame frame(message.first(10), message.subspan(10), own_.get());
    IncomingFrames frames(large.size(), IncomingFrames::Descriptors::Taken);
    int times_full = 0;
    while (frame.send(own_.get(), MSG_DONTWAIT) == OutgoingFrame::Outcome::Full) {
        ++times_full;
        while (frames.receive(test_.get(), MSG_DONTWAIT) == Outcome::Received) {
        }
    }
    while (frames.receive(test_.get(), MSG_DONTWAIT) == Outcome::Received) {
    }
    EXPECT_GT(times_full, 0);
    const auto came = frames.take(descriptor_);
    ASSERT_TRUE(came && descriptor_);
    EXPECT_TRUE(std::equal(came->begin(), came->end(), message.begin(), message.end()));
    test_.reset();
    EXPECT_EQ(OutgoingFrame(message).send(own_.get()), OutgoingFrame::Outcome::Gone);
}

}  // namespace
