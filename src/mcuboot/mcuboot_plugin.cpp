#include "mcuboot/mcuboot_plugin.hpp"

#include <algorithm>
#include <fstream>
#include <optional>
#include <thread>

#include <fmt/format.h>

#include "core/firmware.hpp"
#include "core/halyx_exception.hpp"
#include "core/logging.hpp"
#include "devices/known_kits.hpp"
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
[[noreturn]] void fail(std::string step, McuBootError error, std::optional<halyx_errorcode_t> code = std::nullopt)
{
    while (!step.empty() && step.back() == '.') {
        step.pop_back();
    }
    auto message = fmt::format("Error when programming through MCUBoot: {}. Error code: {} ({}).", step,
                               toNumber(error), toString(error));
    Log::error("{}", message);
    throw HALYXException(code.value_or(errorCodeFor(error)), std::move(message));
}

std::string lowercase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

bool endsWith(const std::string& text, const std::string& suffix)
{
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
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

bool isZipData(std::string_view bytes)
{
    return bytes.size() >= 4 && bytes.substr(0, 4) == std::string_view("PK\x03\x04", 4);
}

bool isZipFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    char magic[4] = {};
    file.read(magic, sizeof magic);
    return file.gcount() == 4 && isZipData(std::string_view(magic, 4));
}

std::span<const uint8_t> bytesOf(const halyx_firmware& firmware)
{
    return {reinterpret_cast<const uint8_t*>(firmware.data.data()), firmware.data.size()};
}

// What program() is about to write, decided from the firmware's form and name.
struct Plan {
    bool modem = false;
    std::unique_ptr<ImageFile> image;
    std::optional<MultiImageFile> package;
};

Plan planFor(const halyx_firmware& firmware, bool modem_device)
{
    const bool file = firmware.isFile();
    const auto name = file ? lowercase(firmware.data) : std::string();
    const bool package = firmware.format == HALYX_FW_FORMAT_ZIP || firmware.format == HALYX_FW_FORMAT_MODEM_PACKAGE ||
                         (file && endsWith(name, ".zip"));
    Plan plan;
    try {
        if (package && modem_device) {
            plan.modem = true;
            if (file && !endsWith(name, ".zip")) {
                fail(fmt::format("Trying to program modem using MCUBoot, but filename is not ending with .zip. "
                                 "Filename: {}",
                                 firmware.data),
                     McuBootError::Invalid);
            }
            if (file ? !isZipFile(firmware.data) : !isZipData(firmware.data)) {
                fail(fmt::format("File is not zip file: {}", file ? firmware.data : std::string("buffer")),
                     McuBootError::Invalid);
            }
        }
        if (package) {
            if (file && !endsWith(name, ".zip")) {
                fail(fmt::format("Expected to program a filename ending with .zip. Please verify filename, file "
                                 "format and stream type. Filename: {}",
                                 firmware.data),
                     McuBootError::Invalid);
            }
            plan.package.emplace(file ? MultiImageFile::fromFile(firmware.data)
                                      : MultiImageFile::fromBuffer(bytesOf(firmware)));
            return plan;
        }
        if (file) {
            if (endsWith(name, ".hex") || endsWith(name, ".ihex")) {
                plan.image = KeilHexFile::fromFile(firmware.data);
            } else if (endsWith(name, ".bin")) {
                plan.image = BinaryFile::fromFile(firmware.data);
            } else {
                fail("Expected to program a filename ending with .hex, .ihex. or .bin Please verify filename, file "
                     "format and stream type",
                     McuBootError::Invalid);
            }
        } else if (firmware.format == HALYX_FW_FORMAT_INTEL_HEX) {
            plan.image = KeilHexFile::fromBuffer(bytesOf(firmware), "buffer");
        } else if (firmware.format == HALYX_FW_FORMAT_BINARY) {
            const auto bytes = bytesOf(firmware);
            plan.image = std::make_unique<BinaryFile>(std::vector<uint8_t>(bytes.begin(), bytes.end()));
        } else {
            fail("Unsupported file stream type", McuBootError::Invalid);
        }
    } catch (const HALYXException& e) {
        if (std::string_view(e.what()).starts_with("Error when programming through MCUBoot")) {
            throw;
        }
        // The image reader's own code says more than ours would.
        fail(fmt::format("Unable to read the firmware: {}", e.what()), McuBootError::Invalid, e.code());
    } catch (const std::exception& e) {
        fail(fmt::format("Unable to read the firmware: {}", e.what()), McuBootError::Invalid);
    }
    return plan;
}

uint32_t unsignedSetting(const json& value, const char* key, uint32_t maximum)
{
    if (!value.is_number_unsigned() || value.get<uint64_t>() > maximum) {
        throw HALYXException(HALYX_ERR_INVALID_ARGUMENT,
                             fmt::format("{} must be an unsigned number up to {}, is {}", key, maximum, value.dump()));
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
                settings.netCoreUploadWaitSeconds = static_cast<uint16_t>(unsignedSetting(value, key.c_str(), UINT16_MAX));
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
        Log::info("No read-back verification over MCUboot: the boot loader checks the image's hash before it boots it.");
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

    if (operation.core()) {
        fail("Selecting device core is not supported for MCUBoot programming.", McuBootError::NotSupported);
    }
    const auto ports = device.find("serialPorts");
    if (ports == device.end() || !ports->is_array() || ports->empty()) {
        fail("Serialport is needed for MCUBoot DFU over serial", McuBootError::UartNotFound);
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

    ProgressReporter progress([&operation](const nlohmann::ordered_json& record) { operation.progress(record); });
    const size_t images = plan.package ? plan.package->images().size() : 1;
    progress.setAmountOfSteps(static_cast<uint32_t>(1 + (group == MgmtGroup::Image ? 1 : 0) + images + 2));

    SmpClient::Options options;
    options.baudRate = plan.modem ? settings.modemBaudRate : settings.baudRate;
    options.responseTimeout = std::chrono::milliseconds(operation.timeouts().response_ms);
    options.cancelRequested = [&operation] { return operation.cancelRequested(); };
    SerialSettings serial{port, options.baudRate, 0, 0, 0, 8};
    SmpClient client(std::make_unique<SmpUartTransport>(serial), sequence_, options, progress);

    if (const auto opened = client.openDevice(true); opened != McuBootError::Ok) {
        fail(fmt::format("Unable to open MCUBoot device using {}. The resource may be unavailable or blocked by "
                         "another application.",
                         port),
             opened);
    }

    const auto uploaded = plan.package ? client.uploadImages(*plan.package, group)
                                       : client.uploadImage(*plan.image, group, std::nullopt, true);
    if (client.cancelled()) {
        Log::warn("Programming through MCUBoot was cancelled; the device stays in its boot loader.");
        throw HALYXException(HALYX_ERR_DFU_11, "Programming through MCUBoot was cancelled.");
    }
    if (uploaded != McuBootError::Ok) {
        const std::string name = firmware.isFile() ? firmware.data : std::string();
        if (plan.package) {
            fail(firmware.isFile() ? fmt::format("Unable to program multi image file. Filename: {}", name)
                                   : std::string("Unable to program multi image file from buffer."),
                 uploaded);
        }
        fail(firmware.isFile() ? fmt::format("Unable to program MCUBoot image. Filename: {}", name)
                               : std::string("Unable to program MCUBoot image from buffer."),
             uploaded);
    }

    if (plan.package) {
        Log::info("Delay after programming.");
        Log::info("Waiting {} seconds to let RAM NET Core flash succeed.", settings.netCoreUploadWaitSeconds);
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(settings.netCoreUploadWaitSeconds);
        while (std::chrono::steady_clock::now() < until && !operation.cancelRequested()) {
            std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(
                std::chrono::milliseconds(100), until - std::chrono::steady_clock::now()));
        }
    }

    const bool stay = operation.mcuEndState() == HALYX_MCU_STATE_PROGRAMMING;
    if (stay && plan.modem) {
        Log::warn("Cannot set programming state after programming modem. Defaults to application state.");
    }
    if (stay && !plan.modem) {
        Log::info("Staying in the boot loader as requested.");
    } else {
        Log::info("Entering application state by resetting device.");
        if (const auto reset = client.resetDevice(); reset != McuBootError::Ok) {
            fail("Unable to reset device and switch to application state.", reset);
        }
        Log::info("Device was reset and application state was entered.");
    }

    if (const auto closed = client.closeDevice(); closed != McuBootError::Ok) {
        fail("Unable to close MCU boot device.", closed);
    }
}

} // namespace HALYX::MCUBOOT
