#include "program_fixture.hpp"

#include <cstdlib>
#include <stdexcept>

#include <unistd.h>

#include "platform/linux/named_semaphore_lock.hpp"

namespace halyx_test {

std::vector<HALYX::event_object> SimulatedKitLister::enumerate()
{
    std::vector<HALYX::event_object> findings;
    for (const auto& kit : kits_) {
        HALYX::event_object usb;
        usb.serialNumber = kit.serialNumber;
        usb.sectionName = "usb";
        usb.sectionJson =
            nlohmann::json{
                {"busNumber", 1},
                {"address", 7},
                {"device", {{"manufacturer", "Kelvane"}, {"product", kit.product}, {"serialNumber", kit.serialNumber}}}}
                .dump();
        usb.traits = kit.traits;
        usb.traits["usb"] = true;
        findings.push_back(usb);
        if (kit.simulator != nullptr || !kit.port.empty()) {
            const auto port = kit.simulator != nullptr ? kit.simulator->port() : kit.port;
            HALYX::event_object ports;
            ports.serialNumber = kit.serialNumber;
            ports.sectionName = "serialPorts";
            ports.sectionJson = nlohmann::json::array({{{"comName", port},
                                                        {"path", port},
                                                        {"serialNumber", kit.serialNumber},
                                                        {"manufacturer", "Kelvane"},
                                                        {"vendorId", "7A5C"},
                                                        {"productId", kit.productId},
                                                        {"vcom", 0}}})
                                    .dump();
            ports.traits = {{"serialPorts", true}};
            findings.push_back(ports);
        }
    }
    return findings;
}

ProgramHarness::ProgramHarness(std::vector<SimulatedKitLister::Kit> kits, uint32_t response_ms)
{
    HALYX::ContextParts parts;
    parts.lister = std::make_unique<SimulatedKitLister>(std::move(kits));
    parts.plugins = {[] { return std::make_unique<HALYX::MCUBOOT::McubootPlugin>(); }};
    context_ = new halyx_context(std::move(parts));
    plugin_ = dynamic_cast<HALYX::MCUBOOT::McubootPlugin*>(context_->plugins.plugins().front().get());
    halyx_timeout_configuration_t timeouts{60000, 60, response_ms, 30000};
    if (halyx_set_timeout(context_, &timeouts) != HALYX_SUCCESS) {
        throw std::runtime_error("halyx_set_timeout failed");
    }
    // A terminal ignores the baud rate; it only sizes the client's time limits.
    const char* configuration =
        R"({"device_lister": [{"name": "mcuboot", "init_parameters": {"MCUBOOT_NETCORE_UPLOAD_WAIT_TIME": 0, "MCUBOOT_SERIALPORT_BAUDRATE": 1000000}}]})";
    if (halyx_set_configuration(context_, configuration) != HALYX_SUCCESS) {
        throw std::runtime_error("halyx_set_configuration failed");
    }
    plugin_->setLockTimeout(std::chrono::milliseconds(500));
    // HALYX_TEST_LOG=0..5 shows the library's log while debugging a test.
    if (const char* level = std::getenv("HALYX_TEST_LOG")) {
        halyx_register_log_event(
            context_, [](uint32_t, const char* message, void*) { std::fprintf(stderr, "%s\n", message); }, nullptr);
        halyx_set_log_level(context_, static_cast<uint32_t>(std::atoi(level)));
    }
}

ProgramHarness::~ProgramHarness()
{
    halyx_release_context(context_);
}

nlohmann::json ProgramHarness::enumerate()
{
    halyx_device_list_t* list = nullptr;
    if (halyx_enumerate(context_, &list) != HALYX_SUCCESS) {
        throw std::runtime_error("halyx_enumerate failed");
    }
    nlohmann::json devices = nlohmann::json::object();
    for (size_t i = 0; i < list->count; ++i) {
        const auto device = nlohmann::json::parse(list->devices[i].json);
        devices[device["serialNumber"].get<std::string>()] = device;
    }
    halyx_free_device_list(context_, list);
    return devices;
}

uint64_t ProgramHarness::idOf(const std::string& serial_number)
{
    return enumerate().at(serial_number).at("id").get<uint64_t>();
}

namespace {

struct Collected {
    std::mutex mutex;
    ProgramResult result;
    halyx_context* context = nullptr;
    uint64_t task = 0;
    int cancel_after = 0;
    int upload_reports = 0;
};

void collectProgress(halyx_context*, uint64_t, const char* json, void* user_data)
{
    auto& collected = *static_cast<Collected*>(user_data);
    std::lock_guard lock(collected.mutex);
    auto record = nlohmann::json::parse(json);
    if (record.value("operation", "") == "upload_image" && ++collected.upload_reports == collected.cancel_after) {
        halyx_cancel_async_task(collected.context, collected.task);
    }
    collected.result.progress.push_back(std::move(record));
    collected.result.progressText.emplace_back(json);
}

void collectCompletion(halyx_context*, halyx_complete_t complete)
{
    auto& collected = *static_cast<Collected*>(complete.user_data);
    std::lock_guard lock(collected.mutex);
    collected.result.code = complete.error_code;
    collected.result.message = complete.message != nullptr ? complete.message : "";
}

} // namespace

ProgramResult ProgramHarness::program(uint64_t device_id, const std::string& path, uint32_t format,
                                      int cancel_after_reports)
{
    return programDevice(context_, device_id, path, format, cancel_after_reports);
}

ProgramResult programDevice(halyx_context* context, uint64_t device_id, const std::string& path, uint32_t format,
                            int cancel_after_reports)
{
    halyx_firmware* firmware = nullptr;
    if (halyx_fw_create_handle(&firmware, reinterpret_cast<const uint8_t*>(path.c_str()), 0, HALYX_FW_SOURCE_FILE,
                               format) != HALYX_SUCCESS) {
        throw std::runtime_error("halyx_fw_create_handle failed for " + path);
    }
    return programFirmware(context, device_id, firmware, cancel_after_reports);
}

ProgramResult programFirmware(halyx_context* context, uint64_t device_id, halyx_firmware* firmware,
                              int cancel_after_reports)
{
    Collected collected;
    collected.context = context;
    collected.cancel_after = cancel_after_reports;
    const auto start = std::chrono::steady_clock::now();
    {
        // The progress callback may need the task id before halyx_fw_program returns.
        std::unique_lock lock(collected.mutex);
        const auto started = halyx_fw_program(context, static_cast<uint32_t>(device_id), firmware, &collected.task,
                                              nullptr, nullptr, collectProgress, collectCompletion, &collected);
        halyx_fw_release_handle(firmware);
        if (started != HALYX_SUCCESS) {
            throw std::runtime_error("halyx_fw_program refused: " + std::to_string(started));
        }
    }
    halyx_wait_async_task_complete(context, collected.task);
    std::lock_guard lock(collected.mutex);
    collected.result.took =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    return collected.result;
}

std::string uniqueSerial(const std::string& prefix)
{
    struct Names {
        std::mutex mutex;
        std::vector<std::string> names;
        ~Names()
        {
            for (const auto& name : names) {
                HALYX::Linux::NamedSemaphoreLock::remove(name);
            }
        }
    };
    static Names created;
    auto serial = prefix + std::to_string(::getpid());
    std::lock_guard lock(created.mutex);
    created.names.push_back(serial);
    return serial;
}

nlohmann::json makeImage(const std::string& kind, const std::string& out, const nlohmann::json& options)
{
    return nlohmann::json::parse(runOk(python() + " " + shellQuote(dataFile("image/make_mcuboot_image.py").string()) +
                                       " " + kind + " " + shellQuote(out) + " " + shellQuote(options.dump())));
}

std::vector<uint8_t> bytesFromHex(const std::string& hex)
{
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

} // namespace halyx_test
