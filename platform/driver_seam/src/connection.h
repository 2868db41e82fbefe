/// An open connection: the conversation with the driver, and all that ends with it.
#ifndef KIVPLATFORM_CONNECTION_H
#define KIVPLATFORM_CONNECTION_H

#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "channel.h"
#include "memory.h"
#include "socket.h"

namespace kivplatform {

class Connection {
  public:
    explicit Connection(std::shared_ptr<Conversation> conversation)
        : conversation_(std::move(conversation)) {}

    Conversation& conversation() { return *conversation_; }
    Mappings& mappings() { return mappings_; }

    /// Lets the port deliver the channel's messages until the connection closes; false when it has closed.
    bool add(const std::shared_ptr<Channel>& channel, const std::shared_ptr<Channels>& port);

    /// First ends the messages, then the conversation, then the mappings.
    void close();

  private:
    const std::shared_ptr<Conversation> conversation_;
    Mappings mappings_;
    std::mutex mutex_;  ///< Guards all below.
    /// A channel belongs to its port: it may go earlier, when the driver ends it.
    std::vector<std::pair<std::weak_ptr<Channel>, std::shared_ptr<Channels>>> channels_;
    bool closed_ = false;
};

}  // namespace kivplatform

#endif
