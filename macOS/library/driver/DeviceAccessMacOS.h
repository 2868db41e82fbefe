/// IDeviceAccess over a driver client.
#ifndef KIV_DEVICE_ACCESS_MACOS_H
#define KIV_DEVICE_ACCESS_MACOS_H

#include <memory>

#include <kiv/IDeviceAccess.h>
#include <kiv/kivDriverClient.h>

namespace kiv::access {

/// Forwards to the client for as long as that lives: the enumerator owns it, and a new enumeration releases
/// it. Without a client every operation is -1.
class DeviceAccessMacOS final : public IDeviceAccess {
  public:
    /// `client` may be null.
    DeviceAccessMacOS(uint32_t function, kivDriverClient* client);

    int32_t open() override;
    int32_t close() override;
    bool isOpen() const override;
    int32_t readRegister32(uint8_t bar, uint64_t offset, uint32_t& value) override;
    int32_t writeRegister32(uint8_t bar, uint64_t offset, uint32_t value) override;
    int32_t readRegister64(uint8_t bar, uint64_t offset, uint64_t& value) override;
    int32_t writeRegister64(uint8_t bar, uint64_t offset, uint64_t value) override;
    int32_t getPtpTai(uint64_t& tai) override;
    int32_t getTxUseResourceData(uint8_t& a, uint8_t& b, uint8_t& c) override;
    int32_t getRxUseResourceData(uint8_t& a, uint8_t& b, uint8_t& c) override;
    int32_t getTunIP(uint32_t& address, uint32_t& port) override;
    int32_t selected_ptp_card() override;
    int32_t getEpochAnd2point(uint64_t& a, uint64_t& b, uint64_t& c) override;
    int32_t getLinkStatus(uint8_t& a, uint8_t& b) override;

  private:
    std::weak_ptr<kivDriverClient> client_;
};

}  // namespace kiv::access

#endif
