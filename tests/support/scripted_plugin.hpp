#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "devices/plugin_api.hpp"
#include "devices/plugin_registry.hpp"

namespace halyx_test {

// A plugin whose behaviour the test scripts. Unscripted operation slots keep
// the PluginApi defaults, so they fail exactly as a real plugin's would.
struct PluginScript {
    std::string name = "scripted";
    std::vector<std::string> traits;
    std::function<bool(const std::string& device, const std::string& operation)> canHandle;
    std::function<void(nlohmann::json& document)> enumerate;
    std::function<void(const std::string& device, HALYX::Operation&)> erase;
    std::function<void(const std::string& device, const halyx_firmware&, HALYX::Operation&)> program;
    std::function<std::vector<HALYX::ImageInfo>(const std::string& device, HALYX::Operation&)> readFwInfo;
    std::function<halyx_device_core_info_t(const std::string& device, HALYX::Operation&)> getCoreInfo;
    std::function<void(const std::string& parameters)> initParameters;
    std::function<void(const std::string& device, uint32_t kind)> deviceEvent;
    // Each operation gets a fresh instance (which follows device events while it runs);
    // operationDeviceEvent hears only such instances.
    bool instancePerOperation = false;
    std::function<void(const std::string& device, uint32_t kind)> operationDeviceEvent;
    // Handed the callable through which the plugin may report a device of its own.
    std::function<void(HALYX::PluginApi::EventCallback)> eventCallback;
};

class ScriptedPlugin final : public HALYX::PluginApi {
public:
    explicit ScriptedPlugin(std::shared_ptr<const PluginScript> script, bool for_operation = false)
        : script_(std::move(script)), for_operation_(for_operation)
    {
    }

    std::unique_ptr<HALYX::PluginApi> createInstance() const override;
    std::string getName() const override { return script_->name; }
    void setEventCallback(EventCallback callback) override;
    std::vector<std::string> getTraits() const override { return script_->traits; }
    bool canHandle(const std::string& device, const std::string& operation,
                   const HALYX::OperationOptions& options) const override;
    void enumerate(nlohmann::json& document, const DeviceChanged& changed, const DeviceFound& found) override;
    void onDeviceEvent(const std::string& device, uint32_t kind, const std::string& extra) override;
    void setInitParameters(const std::string& parameters) override;

    void erase(const std::string& device, HALYX::Operation& operation) override;
    void program(const std::string& device, const halyx_firmware& firmware, const HALYX::ProgramOptions& options,
                 HALYX::Operation& operation) override;
    std::vector<HALYX::ImageInfo> readFwInfo(const std::string& device, HALYX::Operation& operation) override;
    halyx_device_core_info_t getCoreInfo(const std::string& device, HALYX::Operation& operation) override;

private:
    std::shared_ptr<const PluginScript> script_;
    const bool for_operation_;
};

HALYX::PluginRegistry::Factory factory(PluginScript script);

} // namespace halyx_test
