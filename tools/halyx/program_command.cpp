#include "program_command.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include <unistd.h>

#include <nlohmann/json.hpp>

#include "commands.hpp"
#include "core/halyx_exception.hpp"
#include "image/binary_image.hpp"
#include "image/firmware_format.hpp"

namespace halyx_tool {
namespace {

using Clock = std::chrono::steady_clock;

// Decided as the library's readers decide it; a file that cannot be
// identified fails like a refused call.
uint32_t formatOf(const std::string& file)
{
    try {
        return HALYX::firmwareFileFormat(file);
    } catch (const HALYX::HALYXException& e) {
        throw Failure{e.code(), e.what()};
    } catch (const HALYX::BinaryImage::error& e) {
        throw Failure{HALYX_ERR_INVALID_ARGUMENT, e.what()};
    }
}

std::string humanRate(double bytes_per_second)
{
    char text[32];
    if (bytes_per_second >= 1024 * 1024) {
        std::snprintf(text, sizeof text, "%.1f MiB/s", bytes_per_second / (1024 * 1024));
    } else {
        std::snprintf(text, sizeof text, "%.1f KiB/s", bytes_per_second / 1024);
    }
    return text;
}

// Everything the callbacks share with the waiting thread. Callbacks run on
// the task's worker; output_mutex keeps their lines whole.
struct ProgramState {
    bool json = false;
    bool terminal = false;
    std::mutex output_mutex;
    Clock::time_point step_started = Clock::now();
    std::string step;
    size_t line_width = 0;

    std::mutex result_mutex;
    bool completed = false;
    halyx_errorcode_t code = HALYX_SUCCESS;
    std::string message;
};

// "Uploaded 1024 of 4096 bytes." carries the byte counts of an upload.
bool uploadedBytes(const std::string& message, unsigned long long& done, unsigned long long& total)
{
    return std::sscanf(message.c_str(), "Uploaded %llu of %llu bytes.", &done, &total) == 2;
}

// The first of the keys that holds text: plugins name their step differently
// ("step" is a number in some records and the step's text in others).
std::string textOf(const nlohmann::json& record, std::initializer_list<const char*> keys)
{
    for (const char* key : keys) {
        const auto it = record.find(key);
        if (it != record.end() && it->is_string()) {
            return it->get<std::string>();
        }
    }
    return {};
}

void drawBar(ProgramState& state, const nlohmann::json& record)
{
    const auto percentage = record.value("progressPercentage", record.value("percentage", 0));
    const auto description = textOf(record, {"description", "step"});
    const auto message = textOf(record, {"message"});
    if (description != state.step) {
        state.step = description;
        state.step_started = Clock::now();
    }
    const double elapsed = std::chrono::duration<double>(Clock::now() - state.step_started).count();
    std::string rate;
    std::string left;
    unsigned long long done = 0;
    unsigned long long total = 0;
    if (uploadedBytes(message, done, total) && elapsed > 0 && done > 0) {
        const double per_second = static_cast<double>(done) / elapsed;
        rate = humanRate(per_second);
        const auto seconds = static_cast<long>(static_cast<double>(total - done) / per_second);
        char text[32];
        std::snprintf(text, sizeof text, "%ld:%02ld left", seconds / 60, seconds % 60);
        left = text;
    }
    const int width = 30;
    const int filled = std::clamp(percentage, 0, 100) * width / 100;
    std::string line = "[" + std::string(static_cast<size_t>(filled), '#') +
                       std::string(static_cast<size_t>(width - filled), '.') + "] ";
    char pct[8];
    std::snprintf(pct, sizeof pct, "%3d%%", std::clamp(percentage, 0, 100));
    line += pct;
    if (!rate.empty()) {
        line += "  " + rate + "  " + left;
    }
    line += "  " + description;
    const size_t pad = state.line_width > line.size() ? state.line_width - line.size() : 0;
    state.line_width = line.size();
    std::fprintf(stdout, "\r%s%s", line.c_str(), std::string(pad, ' ').c_str());
    std::fflush(stdout);
}

void onProgress(halyx_context*, uint64_t, const char* progress_json, void* user_data)
{
    auto& state = *static_cast<ProgramState*>(user_data);
    std::lock_guard lock(state.output_mutex);
    if (state.json) {
        std::printf("%s\n", progress_json);
        std::fflush(stdout);
        return;
    }
    const auto record = nlohmann::json::parse(progress_json, nullptr, false);
    if (record.is_discarded()) {
        return;
    }
    if (state.terminal) {
        drawBar(state, record);
        return;
    }
    const auto description = textOf(record, {"description", "step"});
    if (description != state.step) {
        state.step = description;
        std::printf("%s\n", description.c_str());
    }
}

void onComplete(halyx_context*, halyx_complete_t result)
{
    auto& state = *static_cast<ProgramState*>(result.user_data);
    std::lock_guard lock(state.result_mutex);
    state.completed = true;
    state.code = result.error_code;
    state.message = result.message != nullptr ? result.message : "";
}

bool hasTrait(const halyx_device_t& device, const char* name)
{
    for (size_t t = 0; t < device.trait_count; ++t) {
        if (device.traits[t].value && std::string(device.traits[t].name) == name) {
            return true;
        }
    }
    return false;
}

// The device the request names, or the only programmable one when it names none.
uint64_t chooseDevice(halyx_context* context, const ProgramRequest& request)
{
    halyx_device_list_t* list = nullptr;
    check(context, halyx_enumerate(context, &list), "halyx_enumerate");
    std::vector<uint64_t> candidates;
    for (size_t i = 0; i < list->count; ++i) {
        const auto& device = list->devices[i];
        if (request.id) {
            if (device.id == *request.id) {
                candidates.push_back(device.id);
            }
        } else if (request.serialNumber) {
            if (device.serial_number != nullptr && *request.serialNumber == device.serial_number) {
                candidates.push_back(device.id);
            }
        } else if (hasTrait(device, "mcuBoot") || hasTrait(device, "jlink") || hasTrait(device, "kelvaneDfu")) {
            candidates.push_back(device.id);
        }
    }
    halyx_free_device_list(context, list);
    if (candidates.empty()) {
        throw Failure{HALYX_ERR_NOT_FOUND, request.id || request.serialNumber
                                               ? "no attached device matches; see 'halyx list'"
                                               : "no programmable device is attached; see 'halyx list'"};
    }
    if (candidates.size() > 1) {
        throw Failure{HALYX_ERR_INVALID_ARGUMENT,
                      "several programmable devices are attached; choose one with --serial or --id"};
    }
    return candidates.front();
}

} // namespace

int program(halyx_context* context, const ProgramRequest& request, StopSignal& stop)
{
    const uint32_t format = formatOf(request.file);
    const uint64_t device = chooseDevice(context, request);

    halyx_firmware* firmware = nullptr;
    check(context,
          halyx_fw_create_handle(&firmware, reinterpret_cast<const uint8_t*>(request.file.c_str()), 0,
                                 HALYX_FW_SOURCE_FILE, format),
          "halyx_fw_create_handle");

    ProgramState state;
    state.json = request.json;
    state.terminal = !request.json && ::isatty(STDOUT_FILENO) == 1;
    uint64_t task = 0;
    const auto started = halyx_fw_program(context, static_cast<uint32_t>(device), firmware, &task, nullptr, nullptr,
                                          onProgress, onComplete, &state);
    halyx_fw_release_handle(firmware);
    check(context, started, "halyx_fw_program");

    std::atomic<bool> interrupted{false};
    stop.onSignal([context, task, &interrupted](int) {
        interrupted = true;
        halyx_cancel_async_task(context, task);
    });
    halyx_wait_async_task_complete(context, task);

    std::lock_guard lock(state.result_mutex);
    if (state.terminal) {
        std::printf("\n");
    }
    if (!state.completed) {
        throw Failure{HALYX_ERR_GENERAL, "the programming task ended without reporting its result"};
    }
    if (state.code != HALYX_SUCCESS) {
        throw Failure{state.code, interrupted ? "interrupted: " + state.message : state.message};
    }
    if (!request.json) {
        std::printf("Programmed %s into device %llu.\n", request.file.c_str(), static_cast<unsigned long long>(device));
    }
    return 0;
}

} // namespace halyx_tool
