/// The state of one virtual card. The driver process and the management servers both work on it.
#ifndef KIVSIM_VIRTUAL_CARD_H
#define KIVSIM_VIRTUAL_CARD_H

#include "driver/wire.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "card/BarMemory.h"
#include "card/CardSettings.h"
#include "card/DriverState.h"
#include "card/Firmware.h"

namespace kivsim {

/// Memories that the driver allocates for the ANC engine when it starts.
inline constexpr uint32_t kAncMemories[] = {0x100, 0x101, 0x102, 0x103};

class VirtualCard {
  public:
    explicit VirtualCard(CardSettings given);

    const uint8_t id;

    /// "address:port" of the management server.
    const std::string& server_address() const { return server_address_; }
    void serve_at(uint16_t port);  ///< The port in use; before the driver process and the servers run.

    /// The fault for this call of a selector, if there is one; counts the call.
    DriverFault next_driver_fault(uint32_t selector);

    /// Whether it is in its slot.
    bool is_present();

    /// Holding the mutex: takes these settings, and sets the registers in them.
    void apply(CardSettings given);

    /// Holding the mutex: the settings with links and PTP state, as the status register has them.
    CardSettings with_status();

    /// Holding the mutex: these with the registers that are not zero, and all that follows from the state.
    CardSettings present();

    std::mutex mutex;  ///< Guards all below.
    CardSettings
        settings;  ///< In force. Registers are in `bars`, so `registers`, `links`, `ptp_state` are not set.
    BarMemory bars;
    Firmware firmware{settings};
    /// Processes registered with the management server, and when they expire.
    std::map<int64_t, std::chrono::steady_clock::time_point> alive;
    DriverState driver;
    kiv::wire::DeviceConf device_conf{};
    std::function<void()>
        wake_driver;  ///< Set while the driver process runs; call it after adding a stream or new settings.

  private:
    std::string server_address_;
};

}  // namespace kivsim

#endif
