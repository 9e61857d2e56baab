#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <vector>

#include "devices/broken_plugin.hpp"
#include "logger_capture.hpp"

namespace {

using nlohmann::json;

json usbDevice(uint64_t id, const std::string& path, const char* manufacturer, uint16_t product, uint16_t bcd)
{
    return json{{"id", id},
                {"serialNumber", nullptr},
                {"traits", json::object()},
                {"usb",
                 {{"device",
                   {{"manufacturer", manufacturer != nullptr ? json(manufacturer) : json(nullptr)},
                    {"osDevicePath", path},
                    {"descriptor", {{"idVendor", 0x7A5C}, {"idProduct", product}, {"bcdDevice", bcd}}}}}}}};
}

struct Run {
    json document;
    std::vector<uint64_t> changed;
};

Run enumerate(json devices)
{
    Run run{json{{"devices", std::move(devices)}}, {}};
    HALYX::BrokenPlugin plugin;
    plugin.enumerate(
        run.document, [&run](uint64_t id) { run.changed.push_back(id); }, [](const HALYX::event_object&) {});
    return run;
}

TEST(BrokenPlugin, DevicePathRuleIsAThirtyCharacterPrefix)
{
    const std::string broken = R"(\\?\USB#VID_7A5C&PID_520F#0.01)";
    halyx_test::LoggerCapture log;
    const auto run = enumerate(json::array({
        usbDevice(1, broken, "x", 0x520F, 0x0300),
        usbDevice(2, broken + R"(#{a5dcbf10-6530-11d2-901f-00c04fb951ed})", "x", 0x520F, 0x0300),
        usbDevice(3, R"(\\?\USB#VID_7A5C&PID_520F#0.02)", "x", 0x520F, 0x0300),
        usbDevice(4, R"(\\?\usb#vid_7a5c&pid_520f#0.01)", "x", 0x520F, 0x0300),
        usbDevice(5, "/dev/bus/usb/001/002", "x", 0x520F, 0x0300),
    }));
    const auto& devices = run.document.at("devices");
    for (const size_t i : {0u, 1u}) {
        EXPECT_TRUE(devices[i].at("traits").at("broken")) << i;
        EXPECT_EQ(devices[i].at("broken").at("description"), HALYX::BrokenPlugin::kDescription);
        EXPECT_EQ(devices[i].at("broken").at("url"), HALYX::BrokenPlugin::kUrl);
    }
    for (const size_t i : {2u, 3u, 4u}) {
        EXPECT_FALSE(devices[i].contains("broken")) << i;
        EXPECT_FALSE(devices[i].at("traits").contains("broken")) << i;
    }
    EXPECT_EQ(run.changed, (std::vector<uint64_t>{1, 2}));
    EXPECT_EQ(log.count("This Trekkit firmware is broken on Windows."), 2u);
}

TEST(BrokenPlugin, CdcFirmwareRuleOnlyReports)
{
    const char* maker = "Kelvane Semiconductor";
    {
        halyx_test::LoggerCapture log;
        const auto run = enumerate(json::array({usbDevice(1, "/dev/bus/usb/001/002", maker, 0x9100, 0x0203)}));
        EXPECT_TRUE(log.contains("has a bug related to DTR/RTS and setting of baud rate. Upgrade the KVB firmware "
                                 "to version 1.6.0 or newer"));
        EXPECT_FALSE(run.document.at("devices")[0].at("traits").contains("broken"));
        EXPECT_TRUE(run.changed.empty());
    }
    {
        halyx_test::LoggerCapture log;
        enumerate(json::array({usbDevice(1, "/dev/bus/usb/001/002", maker, 0x520F, 0x0204)}));
        EXPECT_TRUE(log.contains("The firmware on this Trekkit has no known USB CDC bugs."));
        EXPECT_FALSE(log.contains("DTR/RTS"));
    }
    {
        // Another product, another manufacturer text, or none: not judged.
        halyx_test::LoggerCapture log;
        enumerate(json::array({usbDevice(1, "p", maker, 0x9101, 0x0100), usbDevice(2, "p", "Kelvane", 0x9100, 0x0100),
                               usbDevice(3, "p", nullptr, 0x9100, 0x0100)}));
        EXPECT_FALSE(log.contains("DTR/RTS"));
        EXPECT_FALSE(log.contains("no known USB CDC bugs"));
    }
}

TEST(BrokenPlugin, DevicesWithoutUsbAreUntouchedAndDevicesMustBeAnArray)
{
    const json plain{{"id", 7}, {"serialNumber", "S"}, {"traits", json::object()}};
    const auto run = enumerate(json::array({plain}));
    EXPECT_EQ(run.document.at("devices")[0], plain);

    // The section goes to the device of its id: without one, nothing is written.
    auto nameless = usbDevice(1, R"(\\?\USB#VID_7A5C&PID_520F#0.01)", "x", 0x520F, 0x0300);
    nameless.erase("id");
    json document{{"devices", json::array({nameless})}};
    HALYX::BrokenPlugin broken;
    try {
        broken.enumerate(
            document, [](uint64_t) {}, [](const HALYX::event_object&) {});
        FAIL() << "no error for a device without id";
    } catch (const json::type_error& e) {
        EXPECT_NE(std::string(e.what()).find("cannot use operator[] with a string argument with object"),
                  std::string::npos)
            << e.what();
    }
    EXPECT_EQ(document.at("devices")[0], nameless);

    json wrong{{"devices", json::object()}};
    HALYX::BrokenPlugin plugin;
    try {
        plugin.enumerate(
            wrong, [](uint64_t) {}, [](const HALYX::event_object&) {});
        FAIL() << "no error for a devices object";
    } catch (const json::type_error& e) {
        EXPECT_NE(std::string(e.what()).find("type must be array, but is object"), std::string::npos);
    }
}

} // namespace
