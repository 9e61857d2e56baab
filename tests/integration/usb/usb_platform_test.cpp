// Enumeration of simulated kits: the platform layer's records, the USB
// lister's findings and whole device records through the C interface.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "devices/usb_lister.hpp"
#include "halyx.h"
#include "logger_capture.hpp"
#include "platform/linux/usb_platform_api.hpp"
#include "test_context.hpp"
#include "testbed.hpp"

namespace {

using HALYX::SIM::Testbed;
using nlohmann::json;

const HALYX::USBDevice* bySerial(const std::vector<HALYX::USBDevice>& devices, const std::string& serial)
{
    for (const auto& device : devices) {
        if (device.serialNumber == serial) {
            return &device;
        }
    }
    return nullptr;
}

const json* bySerial(const json& list, const std::string& serial)
{
    for (const auto& device : list.at("devices")) {
        if (device.at("serialNumber") == serial) {
            return &device;
        }
    }
    return nullptr;
}

// One enumeration through the C interface, as the document a caller prints.
json enumerateDocument(halyx_context* context)
{
    halyx_device_list_t* list = nullptr;
    EXPECT_EQ(halyx_enumerate(context, &list), HALYX_SUCCESS);
    if (list == nullptr) {
        return json::object();
    }
    char* text = nullptr;
    EXPECT_EQ(halyx_util_device_list_as_document(context, HALYX_DOC_FORMAT_JSON, list, &text), HALYX_SUCCESS);
    auto document = json::parse(text != nullptr ? text : "{}");
    halyx_free_document(context, text);
    EXPECT_EQ(halyx_free_device_list(context, list), HALYX_SUCCESS);
    return document;
}

TEST(UsbPlatform, RecordsCarryBusStringsAndTheDescriptorTree)
{
    Testbed testbed;
    const auto& maker = testbed.plug(HALYX::SIM::makerKit("KV-A"));
    testbed.plug(HALYX::SIM::otherVendorDevice("OT-1"));

    HALYX::Linux::USBPlatformAPI platform;
    const auto devices = platform.enumerate();
    ASSERT_EQ(devices.size(), 2u);

    const auto* kit = bySerial(devices, "KV-A");
    ASSERT_NE(kit, nullptr);
    EXPECT_EQ(kit->busNumber, 1);
    EXPECT_EQ(kit->address, maker.place.devnum);
    EXPECT_EQ(kit->osDevicePath, maker.usbNode);
    EXPECT_EQ(kit->usbIdentifier, "1-" + std::to_string(maker.place.port));
    EXPECT_EQ(kit->manufacturer, "Kelvane Semiconductor");
    EXPECT_EQ(kit->product, "Trekkit DK");
    EXPECT_EQ(kit->descriptor.idVendor, 0x7A5C);
    EXPECT_EQ(kit->descriptor.idProduct, 0x1055);
    EXPECT_EQ(kit->descriptor.bcdDevice, 0x0106);

    // Two CDC functions (control + data each) and the DFU-trigger interface,
    // with the class-specific descriptors between them left out.
    ASSERT_EQ(kit->configurations.size(), 1u);
    const auto& interfaces = kit->configurations[0].interfaces;
    ASSERT_EQ(interfaces.size(), 5u);
    EXPECT_EQ(interfaces[0].bInterfaceClass, 0x02);
    EXPECT_EQ(interfaces[0].endpoints.size(), 1u);
    EXPECT_EQ(interfaces[1].bInterfaceClass, 0x0A);
    ASSERT_EQ(interfaces[1].endpoints.size(), 2u);
    EXPECT_EQ(interfaces[1].endpoints[1].bEndpointAddress, 0x82);
    EXPECT_EQ(interfaces[3].bInterfaceNumber, 3);
    EXPECT_EQ(interfaces[4].bInterfaceClass, 0xFF);
    EXPECT_TRUE(interfaces[4].endpoints.empty());
    EXPECT_NE(HALYX::findDfuTriggerInterface(*kit), nullptr);

    const auto usb = kit->toJson();
    EXPECT_EQ(usb.at("device").at("osDevicePath"), maker.usbNode);
    EXPECT_EQ(usb.at("descriptors").at("configList").at(0).at("interfaceLists").size(), 5u);

    // The kit restarts on the trigger instead of answering: that is success.
    halyx_test::LoggerCapture log;
    platform.sendTriggerRequest(*kit, 1);
    EXPECT_TRUE(log.contains("Control transfer was not successful. This is as expected."));
    EXPECT_TRUE(log.contains("[<-] HALYX::Linux::USBPlatformAPI::sendTriggerRequest [took "));
    const auto* other = bySerial(devices, "OT-1");
    ASSERT_NE(other, nullptr);
    try {
        platform.sendTriggerRequest(*other, 1);
        ADD_FAILURE() << "a device without the trigger interface took the request";
    } catch (const HALYX::HALYXException& e) {
        EXPECT_STREQ(e.what(), "No DFU interface.");
    }
}

TEST(UsbPlatform, VendorRequestsAnsweredOrNotLeaveEnumerationGoing)
{
    Testbed testbed;
    testbed.plug(HALYX::SIM::makerKit("KV-A"));
    testbed.plug(HALYX::SIM::oldCdcKit("KV-OLD")); // no DFU-trigger interface
    auto silent = HALYX::SIM::makerKit("KV-MUTE");
    silent.semVer.clear(); // stalls both requests
    silent.dfuInfo.clear();
    testbed.plug(silent);
    testbed.plug(HALYX::SIM::otherVendorDevice("OT-1"));

    halyx_test::LoggerCapture log;
    halyx_context* context = nullptr;
    ASSERT_EQ(halyx_create_context(&context), HALYX_SUCCESS);
    const auto document = enumerateDocument(context);
    ASSERT_EQ(document.at("devices").size(), 4u);

    const auto* kit = bySerial(document, "KV-A");
    ASSERT_NE(kit, nullptr);
    EXPECT_EQ(kit->at("usb").at("dfuTriggerVersion").at("semVer"), "1.6.2");
    EXPECT_EQ(kit->at("usb").at("dfuTriggerInfo"), (json{{"wAddress", 0x000F8000},
                                                         {"wVersionMajor", 1},
                                                         {"wVersionMinor", 6},
                                                         {"wFirmwareId", 0x0052A6F1},
                                                         {"wFlashSize", 0x00100000},
                                                         {"wFlashPageSize", 0x1000}}));
    EXPECT_EQ(kit->at("traits").at("kelvaneUsb"), true);

    for (const auto* serial : {"KV-OLD", "KV-MUTE"}) {
        const auto* device = bySerial(document, serial);
        ASSERT_NE(device, nullptr) << serial;
        EXPECT_FALSE(device->at("usb").contains("dfuTriggerVersion")) << serial;
        EXPECT_FALSE(device->at("usb").contains("dfuTriggerInfo")) << serial;
        EXPECT_EQ(device->at("traits").at("kelvaneUsb"), true) << serial;
    }
    const auto* other = bySerial(document, "OT-1");
    ASSERT_NE(other, nullptr);
    EXPECT_FALSE(other->at("usb").contains("dfuTriggerVersion"));
    EXPECT_FALSE(other->at("traits").contains("kelvaneUsb"));
    EXPECT_EQ(log.count("error USBLister: failed to send setup packet KELVANE_SEM_VER_REQUEST"), 2u);
    EXPECT_EQ(log.count("error USBLister: failed to send setup packet KELVANE_DFU_INFO_REQUEST"), 2u);

    // Devices that did not answer are not asked again at the next enumeration.
    const auto again = enumerateDocument(context);
    EXPECT_EQ(bySerial(again, "KV-A")->at("usb").at("dfuTriggerVersion").at("semVer"), "1.6.2");
    EXPECT_EQ(log.count("error USBLister: failed to send setup packet KELVANE_SEM_VER_REQUEST"), 2u);
    EXPECT_EQ(halyx_release_context(context), HALYX_SUCCESS);
}

TEST(UsbPlatform, DevicesThroughTheLibraryCarryTheirSerialPorts)
{
    Testbed testbed;
    const auto& maker = testbed.plug(HALYX::SIM::makerKit("KV-A"));
    const auto& probe = testbed.plug(HALYX::SIM::probeKit("000683000123"));
    const auto& old = testbed.plug(HALYX::SIM::oldCdcKit("KV-OLD"));
    auto anonymous = HALYX::SIM::otherVendorDevice();
    anonymous.serialNumber.reset();
    const auto& nameless = testbed.plug(anonymous);

    halyx_context* context = nullptr;
    ASSERT_EQ(halyx_create_context(&context), HALYX_SUCCESS);
    std::optional<halyx_test::LogCapture> captured;
    auto& library_log = captured.emplace(context, 1);
    const auto document = enumerateDocument(context);
    ASSERT_EQ(document.at("devices").size(), 4u) << document.dump(2);

    const auto* kit = bySerial(document, "KV-A");
    ASSERT_NE(kit, nullptr);
    EXPECT_TRUE(kit->at("traits").at("usb"));
    EXPECT_TRUE(kit->at("traits").at("kelvaneUsb"));
    EXPECT_TRUE(kit->at("traits").at("serialPorts"));
    EXPECT_FALSE(kit->at("traits").at("broken"));
    EXPECT_EQ(kit->at("usbIdentifier"), "1-" + std::to_string(maker.place.port));
    EXPECT_EQ(kit->at("usb").at("dfuTriggerVersion").at("semVer"), "1.6.2");
    const auto& ports = kit->at("serialPorts");
    ASSERT_EQ(ports.size(), 2u);
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(ports[i].at("vcom"), i);
        EXPECT_EQ(ports[i].at("comName"), maker.ttys[i]);
        EXPECT_EQ(ports[i].at("serialNumber"), "KV-A");
        EXPECT_EQ(ports[i].at("vendorId"), "7A5C");
        EXPECT_EQ(ports[i].at("productId"), "1055");
        EXPECT_THAT(ports[i].at("path").get<std::string>(), testing::StartsWith("/dev/serial/by-id/"));
    }

    const auto* onboard = bySerial(document, "000683000123");
    ASSERT_NE(onboard, nullptr);
    // Only plugins' traits are filled in as false; the USB lister sets true ones.
    EXPECT_FALSE(onboard->at("traits").contains("kelvaneUsb"));
    EXPECT_EQ(onboard->at("serialPorts").at(0).at("manufacturer"), "SEGGER (serial bridge)");
    EXPECT_EQ(onboard->at("serialPorts").at(0).at("comName"), probe.ttys[0]);

    // The old CDC firmware is reported, but not marked broken.
    const auto* dongle = bySerial(document, "KV-OLD");
    ASSERT_NE(dongle, nullptr);
    EXPECT_FALSE(dongle->at("traits").at("broken"));
    EXPECT_EQ(dongle->at("serialPorts").at(0).at("comName"), old.ttys[0]);
    EXPECT_TRUE(library_log.waitFor("The firmware on this device has a bug related to DTR/RTS"));
    EXPECT_TRUE(library_log.waitFor("USBLister: failed to send setup packet KELVANE_SEM_VER_REQUEST"));

    // Without a USB serial number the port finds its device by USB identifier.
    const json* serial_less = nullptr;
    for (const auto& device : document.at("devices")) {
        if (device.at("serialNumber").is_null()) {
            serial_less = &device;
        }
    }
    ASSERT_NE(serial_less, nullptr);
    EXPECT_EQ(serial_less->at("usbIdentifier"), "1-" + std::to_string(nameless.place.port));
    ASSERT_EQ(serial_less->at("serialPorts").size(), 1u);
    EXPECT_EQ(serial_less->at("serialPorts").at(0).at("comName"), nameless.ttys[0]);
    EXPECT_TRUE(serial_less->at("serialPorts").at(0).at("serialNumber").is_null());

    captured.reset();
    ASSERT_EQ(halyx_release_context(context), HALYX_SUCCESS);
}

TEST(UsbPlatform, KitSerialPortsCarryBytesToThePtyBehindThem)
{
    Testbed testbed;
    const auto& kit = testbed.plug(HALYX::SIM::makerKit("KV-IO"));
    const int port = ::open(kit.ttys[1].c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(port, 0) << kit.ttys[1];
    // Terminal ioctls reach the real pty: raw mode and non-blocking I/O work.
    termios settings{};
    ASSERT_EQ(tcgetattr(port, &settings), 0);
    cfmakeraw(&settings);
    cfsetspeed(&settings, B115200);
    ASSERT_EQ(tcsetattr(port, TCSANOW, &settings), 0);
    int on = 1;
    ASSERT_EQ(ioctl(port, FIONBIO, &on), 0);

    const int master = testbed.ttyMaster(kit.ttys[1]);
    ASSERT_GE(master, 0);
    ASSERT_EQ(::write(port, "ping", 4), 4);
    char buffer[16] = {};
    pollfd ready{master, POLLIN, 0};
    ASSERT_EQ(::poll(&ready, 1, 2000), 1);
    ASSERT_EQ(::read(master, buffer, sizeof buffer), 4);
    EXPECT_EQ(std::string(buffer, 4), "ping");

    ASSERT_EQ(::write(master, "pong", 4), 4);
    ready = pollfd{port, POLLIN, 0};
    ASSERT_EQ(::poll(&ready, 1, 2000), 1);
    ASSERT_EQ(::read(port, buffer, sizeof buffer), 4);
    EXPECT_EQ(std::string(buffer, 4), "pong");
    ::close(port);
}

} // namespace
