/// The state of one virtual card. The driver half and the server half both work on it.
#ifndef KIVSIM_VIRTUAL_CARD_H
#define KIVSIM_VIRTUAL_CARD_H

#include <wire.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "BarMemory.h"
#include "CardSettings.h"
#include "ManagementState.h"

namespace kivsim {

class VirtualCard {
  public:
    explicit VirtualCard(CardSettings settings);

    /// What the card was made with; the tunnel port is the one in use once the server half runs.
    const CardSettings& settings() const { return settings_; }
    void set_tunnel_port(uint16_t port);  ///< Before the driver half runs.

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
    kiv::wire::DeviceConf device_conf{};
    std::map<uint32_t, kiv::wire::IoMemory> io_memory;  ///< Allocated blocks by id.
    std::set<uint32_t> interrupts;                      ///< Enabled interrupt numbers.
    kiv::wire::UseResource use_resource{{4, 8, 16}, {2, 4, 8}};
    kiv::wire::PciLink pci_link{{16, 4}};  ///< Lanes and generation.
    uint32_t anc_descriptors = 0;          ///< Number of descriptors last set.
    kiv::wire::AncControl anc_control{};

  private:
    CardSettings settings_;
    std::map<uint32_t, uint32_t> calls_;  ///< By selector; guarded by the mutex.
};

}  // namespace kivsim

#endif
