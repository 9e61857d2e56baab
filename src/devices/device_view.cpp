#include "devices/device_view.hpp"

#include "core/json_fields.hpp"

namespace HALYX {

const char* DeviceView::keep(const std::optional<std::string>& text)
{
    if (!text) {
        return nullptr;
    }
    return strings_.emplace_back(*text).c_str();
}

DeviceView::DeviceView(const Device& device)
{
    view_.id = device.id;
    view_.serial_number = keep(device.serialNumber);
    view_.usb_identifier = keep(device.usbIdentifier);

    traits_.reserve(device.traits.size());
    for (const auto& [name, value] : device.traits) {
        traits_.push_back(halyx_trait_t{keep(name), value});
    }
    view_.traits = traits_.data();
    view_.trait_count = traits_.size();

    ports_.reserve(device.serialPorts.size());
    for (const auto& port : device.serialPorts) {
        halyx_serial_port_t out{};
        out.com_name = keep(port.comName);
        out.path = keep(port.path ? port.path : port.comName);
        out.manufacturer = keep(port.manufacturer);
        out.serial_number = keep(port.serialNumber);
        out.vendor_id = keep(port.vendorId);
        out.product_id = keep(port.productId);
        out.usb_identifier = keep(port.usbIdentifier);
        out.vcom = port.vcom;
        ports_.push_back(out);
    }
    view_.serial_ports = ports_.data();
    view_.serial_port_count = ports_.size();

    view_.json = keep(jsonText(device.toJson()));
}

DeviceListView::DeviceListView(const std::vector<Device>& devices)
{
    views_.reserve(devices.size());
    devices_.resize(devices.size());
    for (size_t i = 0; i < devices.size(); ++i) {
        views_.push_back(std::make_unique<DeviceView>(devices[i]));
        views_.back()->fill(devices_[i]);
    }
    view_.devices = devices_.data();
    view_.count = devices_.size();
}

namespace {

std::optional<std::string> text(const char* value)
{
    return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

} // namespace

Device recordFromView(const halyx_device_t& view)
{
    Device device;
    device.id = view.id;
    device.serialNumber = text(view.serial_number);
    device.usbIdentifier = text(view.usb_identifier);
    for (size_t i = 0; view.traits != nullptr && i < view.trait_count; ++i) {
        if (view.traits[i].name != nullptr) {
            device.traits[view.traits[i].name] = view.traits[i].value;
        }
    }
    for (size_t i = 0; view.serial_ports != nullptr && i < view.serial_port_count; ++i) {
        const auto& in = view.serial_ports[i];
        SerialPort port;
        port.comName = text(in.com_name);
        port.path = text(in.path);
        port.manufacturer = text(in.manufacturer);
        port.serialNumber = text(in.serial_number);
        port.vendorId = text(in.vendor_id);
        port.productId = text(in.product_id);
        port.usbIdentifier = text(in.usb_identifier);
        port.vcom = in.vcom;
        device.serialPorts.push_back(std::move(port));
    }
    return device;
}

} // namespace HALYX
