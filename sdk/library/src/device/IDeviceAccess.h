/// Access to one PCI function of a card.
#ifndef KIV_I_DEVICE_ACCESS_H
#define KIV_I_DEVICE_ACCESS_H

#include <cstdint>

#include <kiv/kiv_export.h>

namespace kiv::access {

/// Operations return 0 or a driver error; results are then as the driver client leaves them. Must tolerate
/// concurrent calls. `offset` is in bytes from the start of the BAR.
class KIV_API IDeviceAccess {
  public:
    /// For the PCI function with that number.
    explicit IDeviceAccess(uint32_t function) : function_(function) {}
    virtual ~IDeviceAccess() = default;
    IDeviceAccess(const IDeviceAccess&) = delete;
    IDeviceAccess& operator=(const IDeviceAccess&) = delete;

    /// Opens the connection for register access and calls; called once, before all else. close() ends it.
    virtual int32_t open() = 0;
    virtual int32_t close() = 0;
    virtual bool isOpen() const = 0;
    /// Registers.
    virtual int32_t readRegister32(uint8_t bar, uint64_t offset, uint32_t& value) = 0;
    virtual int32_t writeRegister32(uint8_t bar, uint64_t offset, uint32_t value) = 0;
    virtual int32_t readRegister64(uint8_t bar, uint64_t offset, uint64_t& value) = 0;
    virtual int32_t writeRegister64(uint8_t bar, uint64_t offset, uint64_t value) = 0;
    /// PTP time (TAI).
    virtual int32_t getPtpTai(uint64_t& tai) = 0;
    /// Three resource values of the transmit or receive streams.
    virtual int32_t getTxUseResourceData(uint8_t& a, uint8_t& b, uint8_t& c) = 0;
    virtual int32_t getRxUseResourceData(uint8_t& a, uint8_t& b, uint8_t& c) = 0;
    /// Tunnel address (IPv4, first octet in the most significant byte) and TCP port of the management server
    /// there.
    virtual int32_t getTunIP(uint32_t& address, uint32_t& port) = 0;
    /// Not a status: the PTP selection byte, non-zero for the selected card; -1 without a driver. The driver
    /// does not report one, so that it is 0 of an access to the driver.
    virtual int32_t selected_ptp_card() = 0;
    /// The three times of the driver, as it reports them.
    virtual int32_t getEpochAnd2point(uint64_t& a, uint64_t& b, uint64_t& c) = 0;
    /// The two values of the PCI link, the driver's second first.
    virtual int32_t getLinkStatus(uint8_t& a, uint8_t& b) = 0;

    /// Number of the PCI function that this object serves.
    uint32_t function() const { return function_; }

  private:
    const uint32_t function_;
};

}  // namespace kiv::access

#endif
