#include "kit.hpp"

#include <fmt/format.h>

#include "devices/known_kits.hpp"

namespace HALYX::SIM {
namespace {

using namespace HALYX::KnownKits;

// Ids of kits the shared table has no use for.
constexpr uint16_t kMakerTrekkitProductId = 0x1055;
constexpr uint16_t kProbeProductId = 0x1051;
constexpr uint16_t kOpenVendorId = 0x1209;
constexpr uint16_t kOpenSerialAdapterProductId = 0x0001;
constexpr uint16_t kOpenMcubootBoardProductId = 0x0B00;

constexpr uint8_t kClassCdc = 0x02;
constexpr uint8_t kClassCdcData = 0x0A;
constexpr uint8_t kClassVendor = 0xFF;

void put16(std::vector<uint8_t>& out, uint16_t value)
{
    out.push_back(static_cast<uint8_t>(value & 0xFF));
    out.push_back(static_cast<uint8_t>(value >> 8));
}

void put32(std::vector<uint8_t>& out, uint32_t value)
{
    for (int shift = 0; shift < 32; shift += 8) {
        out.push_back(static_cast<uint8_t>((value >> shift) & 0xFF));
    }
}

void interface(std::vector<uint8_t>& out, uint8_t number, uint8_t endpoints, uint8_t cls, uint8_t sub, uint8_t proto)
{
    out.insert(out.end(), {9, 0x04, number, 0, endpoints, cls, sub, proto, 0});
}

void endpoint(std::vector<uint8_t>& out, uint8_t address, uint8_t attributes, uint16_t max_packet, uint8_t interval)
{
    out.insert(out.end(), {7, 0x05, address, attributes});
    put16(out, max_packet);
    out.push_back(interval);
}

std::string hex(const std::vector<uint8_t>& bytes)
{
    std::string text;
    for (const auto b : bytes) {
        text += fmt::format("{:02x}", b);
    }
    return text;
}

// udev's by-id names: spaces become underscores.
std::string idPart(std::string text)
{
    for (auto& c : text) {
        if (c == ' ' || c == '/') {
            c = '_';
        }
    }
    return text;
}

uint8_t interfaceCount(const KitModel& kit)
{
    return static_cast<uint8_t>(2 * kit.cdcPorts + (kit.vendorInterface ? 1 : 0) + (kit.dfuTrigger ? 1 : 0));
}

} // namespace

std::vector<uint8_t> encodeDfuInfo(uint32_t address, uint16_t major, uint16_t minor, uint32_t firmware_id,
                                   uint32_t flash_size, uint32_t page_size)
{
    std::vector<uint8_t> out;
    put32(out, address);
    put32(out, 0xFFFFFFFF); // reserved; nobody reads it
    put16(out, major);
    put16(out, minor);
    put32(out, firmware_id);
    put32(out, flash_size);
    put32(out, page_size);
    return out;
}

KitModel makerKit(const std::string& serial_number)
{
    KitModel kit;
    kit.name = "maker";
    kit.vendorId = kMakerVendorId;
    kit.productId = kMakerTrekkitProductId;
    kit.bcdDevice = 0x0106;
    kit.manufacturer = std::string(kMakerManufacturer);
    kit.product = "Trekkit DK";
    kit.serialNumber = serial_number;
    kit.cdcPorts = 2;
    kit.dfuTrigger = true;
    kit.semVer = "1.6.2";
    kit.dfuInfo = encodeDfuInfo(0x000F8000, 1, 6, 0x0052A6F1, 0x00100000, 0x1000);
    return kit;
}

KitModel probeKit(const std::string& serial_number)
{
    KitModel kit;
    kit.name = "probe";
    kit.vendorId = kProbeVendorId;
    kit.productId = kProbeProductId;
    kit.bcdDevice = 0x0100;
    kit.manufacturer = "SEGGER";
    kit.product = "J-Link";
    kit.serialNumber = serial_number;
    kit.cdcPorts = 1;
    kit.vendorInterface = true;
    return kit;
}

KitModel oldCdcKit(const std::string& serial_number)
{
    KitModel kit;
    kit.name = "oldcdc";
    kit.vendorId = kMakerVendorId;
    kit.productId = kDevelopmentKitProductId;
    // Just below the first CDC firmware without the DTR/RTS and baud rate faults.
    kit.bcdDevice = static_cast<uint16_t>(kFirstGoodCdcFirmware - 1);
    kit.manufacturer = std::string(kMakerManufacturer);
    kit.product = "Trekkit Dongle";
    kit.serialNumber = serial_number;
    kit.cdcPorts = 1;
    // Its firmware predates the DFU-trigger interface: requests go unanswered.
    return kit;
}

KitModel otherVendorDevice(const std::string& serial_number)
{
    KitModel kit;
    kit.name = "other";
    kit.vendorId = kOpenVendorId;
    kit.productId = kOpenSerialAdapterProductId;
    kit.bcdDevice = 0x0100;
    kit.manufacturer = "Open Hardware";
    kit.product = "USB Serial Adapter";
    kit.serialNumber = serial_number;
    kit.cdcPorts = 1;
    return kit;
}

KitModel mcubootDevice(const std::string& serial_number)
{
    KitModel kit;
    kit.name = "mcuboot";
    kit.vendorId = kOpenVendorId;
    kit.productId = kOpenMcubootBoardProductId;
    kit.bcdDevice = 0x0200;
    kit.manufacturer = "Open Hardware";
    kit.product = std::string(kMcubootProductMarker);
    kit.serialNumber = serial_number;
    kit.cdcPorts = 1;
    kit.serialRecovery = true;
    kit.bootloader = SmpSimulator::Config::mcuboot();
    return kit;
}

KitModel mcubootAlign8Device(const std::string& serial_number)
{
    auto kit = mcubootDevice(serial_number);
    kit.name = "mcuboot-align8";
    kit.bootloader.writeBlockSize = 8;
    return kit;
}

KitModel mcubootParamsDevice(const std::string& serial_number)
{
    auto kit = mcubootDevice(serial_number);
    kit.name = "mcuboot-params";
    // A larger buffer to tell about; lines stay at the console's 128 bytes.
    kit.bootloader.answerParameters = true;
    kit.bootloader.receiveBufferSize = 2048;
    return kit;
}

KitModel cellularKit(const std::string& serial_number)
{
    KitModel kit;
    kit.name = "cellular";
    kit.vendorId = kMakerVendorId;
    kit.productId = kCellularKitProductId;
    kit.bcdDevice = 0x0100;
    kit.manufacturer = std::string(kMakerManufacturer);
    kit.product = "Trekkit Cellular DK";
    kit.serialNumber = serial_number;
    // The boot loader on the first port, the modem's trace on the second.
    kit.cdcPorts = 2;
    kit.serialRecovery = true;
    kit.bootloader = SmpSimulator::Config::permissive();
    kit.bootloader.frameMax = 127;
    kit.bootloader.packMax = 4096;
    return kit;
}

namespace {

struct NamedKit {
    const char* name;
    KitModel (*make)(const std::string&);
};

// Each factory's default argument names its own serial number.
const NamedKit kKits[] = {
    {"maker", [](const std::string& s) { return s.empty() ? makerKit() : makerKit(s); }},
    {"probe", [](const std::string& s) { return s.empty() ? probeKit() : probeKit(s); }},
    {"oldcdc", [](const std::string& s) { return s.empty() ? oldCdcKit() : oldCdcKit(s); }},
    {"other", [](const std::string& s) { return s.empty() ? otherVendorDevice() : otherVendorDevice(s); }},
    {"mcuboot", [](const std::string& s) { return s.empty() ? mcubootDevice() : mcubootDevice(s); }},
    {"mcuboot-align8", [](const std::string& s) { return s.empty() ? mcubootAlign8Device() : mcubootAlign8Device(s); }},
    {"mcuboot-params", [](const std::string& s) { return s.empty() ? mcubootParamsDevice() : mcubootParamsDevice(s); }},
    {"cellular", [](const std::string& s) { return s.empty() ? cellularKit() : cellularKit(s); }},
};

} // namespace

std::vector<std::string> kitNames()
{
    std::vector<std::string> names;
    for (const auto& kit : kKits) {
        names.emplace_back(kit.name);
    }
    return names;
}

std::optional<KitModel> kitByName(const std::string& name, const std::string& serial_number)
{
    for (const auto& kit : kKits) {
        if (name == kit.name) {
            return kit.make(serial_number);
        }
    }
    return std::nullopt;
}

std::vector<uint8_t> deviceDescriptor(const KitModel& kit)
{
    // Composite device with interface association, as CDC kits present themselves.
    std::vector<uint8_t> out{18, 0x01};
    put16(out, 0x0200);
    out.insert(out.end(), {0xEF, 0x02, 0x01, 64});
    put16(out, kit.vendorId);
    put16(out, kit.productId);
    put16(out, kit.bcdDevice);
    out.insert(out.end(), {1, 2, static_cast<uint8_t>(kit.serialNumber ? 3 : 0), 1});
    return out;
}

uint8_t dfuTriggerInterface(const KitModel& kit)
{
    return static_cast<uint8_t>(2 * kit.cdcPorts + (kit.vendorInterface ? 1 : 0));
}

std::vector<uint8_t> configurationDescriptor(const KitModel& kit)
{
    std::vector<uint8_t> body;
    uint8_t next_endpoint = 1;
    for (unsigned port = 0; port < kit.cdcPorts; ++port) {
        const auto control = static_cast<uint8_t>(2 * port);
        const auto data = static_cast<uint8_t>(control + 1);
        body.insert(body.end(), {8, 0x0B, control, 2, kClassCdc, 0x02, 0x01, 0}); // interface association
        interface(body, control, 1, kClassCdc, 0x02, 0x01);
        body.insert(body.end(), {5, 0x24, 0x00, 0x10, 0x01});    // header
        body.insert(body.end(), {5, 0x24, 0x01, 0x00, data});    // call management
        body.insert(body.end(), {4, 0x24, 0x02, 0x02});          // ACM
        body.insert(body.end(), {5, 0x24, 0x06, control, data}); // union
        endpoint(body, static_cast<uint8_t>(0x80 | next_endpoint++), 0x03, 16, 10);
        interface(body, data, 2, kClassCdcData, 0x00, 0x00);
        endpoint(body, next_endpoint, 0x02, 64, 0);
        endpoint(body, static_cast<uint8_t>(0x80 | next_endpoint++), 0x02, 64, 0);
    }
    if (kit.vendorInterface) {
        interface(body, static_cast<uint8_t>(2 * kit.cdcPorts), 2, kClassVendor, 0xFF, 0xFF);
        endpoint(body, next_endpoint, 0x02, 64, 0);
        endpoint(body, static_cast<uint8_t>(0x80 | next_endpoint++), 0x02, 64, 0);
    }
    if (kit.dfuTrigger) {
        interface(body, dfuTriggerInterface(kit), 0, kClassVendor, 0x01, 0x01);
    }
    std::vector<uint8_t> out{9, 0x02};
    put16(out, static_cast<uint16_t>(9 + body.size()));
    out.insert(out.end(), {interfaceCount(kit), 1, 0, 0x80, 50});
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

std::vector<SysfsNode> describeKit(const KitModel& kit, const Placement& place)
{
    std::vector<SysfsNode> nodes;
    const auto name = fmt::format("{}-{}", place.bus, place.port);
    const auto usb_path = fmt::format("/sys/devices/pci0000:00/0000:00:14.0/usb{}/{}", place.bus, name);
    const auto devnode = fmt::format("/dev/bus/usb/{:03}/{:03}", place.bus, place.devnum);

    auto descriptors = deviceDescriptor(kit);
    const auto configuration = configurationDescriptor(kit);
    descriptors.insert(descriptors.end(), configuration.begin(), configuration.end());

    std::string usb = fmt::format("P: {}\nN: {}\n", usb_path.substr(4), devnode.substr(5));
    usb += fmt::format("E: DEVNAME={}\nE: DEVTYPE=usb_device\nE: DRIVER=usb\nE: SUBSYSTEM=usb\n", devnode);
    usb += fmt::format("E: BUSNUM={:03}\nE: DEVNUM={:03}\nE: PRODUCT={:x}/{:x}/{:x}\n", place.bus, place.devnum,
                       kit.vendorId, kit.productId, kit.bcdDevice);
    usb += fmt::format("A: busnum={}\\n\nA: devnum={}\\n\nA: speed=12\\n\nA: bConfigurationValue=1\\n\n", place.bus,
                       place.devnum);
    usb += fmt::format("A: bNumInterfaces={:2}\\n\nA: idVendor={:04x}\\n\nA: idProduct={:04x}\\n\n",
                       interfaceCount(kit), kit.vendorId, kit.productId);
    usb += fmt::format("A: bcdDevice={:04x}\\n\nA: manufacturer={}\\n\nA: product={}\\n\n", kit.bcdDevice,
                       kit.manufacturer, kit.product);
    if (kit.serialNumber) {
        usb += fmt::format("A: serial={}\\n\n", *kit.serialNumber);
    }
    usb += fmt::format("H: descriptors={}\n", hex(descriptors));
    nodes.push_back({usb_path, devnode, {}, usb});

    auto add_interface = [&](uint8_t number, uint8_t cls, const char* driver) {
        const auto path = fmt::format("{}/{}:1.{}", usb_path, name, number);
        std::string text =
            fmt::format("P: {}\nE: DEVTYPE=usb_interface\nE: DRIVER={}\nE: SUBSYSTEM=usb\n", path.substr(4), driver);
        text += fmt::format("A: bInterfaceNumber={:02x}\\n\nA: bInterfaceClass={:02x}\\n\nA: bAlternateSetting= 0\\n\n",
                            number, cls);
        nodes.push_back({path, {}, {}, text});
        return path;
    };
    for (unsigned port = 0; port < kit.cdcPorts; ++port) {
        const auto control = static_cast<uint8_t>(2 * port);
        const auto interface_path = add_interface(control, kClassCdc, "cdc_acm");
        add_interface(static_cast<uint8_t>(control + 1), kClassCdcData, "cdc_acm");
        const auto tty = fmt::format("ttyACM{}", place.firstTty + port);
        const auto tty_path = fmt::format("{}/tty/{}", interface_path, tty);
        std::string text =
            fmt::format("P: {}\nN: {}\nE: DEVNAME=/dev/{}\nE: SUBSYSTEM=tty\n", tty_path.substr(4), tty, tty);
        const auto link = fmt::format("/dev/serial/by-id/usb-{}_{}_{}-if{:02}", idPart(kit.manufacturer),
                                      idPart(kit.product), kit.serialNumber.value_or("0"), control);
        text += fmt::format("E: DEVLINKS={}\n", link);
        nodes.push_back({tty_path, "/dev/" + tty, link, text});
    }
    if (kit.vendorInterface) {
        add_interface(static_cast<uint8_t>(2 * kit.cdcPorts), kClassVendor, "usbfs");
    }
    if (kit.dfuTrigger) {
        add_interface(dfuTriggerInterface(kit), kClassVendor, "usbfs");
    }
    return nodes;
}

} // namespace HALYX::SIM
