/// The state of one virtual card. The driver process and the management servers both work on it.
#ifndef KIVSIM_VIRTUAL_CARD_H
#define KIVSIM_VIRTUAL_CARD_H

#include "driver/wire.h"

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "card/BarMemory.h"
#include "card/CardSettings.h"
#include "card/DriverState.h"
#include "card/ManagementState.h"

namespace kivsim {

/// Memories that the driver allocates for the ANC engine when it starts.
inline constexpr uint32_t kAncMemories[] = {0x100, 0x101, 0x102, 0x103};

class VirtualCard {
  public:
    explicit VirtualCard(CardSettings settings);

    /// What the card was made with; the tunnel port is the one in use once the servers run.
    const CardSettings& settings() const { return settings_; }
    void set_tunnel_port(uint16_t port);  ///< Before the driver process runs.

    /// "address:port" of the management server.
    std::string server_address() const;

    /// The fault for this call of a selector, if there is one; counts the call.
    DriverFault next_fault(uint32_t selector);

    /// Whether it is in its slot.
    bool is_present();

    /// Holding the mutex: a value of up to 32 bits leaves the register after it alone.
    void set_registers(const std::vector<RegisterSettings>& registers);

    std::mutex mutex;      ///< Guards all below.
    bool removed = false;  ///< Out of its slot: no service, no server.
    BarMemory bars;
    ManagementState management;
    DriverState driver;
    kiv::wire::DeviceConf device_conf{};
    std::function<void()> wake_driver;  ///< Set while the driver process runs; call it after adding a stream.

  private:
    CardSettings settings_;
    std::map<uint32_t, uint32_t> calls_;  ///< By selector; guarded by the mutex.
};

}  // namespace kivsim

#endif
