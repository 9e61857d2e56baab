#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "smp_simulator.hpp"

namespace HALYX::SIM {

// What a simulated USB kit shows the host. The descriptors are built from
// these fields; the fixture answers the requests they imply.
struct KitModel {
    std::string name;
    uint16_t vendorId = 0;
    uint16_t productId = 0;
    uint16_t bcdDevice = 0x0100;
    std::string manufacturer;
    std::string product;
    std::optional<std::string> serialNumber;
    unsigned cdcPorts = 0;           // CDC ACM functions, each with a tty
    bool dfuTrigger = false;         // the maker's DFU-trigger interface (vendor class, 1/1)
    bool vendorInterface = false;    // a vendor-specific bulk interface (a probe's)
    bool serialRecovery = false;     // an MCUboot boot loader in serial recovery answers on the first tty
    SmpSimulator::Config bootloader; // how that boot loader behaves
    // The DFU-trigger interface's answers; empty means it stalls the request.
    std::string semVer;
    std::vector<uint8_t> dfuInfo; // 24 bytes when set
};

// The kits of the simulator: the maker's kit with two serial ports, a kit
// behind an on-board debug probe, a maker's device with old CDC firmware, a
// device of another vendor, and kits waiting in MCUboot serial recovery:
// another vendor's board that names the boot loader in its product string
// (a stock boot loader; one variant writes flash in 8-byte blocks, one
// answers the MCUmgr parameter query with a 2048-byte buffer) and the
// maker's cellular kit, known by its product id, whose boot loader is the
// forgiving one that answers the "smp_com" query.
KitModel makerKit(const std::string& serial_number = "KV0000001");
KitModel probeKit(const std::string& serial_number = "000683000123");
KitModel oldCdcKit(const std::string& serial_number = "KV0000009");
KitModel otherVendorDevice(const std::string& serial_number = "OTHER0001");
KitModel mcubootDevice(const std::string& serial_number = "MB0000001");
KitModel mcubootAlign8Device(const std::string& serial_number = "MB0000008");
KitModel mcubootParamsDevice(const std::string& serial_number = "MB0000002");
KitModel cellularKit(const std::string& serial_number = "KV0000520");

// The names kitByName() knows, in the order above.
std::vector<std::string> kitNames();
// The kit of this name ("maker", "probe", "oldcdc", "other", "mcuboot",
// "mcuboot-align8", "mcuboot-params", "cellular") with the given serial
// number, or its own when empty; nullopt if unknown.
std::optional<KitModel> kitByName(const std::string& name, const std::string& serial_number = {});

// The 24-byte DFU-trigger information record.
std::vector<uint8_t> encodeDfuInfo(uint32_t address, uint16_t major, uint16_t minor, uint32_t firmware_id,
                                   uint32_t flash_size, uint32_t page_size);

// The device descriptor (18 bytes) and the one configuration descriptor.
std::vector<uint8_t> deviceDescriptor(const KitModel& kit);
std::vector<uint8_t> configurationDescriptor(const KitModel& kit);
// Interface number of the DFU-trigger interface (valid when kit.dfuTrigger).
uint8_t dfuTriggerInterface(const KitModel& kit);

// Where one kit sits on the simulated bus.
struct Placement {
    unsigned bus = 1;
    unsigned port = 1; // root-hub port: the device is "{bus}-{port}"
    unsigned devnum = 2;
    unsigned firstTty = 0; // its ports are ttyACM{firstTty}...
};

// One device of the umockdev description of a kit, parents before children.
struct SysfsNode {
    std::string syspath; // "/sys/devices/..."
    std::string devnode; // "/dev/..." or empty
    std::string devlink; // a tty's "/dev/serial/by-id/..." link, else empty
    std::string text;    // its umockdev record
};

// The umockdev description of a kit at a place: the USB device, its
// interfaces and its ttys, in that order.
std::vector<SysfsNode> describeKit(const KitModel& kit, const Placement& place);

} // namespace HALYX::SIM
