#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <map>
#include <vector>

#include "core/context.hpp"
#include "core/halyx_exception.hpp"
#include "devices/device_lister.hpp"
#include "devices/usb_lister.hpp"
#include "logger_capture.hpp"
#include "test_context.hpp"

namespace {

using nlohmann::json;

// Answers class reads from a table; records what was asked.
class FakePlatform final : public HALYX::USBPlatformAPI {
public:
    std::vector<HALYX::USBDevice> devices;
    std::map<std::pair<std::string, uint8_t>, std::vector<uint8_t>> replies; // by serial, request
    std::vector<std::pair<std::string, uint8_t>> asked;
    bool throwNoInterface = false;
    DeviceCallback arrival, removal, update;
    bool started = false;
    std::chrono::milliseconds settle{0};

    void setArrivalCallback(DeviceCallback c) override { arrival = std::move(c); }
    void setRemovalCallback(DeviceCallback c) override { removal = std::move(c); }
    void setUpdateCallback(DeviceCallback c) override { update = std::move(c); }
    std::vector<HALYX::USBDevice> enumerate() override { return devices; }
    void stop() override { started = false; }
    void sendTriggerRequest(const HALYX::USBDevice&, uint8_t) override {}
    bool vendorRead(const HALYX::USBDevice& device, uint8_t request, std::vector<uint8_t>& buffer) override
    {
        asked.emplace_back(device.serialNumber.value_or(""), request);
        if (throwNoInterface) {
            throw HALYX::HALYXException(HALYX_ERR_NOT_FOUND, "No DFU interface.");
        }
        const auto it = replies.find({device.serialNumber.value_or(""), request});
        if (it == replies.end()) {
            return false;
        }
        buffer.assign(it->second.begin(), it->second.end());
        return true;
    }
    void start() override { started = true; }
    void setSettleTime(std::chrono::milliseconds s) override { settle = s; }
};

HALYX::USBDevice usbDevice(const char* serial, uint16_t vendor, uint8_t address)
{
    HALYX::USBDevice device;
    device.busNumber = 1;
    device.address = address;
    device.serialNumber = serial;
    device.usbIdentifier = std::string("1-") + serial;
    device.descriptor.idVendor = vendor;
    return device;
}

std::vector<uint8_t> infoReply()
{
    return {0x00, 0x80, 0x0F, 0x00, 0xAA, 0xBB, 0xCC, 0xDD, 0x02, 0x00, 0x07, 0x00,
            0x78, 0x56, 0x34, 0x12, 0x00, 0x00, 0x10, 0x00, 0x00, 0x10, 0x00, 0x00};
}

// A context whose only lister is the USB lister over the fake platform.
struct UsbContext {
    explicit UsbContext(std::unique_ptr<FakePlatform> platform)
        : fake(platform.get()),
          context(new halyx_context(HALYX::ContextParts{std::make_unique<HALYX::USBLister>(std::move(platform)), {}}))
    {
    }
    ~UsbContext() { halyx_release_context(context); }

    // One enumeration, as the devices' documents by serial number.
    std::map<std::string, json> enumerate()
    {
        halyx_device_list_t* list = nullptr;
        EXPECT_EQ(halyx_enumerate(context, &list), HALYX_SUCCESS);
        std::map<std::string, json> devices;
        for (size_t i = 0; list != nullptr && i < list->count; ++i) {
            const auto device = json::parse(list->devices[i].json);
            const auto& serial = device.at("serialNumber");
            devices[serial.is_string() ? serial.get<std::string>() : ""] = device;
        }
        halyx_free_device_list(context, list);
        return devices;
    }

    FakePlatform* fake;
    halyx_context* context;
};

TEST(USBLister, DfuTriggerInfoIsDecodedLittleEndian)
{
    const auto info = HALYX::decodeDfuTriggerInfo(infoReply());
    ASSERT_TRUE(info);
    EXPECT_EQ(info->wAddress, 0x000F8000u);
    EXPECT_EQ(info->wVersionMajor, 2);
    EXPECT_EQ(info->wVersionMinor, 7);
    EXPECT_EQ(info->wFirmwareId, 0x12345678u);
    EXPECT_EQ(info->wFlashSize, 0x00100000u);
    EXPECT_EQ(info->wFlashPageSize, 0x1000u);
    auto short_reply = infoReply();
    short_reply.pop_back();
    EXPECT_FALSE(HALYX::decodeDfuTriggerInfo(short_reply));
}

// The maker's devices are asked once while attached, answered or not; others never.
TEST(USBLister, MakersDevicesAreAskedOnceOthersNever)
{
    auto platform = std::make_unique<FakePlatform>();
    platform->devices = {usbDevice("A", 0x7A5C, 2), usbDevice("B", 0x7A5C, 3), usbDevice("C", 0x1366, 4)};
    const std::string version = "1.6.2";
    platform->replies[{"A", 8}] = std::vector<uint8_t>(version.begin(), version.end()); // no terminator
    platform->replies[{"A", 7}] = infoReply();
    auto short_info = infoReply();
    short_info.resize(10);
    platform->replies[{"B", 7}] = short_info;

    halyx_test::LoggerCapture log;
    UsbContext usb(std::move(platform));
    auto devices = usb.enumerate();
    ASSERT_EQ(devices.size(), 3u);

    const auto& a = devices["A"];
    EXPECT_EQ(a.at("traits").at("kelvaneUsb"), true);
    EXPECT_EQ(a.at("usb").at("dfuTriggerVersion"), (json{{"semVer", "1.6.2"}}));
    EXPECT_EQ(a.at("usb").at("dfuTriggerInfo").at("wVersionMinor"), 7);
    EXPECT_EQ(a.at("usb").at("dfuTriggerInfo").size(), 6u);
    // B: version unanswered, information too short; both keys absent.
    EXPECT_FALSE(devices["B"].at("usb").contains("dfuTriggerVersion"));
    EXPECT_FALSE(devices["B"].at("usb").contains("dfuTriggerInfo"));
    // C: another vendor.
    EXPECT_FALSE(devices["C"].at("traits").contains("kelvaneUsb"));
    const std::vector<std::pair<std::string, uint8_t>> first{{"A", 8}, {"A", 7}, {"B", 8}, {"B", 7}};
    EXPECT_EQ(usb.fake->asked, first);

    // Listed again (no hot-plug notices, so the host is listed afresh): the
    // answers stay, nobody is asked, and the silent device logs nothing more.
    devices = usb.enumerate();
    EXPECT_EQ(usb.fake->asked, first);
    EXPECT_EQ(devices["A"].at("usb").at("dfuTriggerVersion"), (json{{"semVer", "1.6.2"}}));
    EXPECT_EQ(log.count("error USBLister: failed to send setup packet KELVANE_SEM_VER_REQUEST"), 1u);
    EXPECT_EQ(log.count("error USBLister: failed to send setup packet KELVANE_DFU_INFO_REQUEST"), 1u);

    // Re-plugged (a new address): asked again.
    usb.fake->devices[1].address = 9;
    usb.enumerate();
    EXPECT_EQ(usb.fake->asked.size(), first.size() + 2);
}

TEST(USBLister, ADeviceWithoutTriggerInterfaceIsStillListed)
{
    auto platform = std::make_unique<FakePlatform>();
    platform->throwNoInterface = true;
    auto nameless = usbDevice("", 0x7A5C, 2);
    nameless.serialNumber.reset();
    platform->devices = {nameless};
    halyx_test::LoggerCapture log;
    UsbContext usb(std::move(platform));
    const auto devices = usb.enumerate();
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_TRUE(devices.begin()->second.at("serialNumber").is_null());
    EXPECT_EQ(devices.begin()->second.at("traits").at("kelvaneUsb"), true);
    EXPECT_TRUE(log.contains("USBLister: Adding device with serial number: NONE"));
    EXPECT_TRUE(log.contains("No DFU interface."));
    EXPECT_EQ(log.count("error USBLister: failed to send setup packet"), 2u);
}

TEST(USBLister, ControlTransferByIdNamesWhatWentWrong)
{
    auto platform = std::make_unique<FakePlatform>();
    platform->devices = {usbDevice("A", 0x7A5C, 2)};
    platform->replies[{"A", 7}] = infoReply();
    UsbContext usb(std::move(platform));
    usb.enumerate();
    auto& lister = *usb.context->lister;
    std::vector<uint8_t> reply(24);
    EXPECT_TRUE(lister.controlTransfer(1, {HALYX::DfuTriggerTransfer::Kind::Read, 7}, reply));
    EXPECT_EQ(reply, infoReply());
    EXPECT_FALSE(lister.controlTransfer(1, {HALYX::DfuTriggerTransfer::Kind::Read, 3}, reply));
    try {
        lister.controlTransfer(42, {HALYX::DfuTriggerTransfer::Kind::Read, 7}, reply);
        ADD_FAILURE() << "an unknown id was sent a transfer";
    } catch (const HALYX::HALYXException& e) {
        EXPECT_EQ(e.code(), HALYX_ERR_NOT_FOUND);
        EXPECT_STREQ(e.what(), "Device with ID=42 is not connected.");
    }
    usb.fake->throwNoInterface = true;
    try {
        lister.controlTransfer(1, {HALYX::DfuTriggerTransfer::Kind::Trigger, 0}, reply);
        lister.controlTransfer(1, {HALYX::DfuTriggerTransfer::Kind::Read, 7}, reply);
        ADD_FAILURE() << "a transfer the host could not send succeeded";
    } catch (const HALYX::HALYXException& e) {
        EXPECT_EQ(e.code(), HALYX_ERR_GENERAL);
        EXPECT_STREQ(e.what(), "Unable to send control transfer to USB device. Check that correct drivers are "
                               "installed for the device.");
    }
}

TEST(USBLister, HotPlugNoticesBecomeFindings)
{
    auto platform = std::make_unique<FakePlatform>();
    auto* fake = platform.get();
    HALYX::USBLister lister(std::move(platform));
    lister.setTimeouts({1, 25, 2, 3});
    EXPECT_EQ(fake->settle, std::chrono::milliseconds(25));

    std::vector<std::pair<HALYX::event_object, bool>> seen; // finding, arrival
    lister.start(
        [&](const HALYX::event_object& f, HALYX::ArrivalType type) {
            EXPECT_EQ(type, HALYX::ArrivalType::HotPlug);
            seen.emplace_back(f, true);
        },
        [&](const HALYX::event_object& f) { seen.emplace_back(f, false); });
    EXPECT_TRUE(fake->started);

    const auto device = usbDevice("A", 0x1366, 2);
    fake->arrival(device);
    fake->update(device);
    fake->removal(device);
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0].first.sectionName, "usb");
    EXPECT_TRUE(seen[0].first.traits.at("usb"));
    // The update carries the identity only: the plugins redo the ports.
    EXPECT_TRUE(seen[1].first.sectionName.empty());
    EXPECT_EQ(seen[1].first.usbIdentifier, "1-A");
    EXPECT_FALSE(seen[2].second);
    EXPECT_EQ(seen[2].first.serialNumber, "A");
    lister.stop();
    EXPECT_FALSE(fake->started);
}

} // namespace
