#include "connection.h"

namespace kivplatform {

bool Connection::add(const std::shared_ptr<Channel>& channel, const std::shared_ptr<Channels>& port) {
    const std::lock_guard lock(mutex_);
    if (closed_) return false;
    std::erase_if(channels_, [](const auto& each) { return each.first.expired(); });
    channels_.emplace_back(channel, port);
    port->add(channel);
    return true;
}

void Connection::close() {
    {
        const std::lock_guard lock(mutex_);
        closed_ = true;
        for (const auto& [weak, port] : channels_) {
            const auto channel = weak.lock();
            if (!channel) continue;
            channel->close();
            port->remove(channel.get());
        }
        channels_.clear();
    }
    conversation_->end();
    mappings_.close();
}

}  // namespace kivplatform
