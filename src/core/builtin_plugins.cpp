#include "core/builtin_plugins.hpp"

#include "devices/broken_plugin.hpp"
#include "devices/serial_port_lister.hpp"
#include "mcuboot/mcuboot_plugin.hpp"
#include "platform/host.hpp"

namespace HALYX {

// A new plugin is one more row here.
std::vector<PluginRegistry::Factory> builtinPlugins()
{
    return {
        [] { return std::make_unique<SerialPortLister>(makeHostSerialPortListerHW()); },
        [] { return std::make_unique<BrokenPlugin>(); },
        [] { return std::make_unique<MCUBOOT::McubootPlugin>(); },
    };
}

} // namespace HALYX
