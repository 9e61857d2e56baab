#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace HALYX {

// One serial port of a device, as the serial-port lister finds it.
struct SerialPort {
    std::optional<std::string> comName;
    std::optional<std::string> manufacturer;
    std::optional<std::string> serialNumber;
    std::optional<std::string> vendorId;
    std::optional<std::string> productId;
    std::optional<std::string> usbIdentifier;
    std::optional<std::string> path;
    uint32_t vcom = 0;

    // "path" falls back to the COM name; "serialNumber", "comName" and
    // "manufacturer" are null when unknown; the rest only when known.
    nlohmann::json toJson() const;
    static SerialPort fromJson(const nlohmann::json& port);
};

using Traits = std::map<std::string, bool>;

// One physical device, however many interfaces it shows the host. Listers
// and plugins fill it; the device lister owns it; callers only ever see
// deep copies.
class Device {
public:
    uint64_t id = 0;
    std::optional<std::string> serialNumber;
    std::optional<std::string> usbIdentifier;
    std::vector<SerialPort> serialPorts;
    // A plugin's own section by name, kept as JSON text and emitted parsed.
    std::map<std::string, std::string> sections;
    Traits traits;

    // Traits are merged, never cleared: an absent name takes the incoming
    // value, a false one takes the incoming value, a true one stays true.
    void mergeTraits(const Traits& incoming);

    // The device document: "id", "serialNumber" (null when absent), "traits",
    // "usbIdentifier" (only when known), "serialPorts" (only when there are
    // ports) and one key per section, parsed (a section that does not parse
    // throws the JSON library's parse error).
    nlohmann::json toJson() const;

    // Folds a (plugin-edited) device object into this record: traits are
    // merged, "serialPorts" replaces the port list, every other key besides
    // "id", "serialNumber", "traits" and "usbIdentifier" becomes a section,
    // "usbIdentifier" is taken when present.
    void updateFromJson(const nlohmann::json& device);
};

// {"devices": [...]} in the given order.
nlohmann::json toDocument(const std::vector<Device>& devices);

} // namespace HALYX
