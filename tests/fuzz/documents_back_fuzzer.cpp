// What comes back into the library as JSON text: a configuration handed to
// halyx_set_configuration, and the enumeration document a plugin edited,
// folded back into the device pool. Either is taken or refused with the
// library's error; the pool's records always render.
#include <string>

#include <nlohmann/json.hpp>

#include "core/builtin_plugins.hpp"
#include "core/context.hpp"
#include "core/halyx_exception.hpp"
#include "devices/device_pool.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);

    static halyx_context* context = new halyx_context(HALYX::ContextParts{nullptr, HALYX::builtinPlugins()});
    (void)halyx_set_configuration(context, text.c_str());

    HALYX::DevicePool pool;
    HALYX::event_object finding;
    finding.serialNumber = "FUZZ";
    pool.merge(finding);
    const auto document = nlohmann::json::parse(text, nullptr, false);
    if (document.is_discarded() || !document.is_object() || !document.contains("devices") ||
        !document["devices"].is_array()) {
        return 0;
    }
    for (const auto& device : document["devices"]) {
        try {
            pool.update(device);
        } catch (const HALYX::HALYXException&) {
        } catch (const nlohmann::json::exception&) {
        }
    }
    for (const auto& device : pool.snapshot()) {
        try {
            (void)device.toJson().dump();
        } catch (const nlohmann::json::exception&) {
            // A section whose text does not parse is the JSON library's error.
        }
    }
    return 0;
}
