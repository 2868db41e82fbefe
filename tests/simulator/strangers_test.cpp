#include <gtest/gtest.h>
#include <kivplatform/descriptor.h>
#include <kivplatform/driver_protocol.h>
#include <sys/un.h>

#include <filesystem>

#include <IOKit/IOReturn.h>
#include "driver/wire.h"
#include "support/RunningSimulator.h"
#include "support/Waiting.h"

namespace {

constexpr int32_t kHungUp = 1;

/// A program that does not speak as the platform does.
class Stranger {
  public:
    explicit Stranger(const std::string& path) {
        sockaddr_un address{AF_UNIX, {}};
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(connect(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }

    /// Status of the reply to a message with this payload and so many descriptors; `value_` is its first
    /// word.
    int32_t ask(kivplatform_request request, const std::string& payload, std::size_t files = 0) {
        alignas(cmsghdr) char beside[CMSG_SPACE(8 * sizeof(int))] = {};
        iovec parts[] = {{&request, sizeof request}, {const_cast<char*>(payload.data()), payload.size()}};
        const std::size_t attached = files * sizeof(int);
        msghdr message{nullptr, 0, parts, 2, beside, attached == 0 ? 0 : CMSG_SPACE(attached), 0};
        auto* const header = reinterpret_cast<cmsghdr*>(beside);
        if (attached != 0) *header = {CMSG_LEN(attached), SOL_SOCKET, SCM_RIGHTS};
        for (std::size_t at = 0; at < attached; at += sizeof(int))
            std::memcpy(CMSG_DATA(header) + at, &kFile, sizeof(int));
        if (sendmsg(socket_.get(), &message, MSG_NOSIGNAL) < 0) return kHungUp;
        struct {
            kivplatform_reply head;
            uint64_t words[8];
        } reply{};
        const ssize_t size = recv(socket_.get(), &reply, sizeof reply, 0);
        value_ = reply.words[0];
        return size <= 0 ? kHungUp : reply.head.status;
    }

    uint64_t value_ = 0;

  private:
    static constexpr int kFile = STDERR_FILENO;
    const kivplatform::Descriptor socket_{socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)};
};

TEST(Strangers, GiveTheDriverOneDescriptorInAMessageThatFitsOrNone) {
    const RunningSimulator simulator;
    const auto open_descriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    Stranger stranger(simulator.socket_path());
    ASSERT_EQ(stranger.ask({KIVPLATFORM_LIST, 0, 0, 0, 0}, "kivPCIService"), 0);
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

}  // namespace
