#include "mcuboot/mcuboot_plugin.hpp"

#include <algorithm>
#include <optional>
#include <thread>

#include <fmt/format.h>

#include "core/firmware.hpp"
#include "core/halyx_exception.hpp"
#include "core/json_fields.hpp"
#include "core/logging.hpp"
#include "devices/known_kits.hpp"
#include "image/firmware_format.hpp"
#include "mcuboot/binary_file.hpp"
#include "mcuboot/keil_hex_file.hpp"
#include "mcuboot/multi_image_file.hpp"
#include "mcuboot/smp_client.hpp"
#include "mcuboot/smp_uart_transport.hpp"
#include "platform/interprocess_lock.hpp"

namespace HALYX::MCUBOOT {
namespace {

using nlohmann::json;

halyx_errorcode_t errorCodeFor(McuBootError error)
{
    switch (error) {
    case McuBootError::Timeout:
        return HALYX_ERR_TIMEOUT;
    case McuBootError::UartNotFound:
    case McuBootError::UartPermissionError:
    case McuBootError::UartResourceError:
    case McuBootError::UartNotOpenError:
        return HALYX_ERR_OPEN_FAILED;
    default:
        return HALYX_ERR_GENERAL;
    }
}

// The one shape every programming failure takes.
HALYXException report(const McuBootFailure& failure)
{
    std::string step = failure.what();
    while (!step.empty() && step.back() == '.') {
        step.pop_back();
    }
    auto message = fmt::format("Error when programming through MCUBoot: {}. Error code: {} ({}).", step,
                               toNumber(failure.error()), toString(failure.error()));
    if (failure.cause().empty()) {
        Log::error("{}", message);
    } else {
        Log::error("{} Cause: {}", message, failure.cause());
    }
    return HALYXException(failure.code().value_or(errorCodeFor(failure.error())), std::move(message));
}

// Runs one step of program(); a failure is described by the step it ended.
template <typename Step>
void step(const std::string& description, Step&& body)
{
    try {
        body();
    } catch (const McuBootFailure& failure) {
        throw failure.within(description);
    }
}

// A number, or text as the serial-port lister writes it.
std::optional<uint16_t> usbId(const json& value)
{
    if (value.is_number_unsigned() && value.get<uint64_t>() <= 0xFFFF) {
        return value.get<uint16_t>();
    }
    return value.is_string() ? KnownKits::parseUsbId(value.get<std::string>()) : std::nullopt;
}

bool isCellularKit(const json& vendor, const json& product)
{
    const auto v = usbId(vendor);
    const auto p = usbId(product);
    return v && p && KnownKits::isCellularKit(*v, *p);
}

std::span<const uint8_t> bytesOf(const halyx_firmware& firmware)
{
    return {reinterpret_cast<const uint8_t*>(firmware.data.data()), firmware.data.size()};
}

// What program() is about to write.
struct Plan {
    bool modem = false;
    std::unique_ptr<ImageFile> image;
    std::optional<MultiImageFile> package;
};

// A file's format by the library's one rule (its name, then its first
// bytes); a buffer's as the caller says.
halyx_fw_format_t formatOf(const halyx_firmware& firmware)
{
    if (!firmware.isFile()) {
        return static_cast<halyx_fw_format_t>(firmware.format);
    }
    try {
        return firmwareFileFormat(firmware.data);
    } catch (const HALYXException& e) {
        throw McuBootFailure(McuBootError::Invalid,
                             "Expected to program a filename ending with .hex, .ihex. or .bin Please verify filename, "
                             "file format and stream type",
                             std::nullopt, e.what());
    }
}

Plan planFor(const halyx_firmware& firmware, bool modem_device)
{
    const bool file = firmware.isFile();
    const std::string name = file ? firmware.data : std::string("buffer");
    Plan plan;
    try {
        const auto format = formatOf(firmware);
        const bool package = format == HALYX_FW_FORMAT_ZIP || format == HALYX_FW_FORMAT_MODEM_PACKAGE;
        if (package && modem_device) {
            plan.modem = true;
            if (!file && !bytesOf(firmware).empty() && firmwareFormat("", bytesOf(firmware)) != HALYX_FW_FORMAT_ZIP) {
                throw McuBootFailure(McuBootError::Invalid, fmt::format("File is not zip file: {}", name));
            }
        }
        if (package) {
            plan.package.emplace(file ? MultiImageFile::fromFile(firmware.data)
                                      : MultiImageFile::fromBuffer(bytesOf(firmware)));
            return plan;
        }
        switch (format) {
        case HALYX_FW_FORMAT_INTEL_HEX:
            plan.image = file ? KeilHexFile::fromFile(firmware.data) : KeilHexFile::fromBuffer(bytesOf(firmware), name);
            break;
        case HALYX_FW_FORMAT_BINARY:
            if (file) {
                plan.image = BinaryFile::fromFile(firmware.data);
            } else {
                const auto bytes = bytesOf(firmware);
                plan.image = std::make_unique<BinaryFile>(std::vector<uint8_t>(bytes.begin(), bytes.end()));
            }
            break;
        default:
            if (file) {
                throw McuBootFailure(McuBootError::Invalid,
                                     "Expected to program a filename ending with .hex, .ihex. or .bin Please verify "
                                     "filename, file format and stream type");
            }
            throw McuBootFailure(McuBootError::Invalid, "Unsupported file stream type", HALYX_ERR_OPEN_FAILED);
        }
    } catch (const McuBootFailure&) {
        throw;
    } catch (const HALYXException& e) {
        // The image reader's own code says more than ours would.
        throw McuBootFailure(McuBootError::Invalid, fmt::format("Unable to read the firmware: {}", e.what()), e.code());
    } catch (const std::exception& e) {
        throw McuBootFailure(McuBootError::Invalid, fmt::format("Unable to read the firmware: {}", e.what()));
    }
    return plan;
}

// A console line carries its marker, one group of four characters and its end.
constexpr uint32_t kShortestLine = 7;

uint32_t unsignedSetting(const json& value, const char* key, uint32_t maximum, uint32_t minimum = 0)
{
    if (!value.is_number_unsigned() || value.get<uint64_t>() > maximum || value.get<uint64_t>() < minimum) {
        throw HALYXException(
            HALYX_ERR_INVALID_ARGUMENT,
            fmt::format("{} must be an unsigned number from {} to {}, is {}", key, minimum, maximum, jsonText(value)));
    }
    return value.get<uint32_t>();
}

} // namespace

std::vector<std::string> McubootPlugin::getTraits() const
{
    return {"kelvaneDfu", "mcuBoot", "modem"};
}

bool McubootPlugin::canHandle(const std::string& device, const std::string& operation, const OperationOptions&) const
{
    if (operation != "program") {
        return false;
    }
    try {
        return hasTrueTrait(json::parse(device), "mcuBoot");
    } catch (const std::exception&) {
        return false;
    }
}

McubootPlugin::Identification McubootPlugin::identify(const json& device)
{
    Identification found;
    const auto ports = device.find("serialPorts");
    if (ports == device.end() || !ports->is_array() || ports->empty()) {
        return found;
    }
    const auto usb = device.find("usb");
    if (usb != device.end() && usb->is_object()) {
        const auto& info = usb->value("device", json::object());
        const auto product = info.value("product", json());
        if (product.is_string() && KnownKits::namesMcuboot(product.get<std::string>())) {
            found.mcuboot = true;
        }
        const auto& descriptor = info.value("descriptor", json::object());
        if (isCellularKit(descriptor.value("idVendor", json()), descriptor.value("idProduct", json()))) {
            found.mcuboot = found.modem = true;
        }
    }
    for (const auto& port : *ports) {
        if (port.is_object() && isCellularKit(port.value("vendorId", json()), port.value("productId", json()))) {
            found.mcuboot = found.modem = true;
        }
    }
    return found;
}

void McubootPlugin::enumerate(json& document, const DeviceChanged& changed, const DeviceFound&)
{
    const auto devices = document.find("devices");
    if (devices == document.end() || !devices->is_array()) {
        return;
    }
    for (auto& device : *devices) {
        const auto found = identify(device);
        if (!found.mcuboot) {
            continue;
        }
        device["traits"]["mcuBoot"] = true;
        if (found.modem) {
            device["traits"]["modem"] = true;
        }
        if (changed && device.contains("id")) {
            changed(device["id"].get<uint64_t>());
        }
    }
}

void McubootPlugin::setInitParameters(const std::string& parameters)
{
    json values;
    try {
        values = json::parse(parameters);
    } catch (const std::exception& e) {
        throw HALYXException(HALYX_ERR_INVALID_ARGUMENT,
                             fmt::format("mcuboot init_parameters is not JSON: {}", e.what()));
    }
    Settings settings;
    if (!values.is_null()) {
        if (!values.is_object()) {
            throw HALYXException(HALYX_ERR_INVALID_ARGUMENT, "mcuboot init_parameters must be a JSON object");
        }
        for (const auto& [key, value] : values.items()) {
            if (key == "MCUBOOT_SERIALPORT_BAUDRATE") {
                settings.baudRate = unsignedSetting(value, key.c_str(), UINT32_MAX);
            } else if (key == "MCUBOOT_MODEM_SERIALPORT_BAUDRATE") {
                settings.modemBaudRate = unsignedSetting(value, key.c_str(), UINT32_MAX);
            } else if (key == "MCUBOOT_NETCORE_UPLOAD_WAIT_TIME") {
                settings.netCoreUploadWaitSeconds =
                    static_cast<uint16_t>(unsignedSetting(value, key.c_str(), UINT16_MAX));
            } else if (key == "MCUBOOT_LINE_LENGTH") {
                settings.lineLength = unsignedSetting(value, key.c_str(), UINT16_MAX, kShortestLine);
            } else if (key == "MCUBOOT_PACKET_SIZE") {
                settings.packetSize = unsignedSetting(value, key.c_str(), UINT16_MAX, kShortestLine);
            } else {
                Log::warn("mcuboot: unknown setting {} ignored", key);
            }
        }
    }
    std::lock_guard lock(settings_mutex_);
    settings.lockTimeout = settings_.lockTimeout;
    settings_ = settings;
}

McubootPlugin::Settings McubootPlugin::settings() const
{
    std::lock_guard lock(settings_mutex_);
    return settings_;
}

void McubootPlugin::setLockTimeout(std::chrono::milliseconds timeout)
{
    std::lock_guard lock(settings_mutex_);
    settings_.lockTimeout = timeout;
}

void McubootPlugin::program(const std::string& device_json, const halyx_firmware& firmware,
                            const ProgramOptions& program_options, Operation& operation)
{
    Log::ScopeTimer timer("HALYX::MCUBOOT::McubootPlugin::program");
    if (program_options.verify) {
        Log::info(
            "No read-back verification over MCUboot: the boot loader checks the image's hash before it boots it.");
    }
    const auto settings = this->settings();
    const auto device = json::parse(device_json);

    // Named after the device, so every process programming it takes turns.
    std::string lock_name;
    if (device.contains("serialNumber") && device["serialNumber"].is_string()) {
        lock_name = device["serialNumber"].get<std::string>();
    } else if (device.contains("serialPorts") && !device["serialPorts"].empty()) {
        lock_name = device["serialPorts"][0].value("path", "unknown");
    } else {
        lock_name = "unknown";
    }
    auto lock = createInterprocessLock(lock_name);
    InterprocessLockGuard guard(*lock, settings.lockTimeout);

    std::optional<SmpClient> client;
    try {
        if (operation.core()) {
            throw McuBootFailure(McuBootError::NotSupported,
                                 "Selecting device core is not supported for MCUBoot programming.");
        }
        const auto ports = device.find("serialPorts");
        if (ports == device.end() || !ports->is_array() || ports->empty()) {
            throw McuBootFailure(McuBootError::UartNotFound, "Serialport is needed for MCUBoot DFU over serial");
        }
        std::string port;
        for (const char* key : {"path", "comName"}) {
            const auto value = ports->front().find(key);
            if (port.empty() && value != ports->front().end() && value->is_string()) {
                port = value->get<std::string>();
            }
        }

        auto plan = planFor(firmware, hasTrueTrait(device, "modem"));
        const MgmtGroupId group = plan.modem ? MgmtGroup::ModemImage : MgmtGroup::Image;
        const bool stay = operation.mcuEndState() == HALYX_MCU_STATE_PROGRAMMING && !plan.modem;

        std::vector<ProgressOperation> steps{ProgressOperation::OpenDevice};
        if (group == MgmtGroup::Image) {
            steps.push_back(ProgressOperation::EraseImage);
        }
        steps.insert(steps.end(), plan.package ? plan.package->images().size() : 1, ProgressOperation::UploadImage);
        if (!stay) {
            steps.push_back(ProgressOperation::EnterApplicationState);
        }
        steps.push_back(ProgressOperation::CloseDevice);
        ProgressReporter progress([&operation](const nlohmann::ordered_json& record) { operation.progress(record); });
        progress.plan(std::move(steps));

        SmpClient::Options options;
        options.baudRate = plan.modem ? settings.modemBaudRate : settings.baudRate;
        options.responseTimeout = std::chrono::milliseconds(operation.timeouts().response_ms);
        options.lineLength = settings.lineLength;
        options.packetSize = settings.packetSize;
        options.cancelRequested = [&operation] { return operation.cancelRequested(); };
        SerialSettings serial{port, options.baudRate, 0, 0, 0, 8};
        client.emplace(std::make_unique<SmpUartTransport>(serial), sequence_, options, progress);

        step(fmt::format("Unable to open MCUBoot device using {}. The resource may be unavailable or blocked by "
                         "another application.",
                         port),
             [&] { client->openDevice(true); });

        const auto name = firmware.isFile() ? firmware.data : std::string();
        if (plan.package) {
            step(firmware.isFile() ? fmt::format("Unable to program multi image file. Filename: {}", name)
                                   : std::string("Unable to program multi image file from buffer."),
                 [&] { client->uploadImages(*plan.package, group); });
            Log::info("Delay after programming.");
            Log::info("Waiting {} seconds to let RAM NET Core flash succeed.", settings.netCoreUploadWaitSeconds);
            const auto until =
                std::chrono::steady_clock::now() + std::chrono::seconds(settings.netCoreUploadWaitSeconds);
            while (std::chrono::steady_clock::now() < until && !operation.cancelRequested()) {
                std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(
                    std::chrono::milliseconds(100), until - std::chrono::steady_clock::now()));
            }
        } else {
            step(firmware.isFile() ? fmt::format("Unable to program MCUBoot image. Filename: {}", name)
                                   : std::string("Unable to program MCUBoot image from buffer."),
                 [&] { client->uploadImage(*plan.image, group, std::nullopt, true); });
        }

        if (plan.modem && operation.mcuEndState() == HALYX_MCU_STATE_PROGRAMMING) {
            Log::warn("Cannot set programming state after programming modem. Defaults to application state.");
        }
        if (stay) {
            Log::info("Staying in the boot loader as requested.");
        } else {
            Log::info("Entering application state by resetting device.");
            step("Unable to reset device and switch to application state.", [&] { client->resetDevice(); });
            Log::info("Device was reset and application state was entered.");
        }
        step("Unable to close MCU boot device.", [&] { client->closeDevice(); });
    } catch (const McuBootFailure& failure) {
        if (client && client->cancelled()) {
            Log::warn("Programming through MCUBoot was cancelled; the device stays in its boot loader.");
            throw HALYXException(HALYX_ERR_DFU_11, "Programming through MCUBoot was cancelled.");
        }
        throw report(failure);
    }
}

} // namespace HALYX::MCUBOOT
