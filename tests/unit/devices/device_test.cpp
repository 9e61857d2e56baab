// The device record: its JSON document, trait merging and the C view.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "devices/device.hpp"
#include "devices/device_view.hpp"

using HALYX::Device;
using HALYX::SerialPort;
using nlohmann::json;

TEST(DeviceRecord, MinimalDocument)
{
    Device device;
    device.id = 3;
    EXPECT_EQ(device.toJson(), json::parse(R"({"id": 3, "serialNumber": null, "traits": {}})"));

    device.serialNumber = "683011111";
    device.usbIdentifier = "1-1.4";
    device.traits = {{"usb", true}};
    EXPECT_EQ(device.toJson().dump(),
              R"({"id":3,"serialNumber":"683011111","traits":{"usb":true},"usbIdentifier":"1-1.4"})");
}

TEST(DeviceRecord, SerialPortsAndSections)
{
    Device device;
    device.id = 1;
    SerialPort bare;
    bare.comName = "/dev/ttyACM0";
    SerialPort full;
    full.comName = "/dev/ttyACM1";
    full.path = "/dev/serial/by-id/usb-kit-if02";
    full.manufacturer = "Maker";
    full.serialNumber = "683011111";
    full.vendorId = "7a5c";
    full.productId = "1055";
    full.usbIdentifier = "1-1.4";
    full.vcom = 1;
    device.serialPorts = {bare, full};
    device.sections["jlink"] = R"({"serialNumber": "683011111", "boardVersion": "PCA10056"})";

    const auto document = device.toJson();
    // Unknown strings are null; a port without a path of its own shows its COM name.
    EXPECT_EQ(document["serialPorts"][0], json::parse(R"({"serialNumber": null, "comName": "/dev/ttyACM0",
        "manufacturer": null, "vcom": 0, "path": "/dev/ttyACM0"})"));
    EXPECT_EQ(document["serialPorts"][1]["path"], "/dev/serial/by-id/usb-kit-if02");
    EXPECT_EQ(document["serialPorts"][1]["vendorId"], "7a5c");
    EXPECT_EQ(document["jlink"]["boardVersion"], "PCA10056");

    // The document reads back into an equal record.
    Device copy;
    copy.id = 1;
    copy.updateFromJson(document);
    EXPECT_EQ(copy.toJson(), document);

    // A section that is not JSON fails with the JSON library's parse error.
    device.sections["broken"] = "{not json";
    EXPECT_THROW(device.toJson(), json::parse_error);
}

TEST(DeviceRecord, TraitsAreMergedNeverCleared)
{
    Device device;
    device.traits = {{"usb", true}, {"jlink", false}};
    device.mergeTraits({{"usb", false}, {"jlink", true}, {"modem", false}});
    EXPECT_EQ(device.traits, (HALYX::Traits{{"usb", true}, {"jlink", true}, {"modem", false}}));
    device.mergeTraits({{"modem", true}, {"jlink", false}});
    EXPECT_EQ(device.traits, (HALYX::Traits{{"usb", true}, {"jlink", true}, {"modem", true}}));

    // An edited document merges the same way.
    device.updateFromJson(json::parse(R"({"id": 0, "serialNumber": null,
        "traits": {"usb": false, "broken": true, "odd": "yes"}, "broken": {"description": "d", "url": "u"}})"));
    EXPECT_TRUE(device.traits.at("usb"));
    EXPECT_TRUE(device.traits.at("broken"));
    EXPECT_FALSE(device.traits.contains("odd"));
    EXPECT_EQ(json::parse(device.sections.at("broken"))["url"], "u");
}

TEST(DeviceRecord, CViewOwnsCopiesOfEverything)
{
    Device device;
    device.id = 9;
    device.serialNumber = "SN";
    device.traits = {{"jlink", true}, {"usb", false}};
    SerialPort port;
    port.comName = "/dev/ttyACM0";
    port.vcom = 2;
    device.serialPorts = {port};

    auto view = std::make_unique<HALYX::DeviceView>(device);
    device.serialNumber = "changed afterwards";
    const halyx_device_t& c = *view->get();
    EXPECT_EQ(c.id, 9u);
    EXPECT_STREQ(c.serial_number, "SN");
    EXPECT_EQ(c.usb_identifier, nullptr);
    ASSERT_EQ(c.trait_count, 2u);
    EXPECT_STREQ(c.traits[0].name, "jlink");
    EXPECT_TRUE(c.traits[0].value);
    ASSERT_EQ(c.serial_port_count, 1u);
    EXPECT_STREQ(c.serial_ports[0].com_name, "/dev/ttyACM0");
    EXPECT_STREQ(c.serial_ports[0].path, "/dev/ttyACM0");
    EXPECT_EQ(c.serial_ports[0].manufacturer, nullptr);
    EXPECT_EQ(c.serial_ports[0].vcom, 2u);
    EXPECT_EQ(json::parse(c.json)["serialNumber"], "SN");

    // What a view says is the record it came from.
    EXPECT_EQ(HALYX::recordFromView(c).toJson(), json::parse(c.json));

    HALYX::DeviceListView list({device, Device{}});
    ASSERT_EQ(list.get()->count, 2u);
    EXPECT_STREQ(list.get()->devices[0].serial_number, "changed afterwards");
    EXPECT_EQ(list.get()->devices[1].serial_number, nullptr);
}
