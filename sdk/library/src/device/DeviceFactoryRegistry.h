/// The platforms' factories by their keys.
#ifndef KIV_DEVICE_FACTORY_REGISTRY_H
#define KIV_DEVICE_FACTORY_REGISTRY_H

#include <memory>
#include <string>
#include <unordered_map>

#include <kiv/IDeviceFactory.h>

namespace kiv::device {

/// A DeviceInfo names its factory by `platform`.
using DeviceFactoryRegistry = std::unordered_map<std::string, std::unique_ptr<IDeviceFactory>>;

}  // namespace kiv::device

#endif
