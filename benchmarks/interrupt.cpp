// The driver's messages: from the driver process's send to the owner's callback, against a message over a
// bare socket to a thread that waits for it as a run loop does; and how long each of many takes.
#include <dlfcn.h>
#include <kiv/kivDriverClient.h>
#include <kiv/kivDriverService.h>
#include <kivos/sockets.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include "Simulator.h"
#include "card/VirtualCard.h"
#include "driver/wire.h"
#include "support/measure.h"
#include "support/report.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using kivbench::Report;
using kivbench::require;
using kivbench::Times;

constexpr std::size_t kSingle = 2000;
constexpr std::size_t kMany = 50'000;
constexpr std::chrono::microseconds kPause{500};
constexpr std::chrono::seconds kPatience{60};
constexpr std::size_t kBytes = 48;  ///< Of a message with three arguments, with its frame.

/// When each message was sent; counted while messages go.
std::vector<double> g_sent(kMany);
std::atomic<std::size_t> g_sends{0};
std::atomic<bool> g_counting{false};

/// Notes when the message goes, and counts it when it has gone: a socket may be full.
template <typename Send>
ssize_t noted(Send send) {
    const std::size_t number = g_sends;
    if (!g_counting || number >= g_sent.size()) return send();
    g_sent[number] = kivbench::now(kivbench::Clock::Elapsed);
    const ssize_t sent = send();
    if (sent > 0) g_sends = number + 1;
    return sent;
}

}  // namespace

/// Stands before the system's: the driver process sends its messages with it, and while they go nothing else.
extern "C" ssize_t sendmsg(int socket, const msghdr* message, int flags) {
    static const auto system =
        reinterpret_cast<ssize_t (*)(int, const msghdr*, int)>(dlsym(RTLD_NEXT, "sendmsg"));
    return noted([&] { return system(socket, message, flags); });
}

namespace {

/// What arrives, and when.
class Arrivals {
  public:
    void expect(std::size_t count) {
        came_ = 0;
        g_sends = 0;
        times_.assign(count, 0);
        g_counting = true;
    }
    void arrive() {
        const std::size_t number = came_;
        if (number >= times_.size()) return;
        times_[number] = kivbench::now(kivbench::Clock::Elapsed);
        came_ = number + 1;
    }
    void wait() const {
        const auto end = std::chrono::steady_clock::now() + kPatience;
        while (came_ < times_.size() || g_sends < times_.size()) {
            require(std::chrono::steady_clock::now() < end, "messages are lost");
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        g_counting = false;
        require(g_sends == times_.size(), "something else was sent");
    }
    /// The time of each on its way.
    Times delays() const {
        Times delays;
        for (std::size_t i = 0; i < times_.size(); ++i)
            delays.add(times_[i] - g_sent[i]);
        return delays;
    }
    double each() const { return (times_.back() - g_sent.front()) / static_cast<double>(times_.size()); }

  private:
    std::atomic<std::size_t> came_{0};
    std::vector<double> times_;
};

/// A thread that sends and one that polls and receives, over a socket pair.
class Bare {
  public:
    explicit Bare(Arrivals& arrivals) {
        require(kivos::socket_pair(near_, far_), "there are no sockets");
        thread_ = std::thread([this, &arrivals] {
            char bytes[kBytes];
            for (pollfd waiting{far_.get(), POLLIN, 0}; poll(&waiting, 1, -1) > 0;) {
                if (recv(far_.get(), bytes, sizeof bytes, MSG_WAITALL) != sizeof bytes) return;
                arrivals.arrive();
            }
        });
    }
    ~Bare() {
        shutdown(near_.get(), SHUT_RDWR);
        thread_.join();
    }
    Bare(const Bare&) = delete;
    Bare& operator=(const Bare&) = delete;

    void send(std::size_t count, std::chrono::nanoseconds pause) const {
        std::thread([=, this] {
            const char bytes[kBytes] = {};
            auto due = std::chrono::steady_clock::now();
            for (std::size_t i = 0; i < count; ++i) {
                std::this_thread::sleep_until(due);
                due += pause;
                require(noted([&] { return ::send(near_.get(), bytes, sizeof bytes, kivos::kNoSignal); }) ==
                            sizeof bytes,
                        "the socket is gone");
            }
        }).join();
    }

  private:
    kivos::Descriptor near_;
    kivos::Descriptor far_;
    std::thread thread_;
};

void measure(Report& report) {
    const std::string socket =
        std::filesystem::temp_directory_path() / ("kiv_benchmark_" + std::to_string(getpid()));
    const kivsim::Simulator simulator({kivsim::believable_card(1)}, socket, "");
    setenv("KIVSIM_SOCKET", socket.c_str(), 1);
    Arrivals arrivals;
    const Bare bare(arrivals);
    kivDriverClientList clients = kivDriverClient::enumerateDevices(KIV_DRIVER_SERVICE_NAME);
    require(!clients.empty(), "there is no card");
    kivDriverClient& client = *clients.front();
    client.set_callback([&](const auto&) { arrivals.arrive(); });
    require(client.open(true) == 0, "the driver cannot be opened");
    const auto ask_for = [&](std::size_t count, std::chrono::nanoseconds pause) {
        kivsim::VirtualCard& card = *simulator.cards().front();
        const std::lock_guard lock(card.mutex);
        card.driver.streams.push_back({{0, 1, 2}, count, pause, std::chrono::steady_clock::now()});
        card.wake_driver();
    };
    const auto run = [&](const auto& send, std::size_t count, std::chrono::nanoseconds pause) {
        arrivals.expect(count);
        send(count, pause);
        arrivals.wait();
    };
    const auto send_bare = [&](std::size_t count, std::chrono::nanoseconds pause) {
        bare.send(count, pause);
    };
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // The driver has answered the open.

    Times ours;
    Times floor;
    Times ours_of_many;
    Times floor_of_many;
    for (int round = 0; round < 7; ++round) {
        run(ask_for, kSingle / 7, kPause);
        ours.add(arrivals.delays().median());
        run(send_bare, kSingle / 7, kPause);
        floor.add(arrivals.delays().median());
        run(ask_for, kMany, {});
        ours_of_many.add(arrivals.each());
        run(send_bare, kMany, {});
        floor_of_many.add(arrivals.each());
    }
    client.close();
    report.about("interrupt messages");
    report.add({"driver's send to the callback",
                "us",
                ours.median() / 1000,
                floor.median() / 1000,
                "socket message to a polling thread",
                {{1.5, 10}}});
    report.add({"each of 50,000 at once", "ns", ours_of_many.median(), floor_of_many.median(),
                "socket message to a polling thread"});
}

}  // namespace

int main(int argc, char** argv) {
    return kivbench::run(argc, argv, measure);
}
