#include <gtest/gtest.h>

#include <vector>

#include "logger_capture.hpp"
#include "platform/usb_device.hpp"

namespace {

const std::vector<uint8_t> kConfiguration{
    9, 0x02, 0x30, 0x00, 2,    1,    0,    0x80, 50, //
    9, 0x04, 0,    0,    1,    0x02, 0x02, 0x01, 0,  // CDC control
    5, 0x24, 0x00, 0x10, 0x01,                       // class-specific: skipped
    7, 0x05, 0x81, 0x03, 16,   0,    10,             //
    9, 0x04, 1,    0,    2,    0x0A, 0x00, 0x00, 0,  // CDC data
    7, 0x05, 0x02, 0x02, 64,   0,    0,              //
    7, 0x05, 0x82, 0x02, 0x00, 0x02, 0,              // wMaxPacketSize 512
};

TEST(UsbDescriptors, TreeFollowsTheOrderOfTheDescriptors)
{
    auto blob = kConfiguration;
    // A second configuration: what follows belongs to it.
    blob.insert(blob.end(), {9, 0x02, 18, 0, 1, 2, 0, 0x80, 50, 9, 0x04, 0, 0, 0, 0xFF, 0x01, 0x01, 0});

    const auto configurations = HALYX::walkConfigurationDescriptors(blob.data(), blob.size());
    ASSERT_EQ(configurations.size(), 2u);
    const auto& first = configurations[0];
    EXPECT_EQ(first.wTotalLength, 0x30);
    EXPECT_EQ(first.bConfigurationValue, 1);
    ASSERT_EQ(first.interfaces.size(), 2u);
    EXPECT_EQ(first.interfaces[0].bInterfaceClass, 0x02);
    EXPECT_EQ(first.interfaces[0].bInterfaceSubClass, 0x02);
    EXPECT_EQ(first.interfaces[0].bInterfaceProtocol, 0x01);
    ASSERT_EQ(first.interfaces[0].endpoints.size(), 1u);
    EXPECT_EQ(first.interfaces[0].endpoints[0].bEndpointAddress, 0x81);
    ASSERT_EQ(first.interfaces[1].endpoints.size(), 2u);
    EXPECT_EQ(first.interfaces[1].endpoints[1].wMaxPacketSize, 512);
    EXPECT_EQ(first.interfaces[1].endpoints[1].length, 7);
    EXPECT_EQ(first.interfaces[1].endpoints[1].bDescriptorType, 0x05);
    ASSERT_EQ(configurations[1].interfaces.size(), 1u);
    EXPECT_EQ(configurations[1].interfaces[0].bInterfaceClass, 0xFF);

    HALYX::USBDevice device;
    device.configurations = configurations;
    EXPECT_EQ(HALYX::findDfuTriggerInterface(device), nullptr); // only the first configuration counts
    std::swap(device.configurations[0], device.configurations[1]);
    EXPECT_NE(HALYX::findDfuTriggerInterface(device), nullptr);
}

TEST(UsbDescriptors, MisplacedAndTruncatedDescriptorsAreSkipped)
{
    halyx_test::LoggerCapture log;
    const std::vector<uint8_t> blob{
        7, 0x05, 0x81, 0x03, 8,  0,    1,              // endpoint before any configuration
        9, 0x04, 0,    0,    1,  0x02, 0x02, 0x01, 0,  // interface before any configuration
        9, 0x02, 0x20, 0x00, 1,  1,    0,    0x80, 50, //
        7, 0x05, 0x82, 0x03, 8,  0,    1,              // endpoint before any interface
        9, 0x04, 0,    0,    1,  0x0A, 0x00, 0x00, 0,  //
        7, 0x05, 0x83, 0x02, 64, 0,    0,              //
        9, 0x04, 1,    0,                              // truncated
    };
    const auto configurations = HALYX::walkConfigurationDescriptors(blob.data(), blob.size());
    ASSERT_EQ(configurations.size(), 1u);
    ASSERT_EQ(configurations[0].interfaces.size(), 1u);
    ASSERT_EQ(configurations[0].interfaces[0].endpoints.size(), 1u);
    EXPECT_EQ(configurations[0].interfaces[0].endpoints[0].bEndpointAddress, 0x83);
    EXPECT_TRUE(log.contains("Found USB endpoint, but did not find any configuration first."));
    EXPECT_TRUE(log.contains("Found USB interface, but did not find any configuration first."));
    EXPECT_TRUE(log.contains("Found USB endpoint, but did not find any interface first."));

    // A zero length would never advance.
    const std::vector<uint8_t> stuck{0, 0x02, 9, 0x02};
    EXPECT_TRUE(HALYX::walkConfigurationDescriptors(stuck.data(), stuck.size()).empty());
}

TEST(UsbDescriptors, DeviceDescriptorAndSection)
{
    const std::vector<uint8_t> raw{18,   0x01, 0x00, 0x02, 0xEF, 0x02, 0x01, 64, 0x5C,
                                   0x7A, 0x55, 0x10, 0x03, 0x02, 1,    2,    3,  1};
    HALYX::USBDevice device;
    ASSERT_TRUE(HALYX::parseDeviceDescriptor(raw.data(), raw.size(), device.descriptor));
    EXPECT_FALSE(HALYX::parseDeviceDescriptor(raw.data(), 17, device.descriptor));
    device.busNumber = 3;
    device.address = 9;
    device.manufacturer = "Kelvane Semiconductor";
    device.osDevicePath = "/dev/bus/usb/003/009";
    device.configurations = HALYX::walkConfigurationDescriptors(kConfiguration.data(), kConfiguration.size());

    const auto usb = device.toJson();
    EXPECT_EQ(usb.at("busNumber"), 3);
    EXPECT_EQ(usb.at("address"), 9);
    const auto& d = usb.at("device");
    EXPECT_EQ(d.at("manufacturer"), "Kelvane Semiconductor");
    EXPECT_TRUE(d.at("product").is_null());
    EXPECT_TRUE(d.at("serialNumber").is_null());
    EXPECT_EQ(d.at("osDevicePath"), "/dev/bus/usb/003/009");
    EXPECT_EQ(d.at("descriptor").at("idVendor"), 0x7A5C);
    EXPECT_EQ(d.at("descriptor").at("idProduct"), 0x1055);
    EXPECT_EQ(d.at("descriptor").at("bcdDevice"), 0x0203);
    const auto& interface = usb.at("descriptors").at("configList").at(0).at("interfaceLists").at(1);
    EXPECT_EQ(interface.at("bInterfaceClass"), 0x0A);
    EXPECT_EQ(interface.at("endpointLists").at(0).at("bDescriptorType"), 5);
    EXPECT_EQ(interface.at("endpointLists").at(0).at("length"), 7);
}

} // namespace
