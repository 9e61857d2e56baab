#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <spdlog/logger.h>

#include "devices/image_info.hpp"
#include "devices/lister.hpp"
#include "devices/operation.hpp"
#include "halyx.h"

struct halyx_firmware;

namespace HALYX {

struct ProgramOptions {
    bool verify = false;
    bool recoverBeforeProgram = false;
};

// Everything device-specific sits behind this interface. A plugin decorates
// device records during enumeration, says whether it can run an operation on
// a device, and runs it. Devices arrive as their JSON document text. The
// order of the virtual operations is part of the design; do not reorder.
// Every operation a plugin does not override throws code 19.
class PluginApi {
public:
    // What a plugin's enumerate() may tell the device lister: that it changed
    // the device with this id, and that it found a device of its own.
    using DeviceChanged = std::function<void(uint64_t id)>;
    using DeviceFound = std::function<void(const event_object&)>;
    using EventCallback = std::function<void(const event_object&)>;

    PluginApi();
    virtual ~PluginApi();
    PluginApi(const PluginApi&) = delete;
    PluginApi& operator=(const PluginApi&) = delete;

    // A fresh plugin for one operation, or null to run operations on this
    // one. An instance hears device events (onDeviceEvent, on the thread
    // that reports them) while its operation runs.
    virtual std::unique_ptr<PluginApi> createInstance() const;
    virtual std::string getName() const = 0;
    virtual void setEventCallback(EventCallback callback);
    virtual void onDeviceEvent(const std::string& device, uint32_t kind, const std::string& extra);
    virtual std::vector<std::string> getTraits() const;
    virtual bool canHandle(const std::string& device, const std::string& operation,
                           const OperationOptions& options) const;
    virtual void enumerate(nlohmann::json& document, const DeviceChanged& changed, const DeviceFound& found);

    virtual void program(const std::string& device, const halyx_firmware& firmware, const ProgramOptions& options,
                         Operation& operation);
    virtual void verify(const std::string& device, const halyx_firmware& firmware, Operation& operation);
    virtual void reset(const std::string& device, Operation& operation);
    virtual void erase(const std::string& device, Operation& operation);
    virtual std::vector<ImageInfo> readFwInfo(const std::string& device, Operation& operation);
    virtual void readFw(const std::string& device, const halyx_firmware& firmware, Operation& operation);
    virtual std::string readRegister(const std::string& device, const std::string& register_path, Operation& operation);
    virtual halyx_device_core_info_t getCoreInfo(const std::string& device, Operation& operation);
    virtual void recover(const std::string& device, Operation& operation);
    virtual void setMcuState(const std::string& device, halyx_mcu_state_t state, Operation& operation);
    virtual halyx_protection_status_t getProtectionStatus(const std::string& device, Operation& operation);
    virtual void setProtection(const std::string& device, halyx_protection_status_t status, Operation& operation);

    virtual void setLogger(std::shared_ptr<spdlog::logger> logger);
    virtual void setInitParameters(const std::string& parameters);

protected:
    std::shared_ptr<spdlog::logger> logger_;
};

} // namespace HALYX
