#include "scripted_plugin.hpp"

namespace halyx_test {

std::unique_ptr<HALYX::PluginApi> ScriptedPlugin::createInstance() const
{
    return script_->instancePerOperation ? std::make_unique<ScriptedPlugin>(script_, true) : nullptr;
}

void ScriptedPlugin::setEventCallback(EventCallback callback)
{
    if (script_->eventCallback) {
        script_->eventCallback(std::move(callback));
    }
}

bool ScriptedPlugin::canHandle(const std::string& device, const std::string& operation,
                               const HALYX::OperationOptions& options) const
{
    return script_->canHandle ? script_->canHandle(device, operation)
                              : PluginApi::canHandle(device, operation, options);
}

void ScriptedPlugin::enumerate(nlohmann::json& document, const DeviceChanged& changed, const DeviceFound& found)
{
    if (script_->enumerate) {
        script_->enumerate(document);
    } else {
        PluginApi::enumerate(document, changed, found);
    }
}

void ScriptedPlugin::onDeviceEvent(const std::string& device, uint32_t kind, const std::string&)
{
    const auto& hook = for_operation_ ? script_->operationDeviceEvent : script_->deviceEvent;
    if (hook) {
        hook(device, kind);
    }
}

void ScriptedPlugin::setInitParameters(const std::string& parameters)
{
    if (script_->initParameters) {
        script_->initParameters(parameters);
    }
}

void ScriptedPlugin::erase(const std::string& device, HALYX::Operation& operation)
{
    if (!script_->erase) {
        return PluginApi::erase(device, operation);
    }
    script_->erase(device, operation);
}

void ScriptedPlugin::program(const std::string& device, const halyx_firmware& firmware,
                             const HALYX::ProgramOptions& options, HALYX::Operation& operation)
{
    if (!script_->program) {
        return PluginApi::program(device, firmware, options, operation);
    }
    script_->program(device, firmware, operation);
}

std::vector<HALYX::ImageInfo> ScriptedPlugin::readFwInfo(const std::string& device, HALYX::Operation& operation)
{
    if (!script_->readFwInfo) {
        return PluginApi::readFwInfo(device, operation);
    }
    return script_->readFwInfo(device, operation);
}

halyx_device_core_info_t ScriptedPlugin::getCoreInfo(const std::string& device, HALYX::Operation& operation)
{
    if (!script_->getCoreInfo) {
        return PluginApi::getCoreInfo(device, operation);
    }
    return script_->getCoreInfo(device, operation);
}

HALYX::PluginRegistry::Factory factory(PluginScript script)
{
    auto shared = std::make_shared<const PluginScript>(std::move(script));
    return [shared] { return std::make_unique<ScriptedPlugin>(shared); };
}

} // namespace halyx_test
