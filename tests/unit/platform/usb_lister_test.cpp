#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <map>
#include <vector>

#include "core/halyx_exception.hpp"
#include "logger_capture.hpp"
#include "platform/usb_lister.hpp"

namespace {

using nlohmann::json;

// Answers vendor reads from a table; records what was asked.
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

HALYX::USBDevice usbDevice(const char* serial, uint16_t vendor)
{
    HALYX::USBDevice device;
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

TEST(USBLister, MakersDevicesAreAskedOthersAreNot)
{
    auto platform = std::make_unique<FakePlatform>();
    auto* fake = platform.get();
    fake->devices = {usbDevice("A", 0x7A5C), usbDevice("B", 0x7A5C), usbDevice("C", 0x1366)};
    const std::string version = "1.6.2";
    fake->replies[{"A", 8}] = std::vector<uint8_t>(version.begin(), version.end()); // no terminator
    fake->replies[{"A", 7}] = infoReply();
    auto short_info = infoReply();
    short_info.resize(10);
    fake->replies[{"B", 7}] = short_info;

    halyx_test::LoggerCapture log;
    HALYX::USBLister lister(std::move(platform));
    const auto findings = lister.enumerate();
    ASSERT_EQ(findings.size(), 3u);

    const auto a = json::parse(findings[0].sectionJson);
    EXPECT_EQ(findings[0].sectionName, "usb");
    EXPECT_EQ(findings[0].serialNumber, "A");
    EXPECT_EQ(findings[0].usbIdentifier, "1-A");
    EXPECT_EQ(findings[0].traits, (HALYX::Traits{{"usb", true}, {"kelvaneUsb", true}}));
    EXPECT_EQ(a.at("dfuTriggerVersion"), (json{{"semVer", "1.6.2"}}));
    EXPECT_EQ(a.at("dfuTriggerInfo").at("wVersionMinor"), 7);
    EXPECT_EQ(a.at("dfuTriggerInfo").size(), 6u);

    // B: version unanswered, information too short; both keys absent.
    const auto b = json::parse(findings[1].sectionJson);
    EXPECT_FALSE(b.contains("dfuTriggerVersion"));
    EXPECT_FALSE(b.contains("dfuTriggerInfo"));
    EXPECT_EQ(log.count("error USBLister: failed to send setup packet KELVANE_SEM_VER_REQUEST"), 1u);
    EXPECT_EQ(log.count("error USBLister: failed to send setup packet KELVANE_DFU_INFO_REQUEST"), 1u);

    // C: another vendor, never asked.
    EXPECT_EQ(findings[2].traits, (HALYX::Traits{{"usb", true}}));
    EXPECT_EQ(fake->asked, (std::vector<std::pair<std::string, uint8_t>>{{"A", 8}, {"A", 7}, {"B", 8}, {"B", 7}}));
    EXPECT_TRUE(log.contains("USBLister: Adding device with serial number: C"));
}

TEST(USBLister, ADeviceWithoutTriggerInterfaceIsStillListed)
{
    auto platform = std::make_unique<FakePlatform>();
    platform->throwNoInterface = true;
    auto nameless = usbDevice("", 0x7A5C);
    nameless.serialNumber.reset();
    platform->devices = {nameless};
    halyx_test::LoggerCapture log;
    HALYX::USBLister lister(std::move(platform));
    const auto findings = lister.enumerate();
    ASSERT_EQ(findings.size(), 1u);
    EXPECT_FALSE(findings[0].serialNumber);
    EXPECT_TRUE(findings[0].traits.at("kelvaneUsb"));
    EXPECT_TRUE(log.contains("USBLister: Adding device with serial number: NONE"));
    EXPECT_TRUE(log.contains("No DFU interface."));
}

TEST(USBLister, HotPlugNoticesBecomeFindings)
{
    auto platform = std::make_unique<FakePlatform>();
    auto* fake = platform.get();
    HALYX::USBLister lister(std::move(platform));
    lister.setTimeouts({1, 25, 2, 3});
    EXPECT_EQ(fake->settle, std::chrono::milliseconds(25));

    std::vector<std::pair<HALYX::event_object, bool>> seen; // finding, arrival
    lister.start([&](const HALYX::event_object& f, HALYX::ArrivalType type) {
        EXPECT_EQ(type, HALYX::ArrivalType::HotPlug);
        seen.emplace_back(f, true);
    },
                 [&](const HALYX::event_object& f) { seen.emplace_back(f, false); });
    EXPECT_TRUE(fake->started);

    const auto device = usbDevice("A", 0x1366);
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
