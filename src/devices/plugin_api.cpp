#include "devices/plugin_api.hpp"

#include "core/halyx_exception.hpp"
#include "core/logging.hpp"

namespace HALYX {
namespace {

[[noreturn]] void notSupported(const char* message)
{
    throw HALYXException(HALYX_ERR_NOT_SUPPORTED, message);
}

} // namespace

PluginApi::PluginApi() : logger_(Log::logger())
{
}

PluginApi::~PluginApi() = default;

std::unique_ptr<PluginApi> PluginApi::createInstance() const
{
    return nullptr;
}

void PluginApi::setEventCallback(EventCallback)
{
}

void PluginApi::onDeviceEvent(const std::string&, uint32_t, const std::string&)
{
}

std::vector<std::string> PluginApi::getTraits() const
{
    return {};
}

bool PluginApi::canHandle(const std::string&, const std::string&, const OperationOptions&) const
{
    return false;
}

void PluginApi::enumerate(nlohmann::json&, const DeviceChanged&, const DeviceFound&)
{
}

void PluginApi::program(const std::string&, const halyx_firmware&, const ProgramOptions&, Operation&)
{
    notSupported("program operation not supported");
}

void PluginApi::verify(const std::string&, const halyx_firmware&, Operation&)
{
    notSupported("verify operation not supported");
}

void PluginApi::reset(const std::string&, Operation&)
{
    notSupported("reset operation not supported");
}

void PluginApi::erase(const std::string&, Operation&)
{
    notSupported("erase operation not supported");
}

std::vector<ImageInfo> PluginApi::readFwInfo(const std::string&, Operation&)
{
    notSupported("Read FW Info not supported for this device.");
}

void PluginApi::readFw(const std::string&, const halyx_firmware&, Operation&)
{
    notSupported("Read FW not supported for this device.");
}

std::string PluginApi::readRegister(const std::string&, const std::string&, Operation&)
{
    notSupported("Read register not supported for this device.");
}

halyx_device_core_info_t PluginApi::getCoreInfo(const std::string&, Operation&)
{
    notSupported("Get device core information is not supported for this device.");
}

void PluginApi::recover(const std::string&, Operation&)
{
    notSupported("recover operation not supported");
}

void PluginApi::setMcuState(const std::string&, halyx_mcu_state_t, Operation&)
{
    notSupported("setting MCU state not supported for this device");
}

halyx_protection_status_t PluginApi::getProtectionStatus(const std::string&, Operation&)
{
    notSupported("Protection status not supported");
}

// Set and get share one message on purpose.
void PluginApi::setProtection(const std::string&, halyx_protection_status_t, Operation&)
{
    notSupported("Protection status not supported");
}

void PluginApi::setLogger(std::shared_ptr<spdlog::logger> logger)
{
    logger_ = std::move(logger);
}

void PluginApi::setInitParameters(const std::string&)
{
}

} // namespace HALYX
