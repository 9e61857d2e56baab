#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <vector>

#include "devices/serial_port_lister.hpp"

namespace {

using HALYX::SerialPort;
using nlohmann::json;

class FakePorts final : public HALYX::SerialPortListerHW {
public:
    explicit FakePorts(std::vector<SerialPort> ports) : ports_(std::move(ports)) {}
    std::vector<SerialPort> list() override { return ports_; }

private:
    std::vector<SerialPort> ports_;
};

SerialPort port(const char* com, std::optional<std::string> serial, std::optional<std::string> usb, uint32_t vcom,
                const char* manufacturer = "Kelvane Semiconductor")
{
    SerialPort p;
    p.comName = com;
    p.serialNumber = std::move(serial);
    p.usbIdentifier = std::move(usb);
    p.vcom = vcom;
    p.manufacturer = manufacturer;
    return p;
}

json device(uint64_t id, std::optional<std::string> serial, std::optional<std::string> usb)
{
    json d{{"id", id}, {"serialNumber", serial ? json(*serial) : json(nullptr)}, {"traits", json::object()}};
    if (usb) {
        d["usbIdentifier"] = *usb;
    }
    return d;
}

struct Run {
    json document;
    std::vector<uint64_t> changed;
    std::vector<HALYX::event_object> found;
};

Run enumerate(std::vector<SerialPort> ports, json devices)
{
    Run run{json{{"devices", std::move(devices)}}, {}, {}};
    HALYX::SerialPortLister lister(std::make_shared<FakePorts>(std::move(ports)));
    lister.enumerate(
        run.document, [&run](uint64_t id) { run.changed.push_back(id); },
        [&run](const HALYX::event_object& finding) { run.found.push_back(finding); });
    return run;
}

std::vector<std::string> comNames(const json& device)
{
    std::vector<std::string> names;
    for (const auto& p : device.at("serialPorts")) {
        names.push_back(p.at("comName"));
    }
    return names;
}

TEST(SerialPortLister, PortsJoinTheirDeviceBySerialNumberOrUsbIdentifierInVcomOrder)
{
    const auto run = enumerate(
        {
            port("/dev/ttyACM1", "KV1", "1-1", 1), port("/dev/ttyACM0", "KV1", "1-1", 0),
            port("/dev/ttyACM5", std::nullopt, "1-2", 0), // no USB serial number
            port("/dev/ttyACM7", "KV9", "1-7", 0),        // its device is not in this document
        },
        json::array({device(1, "KV1", "1-1"), device(2, std::nullopt, "1-2"), device(3, "OTHER", "1-3")}));

    const auto& devices = run.document.at("devices");
    EXPECT_EQ(comNames(devices[0]), (std::vector<std::string>{"/dev/ttyACM0", "/dev/ttyACM1"}));
    EXPECT_EQ(devices[0].at("serialPorts")[1].at("vcom"), 1);
    EXPECT_TRUE(devices[0].at("traits").at("serialPorts"));
    EXPECT_EQ(comNames(devices[1]), (std::vector<std::string>{"/dev/ttyACM5"}));
    EXPECT_EQ(devices[1].at("serialPorts")[0].at("path"), "/dev/ttyACM5"); // no path of its own
    EXPECT_FALSE(devices[2].contains("serialPorts"));
    EXPECT_FALSE(devices[2].at("traits").contains("serialPorts"));
    EXPECT_EQ(run.changed, (std::vector<uint64_t>{1, 2}));
    EXPECT_TRUE(run.found.empty()); // ttyACM7 belongs to a USB device this pass does not hold
}

TEST(SerialPortLister, BridgePortsAreMarkedAndPortsWithoutUsbStandAlone)
{
    auto uart = port("/dev/ttyS4", std::nullopt, std::nullopt, 0, "Host UART");
    const auto run = enumerate(
        {
            port("/dev/ttyACM0", "000683000123", "1-1", 0, "SEGGER"),
            port("/dev/ttyUSB0", "FT1", "1-2", 0, "FTDI"),
            port("/dev/ttyACM2", "X1", "1-3", 0, "SEGGER Microcontroller"),
            uart,
        },
        json::array({device(1, "000683000123", "1-1"), device(2, "FT1", "1-2"), device(3, "X1", "1-3")}));
    const auto& devices = run.document.at("devices");
    EXPECT_EQ(devices[0].at("serialPorts")[0].at("manufacturer"), "SEGGER (serial bridge)");
    EXPECT_EQ(devices[1].at("serialPorts")[0].at("manufacturer"), "FTDI (serial bridge)");
    EXPECT_EQ(devices[2].at("serialPorts")[0].at("manufacturer"), "SEGGER Microcontroller"); // exact names only

    ASSERT_EQ(run.found.size(), 1u);
    const auto& own = run.found[0];
    EXPECT_FALSE(own.serialNumber);
    EXPECT_EQ(own.sectionName, "serialPorts");
    EXPECT_EQ(json::parse(own.sectionJson), json::array({HALYX::serialPortToJson(uart)}));
    EXPECT_TRUE(own.traits.at("serialPorts"));
}

TEST(SerialPortLister, DevicesMustBeAnArray)
{
    json document{{"devices", "none"}};
    HALYX::SerialPortLister lister(std::make_shared<FakePorts>(std::vector<SerialPort>{}));
    try {
        lister.enumerate(
            document, [](uint64_t) {}, [](const HALYX::event_object&) {});
        FAIL() << "no error for a devices string";
    } catch (const json::type_error& e) {
        EXPECT_NE(std::string(e.what()).find("type must be array, but is string"), std::string::npos);
    }
    EXPECT_EQ(lister.getName(), "serialport");
    EXPECT_EQ(lister.getTraits(), (std::vector<std::string>{"serialPorts"}));
}

} // namespace
