/// One card: its queries, its polls and its events.
#ifndef KIV_DEVICE_H
#define KIV_DEVICE_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include <kiv/DeviceInfo.h>
#include <kiv/IDeviceAccess.h>
#include <kiv/IRestApiClient.h>
#include <kiv/kiv_export.h>
#include <kiv/kiv_types.h>
#include <kiv/threadSafety.h>

namespace kiv::registers {
struct Register;
}

namespace kiv::device {

struct StreamRegisters;

/// Operations return KIV_OK or a result code; a getter writes only the fields that its comment names. What
/// the management server sends in a wrong shape throws.
///
/// Threads: operations may run on any thread, and no query or command takes the Device mutex, so a callback
/// may use them on its own card. Registration, enabling and the polls take the Device mutex, and the polls
/// hold it while they call back: a callback must not call those on its own card.
///
/// Log lines go to kivLog.h: there are none before kivLog_open or kiv_open.
class KIV_API Device {
  public:
    /// One for each PCI function.
    using AccessList = std::vector<std::unique_ptr<access::IDeviceAccess>>;

    /// Takes over the card's accesses (one for each PCI function) and its management-server client; the
    /// client may be null.
    Device(DeviceInfo info, AccessList accesses, std::unique_ptr<rest::IRestApiClient> rest);

    const DeviceInfo& info() const { return info_; }            ///< As the enumerator found the card.
    const AccessList& accesses() const { return accesses_; }    ///< In the order of its PCI functions.
    rest::IRestApiClient* rest() const { return rest_.get(); }  ///< May be null.

    // ---- Queries ----------------------------------------------------------------------------------------

    /// Identification registers and port texts. MAC texts come from the interface list that the client
    /// already holds.
    kiv_result_t get_card_info(kiv_card_info_t& info);

    /// Sensors and board power, asked of the management server, and the driver's PCI link. Without a link
    /// `pci_link_a` is 0 and `pci_link_b` untouched.
    kiv_result_t get_card_status(kiv_card_status_t& status);

    /// Addresses and prefix lengths of "maceth0" and "maceth1", asked of the management server. A netmask
    /// that is not made of numbers throws: addresses may be written then.
    kiv_result_t get_media_net_config(kiv_net_config_t& config);

    /// Links from the status register, loads from the traffic counters of BAR 1.
    kiv_result_t get_net_status(kiv_net_status_t& status);

    /// The settings last applied by reconfig_net_work(); untouched before. Never fails.
    kiv_result_t get_ptp_config(kiv_ptp_config_t& config);

    /// State from the status register, time from the driver, master from the management server: in this
    /// order, and what precedes a failure is written.
    kiv_result_t get_ptp_status(kiv_ptp_status_t& status);

    /// Tunnel address and the TCP port of the management server there.
    kiv_result_t get_tun_config(uint32_t& address, uint32_t& mask);

    /// Registers of the streams, and the driver's resource counts.
    kiv_result_t get_tx_stream_status(kiv_tx_stream_status_t& status);
    kiv_result_t get_rx_stream_status(kiv_rx_stream_status_t& status);

    /// The PTP selection byte, 0 to 255, non-zero for the selected card; KIV_ERR_FAILED without a driver.
    /// With the driver's accesses it is 0: the driver does not report the selection, and nobody sets it.
    kiv_result_t selected_ptp_card();

    /// The driver's three times. On failure the driver's own status, -1 without a client, KIV_ERR_FAILED
    /// without PCI function 0; the times are then 0.
    kiv_result_t get_epoch_and_2point(uint64_t& a, uint64_t& b, uint64_t& c);

    // ---- Settings and flash -----------------------------------------------------------------------------

    /// Sends both settings to the management server, and keeps those of PTP when it accepts them. A port
    /// whose `vlan_enable` is 0 has its VLAN switched off. KIV_ERR_FAILED, and nothing is sent, when the
    /// driver does not give the tunnel's address.
    kiv_result_t reconfig_net_work(const kiv_net_config_t& net, const kiv_ptp_config_t& ptp);

    /// Uploads the regular file and starts its write, unless the file changed meanwhile. The card goes on by
    /// itself: see get_flash_write_status().
    kiv_result_t upload_image(const std::string& path);
    kiv_result_t upload_image(const std::string& path, const UploadProgress& progress);

    /// 0 when the flash is idle, else 1.
    kiv_result_t get_flash_write_status(kiv_flash_status_t& status);
    /// Chooses the slot, 0 or 1, that boots next. KIV_ERR_INVALID_PARAM for another.
    kiv_result_t select_flash_slot(const kiv_flash_slot_t& slot);
    /// Identifiers of the images in both slots, and the slot that boots next.
    kiv_result_t get_flash_config(kiv_flash_config_t& config);

    // ---- Events -----------------------------------------------------------------------------------------

    /// Adds a callback for the enabled events; one that is added twice is called twice. Keep it short: the
    /// polls of all cards share the workers of their pool.
    void addCallback(kiv_event_callback_t callback, void* user);

    /// Removes all callbacks. None runs any more when this returns.
    void removeCallback();

    /// What was last seen stays while an event is disabled.
    void enableEvent(kiv_event_type_t type);
    void disableEvent(kiv_event_type_t type);

    /// For the polls, which hold the Device's mutex: not for applications.
    bool isEventEnabled(kiv_event_type_t type) const KIV_REQUIRES(mutex_);
    void notifyCallbacks(kiv_event_type_t type, const void* data) KIV_REQUIRES(mutex_);

    /// Reads the status register and raises KIV_EVENT_PTP and KIV_EVENT_LINK for what changed since it was
    /// last seen (at first: no link, PTP state 0). True when it notified.
    bool poll_1sec();

    /// Reads the sensors and raises KIV_EVENT_HWMON while one is at or above its maximum. False when the
    /// event is not enabled or no sensor is in alarm.
    bool poll_60sec();

  private:
    KIV_LOCAL access::IDeviceAccess* access(uint32_t function) const;
    KIV_LOCAL bool read_register(const registers::Register& where, uint32_t& value) const;
    KIV_LOCAL bool read_register(const registers::Register& where, uint64_t& value) const;
    KIV_LOCAL kiv_result_t get_stream_status(const StreamRegisters& from, kiv_stream_status_t& status);
    KIV_LOCAL bool poll_ptp(uint64_t status) KIV_REQUIRES(mutex_);
    KIV_LOCAL bool poll_link(uint64_t status) KIV_REQUIRES(mutex_);

    const DeviceInfo info_;
    const AccessList accesses_;  ///< In the order of `info_.functions`.
    const std::unique_ptr<rest::IRestApiClient> rest_;

    std::mutex ptp_mutex_;
    std::optional<kiv_ptp_config_t> ptp_saved_ KIV_GUARDED_BY(ptp_mutex_);  ///< Last applied.

    std::mutex mutex_;  ///< Held while callbacks run.
    std::vector<std::pair<kiv_event_callback_t, void*>> callbacks_ KIV_GUARDED_BY(mutex_);
    std::unordered_set<kiv_event_type_t> enabled_events_ KIV_GUARDED_BY(mutex_);
    uint8_t last_link_[2] KIV_GUARDED_BY(mutex_) = {0, 0};
    uint32_t last_ptp_state_ KIV_GUARDED_BY(mutex_) = 0;
};

}  // namespace kiv::device

#endif
