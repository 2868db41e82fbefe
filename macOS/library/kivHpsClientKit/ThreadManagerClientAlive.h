/// Keeps this process registered with the card's management server.
#ifndef KIV_THREAD_MANAGER_CLIENT_ALIVE_H
#define KIV_THREAD_MANAGER_CLIENT_ALIVE_H

#include <cstdint>
#include <functional>

#include <kiv/ThreadManager.h>

class ThreadManagerClientAlive final : public ThreadManager {
  public:
    using Callback = std::function<void(int32_t id)>;

    /// Both callbacks run on the thread, and get `id`.
    ThreadManagerClientAlive(int32_t id, Callback registry, Callback keep_alive);

    /// Registers once, then refreshes every 2 s (counted from the end of the refresh before). What becomes of
    /// the requests does not matter: the next one follows.
    void run_thread() override;

  private:
    void call(const Callback& callback) const;

    const int32_t id_;
    const Callback registry_;
    const Callback keep_alive_;
};

#endif
