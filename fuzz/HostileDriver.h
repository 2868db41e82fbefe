/// A driver process that says what an input says.
#ifndef KIV_FUZZ_HOSTILE_DRIVER_H
#define KIV_FUZZ_HOSTILE_DRIVER_H

#include <kivos/descriptor.h>
#include <kivplatform/frames.h>

#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "input.h"
#include "support/TemporaryDirectory.h"

namespace fuzz {

/// Serves the socket that the library looks at, from its creation on; for the whole process. Every request is
/// answered or hung up at once, so that the library never waits for it.
class HostileDriver {
  public:
    HostileDriver();

    /// From now on answers are made of these bytes; behind their end they are good ones with nothing in them.
    void speak(std::vector<uint8_t> script);

  private:
    struct Connection {
        kivos::Descriptor socket{};
        kivplatform::IncomingFrames requests{1 << 20, kivplatform::IncomingFrames::Descriptors::Taken};
        kivos::Descriptor messages{};  ///< Where its interrupts go.
    };

    void serve();
    bool serve(Connection& connection);
    bool answer(Connection& connection, const kivplatform_request& request);
    bool reply(Connection& connection, int32_t status, const std::string& payload, int descriptor = -1);
    bool map(Connection& connection);
    void send_messages(const Connection& connection);

    const TemporaryDirectory directory_;
    kivos::Descriptor listener_;
    std::mutex mutex_;  ///< Guards all below.
    std::vector<uint8_t> script_;
    Bytes bytes_{{}};
    std::list<Connection> connections_;
};

}  // namespace fuzz

#endif
