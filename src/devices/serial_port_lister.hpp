#pragma once

#include <memory>

#include "devices/plugin_api.hpp"
#include "platform/serial_port_lister_hw.hpp"

namespace HALYX {

// Ties the host's serial ports to the devices of the enumeration document:
// a port belongs to the device with its USB serial number or its USB
// identifier, and lands in that device's "serialPorts", ordered by "vcom".
//
// Bridge ports: a port whose USB manufacturer is exactly "FTDI" or "SEGGER"
// is the serial bridge of a converter or probe chip, not the target's own
// USB serial port. Its "manufacturer" then reads "FTDI (serial bridge)" or
// "SEGGER (serial bridge)", so a front end can tell the two kinds apart
// from the record alone.
//
// A port with no USB device behind it is a device of its own. A USB port
// whose device is not in the document is left alone: a hot-plug pass holds
// one device only, and the port's own device carries it.
class SerialPortLister final : public PluginApi {
public:
    explicit SerialPortLister(std::shared_ptr<SerialPortListerHW> hardware);
    ~SerialPortLister() override;

    std::string getName() const override;
    std::vector<std::string> getTraits() const override;
    void enumerate(nlohmann::json& document, const DeviceChanged& changed, const DeviceFound& found) override;

private:
    const std::shared_ptr<SerialPortListerHW> hardware_;
};

} // namespace HALYX
