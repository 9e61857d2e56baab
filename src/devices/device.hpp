#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/serial_port.hpp"

namespace HALYX {

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

// A serial port as the device document writes it: "path" falls back to the
// COM name; "serialNumber", "comName" and "manufacturer" are null when
// unknown; the rest only when known.
nlohmann::json serialPortToJson(const SerialPort& port);
SerialPort serialPortFromJson(const nlohmann::json& port);

// True when the device document's "traits" holds this name set to true.
bool hasTrueTrait(const nlohmann::json& device, const std::string& trait);

// The "devices" array of an enumeration document; anything else raises the
// JSON library's own type error ("type must be array, but is ...").
nlohmann::json& devicesOf(nlohmann::json& document);

// {"devices": [...]} in the given order.
nlohmann::json toDocument(const std::vector<Device>& devices);

} // namespace HALYX
