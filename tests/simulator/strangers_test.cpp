#include <kivos/sockets.h>
#include <kivplatform/frames.h>
#include <poll.h>
#include <sys/un.h>

#include <IOKit/IOReturn.h>
#include "support/DriverFault.h"
#include "support/RawFrames.h"
#include "support/RunningSimulator.h"
#include "support/Test.h"
#include "support/ThisProcess.h"

namespace {

constexpr int32_t kHungUp = 1;

/// A program that does not speak as the platform does.
class Stranger {
  public:
    explicit Stranger(const RunningSimulator& simulator) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        simulator.socket_path().copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(connect(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }

    bool say(std::string_view bytes, std::size_t files = 0) const {
        return send_raw(socket_.get(), bytes, STDERR_FILENO, files);
    }

    /// Whether the driver still takes something.
    bool has_room() const {
        pollfd entry{socket_.get(), POLLOUT, 0};
        return poll(&entry, 1, 200) > 0;
    }

    /// Status of the next reply; `value_` is its first word.
    int32_t hear() {
        kivos::Descriptor none;
        std::optional<std::span<const std::byte>> reply;
        while (!(reply = replies_.take(none))) {
            if (replies_.receive(socket_.get()) == kivplatform::IncomingFrames::Outcome::Ended)
                return kHungUp;
        }
        kivplatform_reply head{};
        std::memcpy(&head, reply->data(), sizeof head);
        if (reply->size() >= sizeof head + sizeof value_)
            std::memcpy(&value_, reply->data() + sizeof head, sizeof value_);
        return head.status;
    }

    /// Status of the reply to a request with this payload and so many descriptors.
    int32_t ask(kivplatform_request request, const std::string& payload, std::size_t files = 0) {
        return say(framed(bytes_of(request) + payload, static_cast<uint32_t>(files)), files) ? hear()
                                                                                             : kHungUp;
    }

    uint64_t value_ = 0;

  private:
    const kivos::Descriptor socket_ = kivos::stream_socket(AF_UNIX);
    kivplatform::IncomingFrames replies_{sizeof(kivplatform_reply) + KIVPLATFORM_MESSAGE_SIZE,
                                         kivplatform::IncomingFrames::Descriptors::Taken};
};

constexpr kivplatform_request kList{KIVPLATFORM_LIST, 0, 0, 0, 0};
const std::string kCards = "kivPCIService";
const std::string kListing = framed(bytes_of(kList) + kCards);

TEST(Strangers, GiveTheDriverOneDescriptorInAMessageThatFitsOrNone) {
    const RunningSimulator simulator;
    Stranger stranger(simulator);
    ASSERT_EQ(stranger.ask(kList, kCards), 0);
    ASSERT_EQ(stranger.ask({KIVPLATFORM_OPEN, 22, stranger.value_, 0, 0}, ""), 0);
    const auto before = open_descriptors();
    const kivplatform_request call{KIVPLATFORM_CALL_ASYNC, kiv::wire::kRegisterInterruptAsyncCallback, 0, 0,
                                   0};
    for (const std::size_t files : {0u, 2u, 3u, 8u})
        EXPECT_EQ(stranger.ask(call, "", files), kIOReturnBadArgument) << files;
    EXPECT_TRUE(wait_until([&] { return open_descriptors() == before; }));
    EXPECT_EQ(stranger.ask(call, "", 1), 0);
    EXPECT_EQ(stranger.ask(call, std::string(KIVPLATFORM_MESSAGE_SIZE + 1, 'x'), 1), kHungUp);
}

TEST(Strangers, ThatBreakTheFramesAreHungUpOnAndThoseThatStallHoldUpNobody) {
    const RunningSimulator simulator;
    std::vector<std::unique_ptr<Stranger>> stalling;
    for (std::size_t cut = 1; cut < kListing.size(); ++cut) {
        stalling.push_back(std::make_unique<Stranger>(simulator));
        EXPECT_TRUE(stalling.back()->say(kListing.substr(0, cut)));
    }
    for (const std::string& broken :
         {framed("short"), framed(bytes_of(kList), 1), framed("", 0, 0x7FFFFFFF)}) {
        Stranger stranger(simulator);
        EXPECT_TRUE(stranger.say(broken));
        EXPECT_EQ(stranger.hear(), kHungUp);
    }
    EXPECT_EQ(Stranger(simulator).ask(kList, kCards), 0);
    for (std::size_t cut = 1; cut < kListing.size(); ++cut) {
        EXPECT_TRUE(stalling[cut - 1]->say(kListing.substr(cut)));
        EXPECT_EQ(stalling[cut - 1]->hear(), 0) << cut;
    }
}

TEST(Strangers, ThatDoNotWaitForALateReplyAreHungUpOn) {
    auto cards = kivsim::default_cards();
    cards[0].driver_faults = {fault(kiv::wire::kReadPci64).delay_ms(600'000)};
    const RunningSimulator simulator(cards);
    Stranger stranger(simulator);
    ASSERT_EQ(stranger.ask(kList, kCards), 0);
    ASSERT_EQ(stranger.ask({KIVPLATFORM_OPEN, 22, stranger.value_, 0, 0}, ""), 0);
    const std::string call =
        framed(bytes_of(kivplatform_request{KIVPLATFORM_CALL, kiv::wire::kReadPci64, 0, 0, 0}));
    EXPECT_TRUE(stranger.say(call + call));
    EXPECT_EQ(stranger.hear(), kHungUp);
}

TEST(Strangers, ThatAskWithoutReadingAreReadNoFurtherAndGetAllInTheEnd) {
    const RunningSimulator simulator;
    Stranger stranger(simulator);
    constexpr std::size_t kFarTooMany = 1'000'000;
    std::size_t asked = 0;
    while (asked < kFarTooMany && stranger.has_room())
        asked += stranger.say(kListing) ? 1 : 0;
    EXPECT_LT(asked, kFarTooMany);
    EXPECT_EQ(Stranger(simulator).ask(kList, kCards), 0);
    for (std::size_t i = 0; i < asked; ++i)
        ASSERT_EQ(stranger.hear(), 0) << i;
}

}  // namespace
