#include "program_command.hpp"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <unistd.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "commands.hpp"
#include "core/halyx_exception.hpp"
#include "image/binary_image.hpp"
#include "image/firmware_format.hpp"

namespace halyx_tool {
namespace {

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

// Everything the callbacks share with the waiting thread. Callbacks run on
// the task's worker; output_mutex keeps their lines whole.
struct ProgramState {
    bool json = false;
    bool terminal = false;
    std::mutex output_mutex;
    std::string step;
    std::optional<double> step_number;
    std::optional<std::pair<double, double>> step_start; // percentage and "duration" of the step's first record
    size_t line_width = 0;

    std::mutex result_mutex;
    bool completed = false;
    halyx_errorcode_t code = HALYX_SUCCESS;
    std::string message;
};

// The first of the keys that holds a T (a string or a number): plugins name
// their fields differently ("progressPercentage" or "percentage"), and "step"
// is a number in some records and the step's text in others.
template <typename T>
std::optional<T> firstOf(const nlohmann::json& record, std::initializer_list<const char*> keys)
{
    for (const char* key : keys) {
        const auto it = record.find(key);
        if (it != record.end() && (std::is_same_v<T, std::string> ? it->is_string() : it->is_number())) {
            return it->get<T>();
        }
    }
    return std::nullopt;
}

// The time a step still needs, from how fast its percentage has moved since
// the step's first record (a step need not start at 0 %); "duration" is the
// step's age in milliseconds.
std::string timeLeft(ProgramState& state, double percentage, std::optional<double> duration)
{
    if (!duration) {
        return {};
    }
    if (!state.step_start) {
        state.step_start = {percentage, *duration};
        return {};
    }
    const double moved = percentage - state.step_start->first;
    if (moved <= 0 || percentage >= 100) {
        return {};
    }
    const double per_percent_ms = (*duration - state.step_start->second) / moved;
    const auto seconds = static_cast<long>(per_percent_ms * (100 - percentage) / 1000);
    return fmt::format("{}:{:02} left", seconds / 60, seconds % 60);
}

void drawBar(ProgramState& state, const nlohmann::json& record)
{
    const int percentage =
        std::clamp(static_cast<int>(firstOf<double>(record, {"progressPercentage", "percentage"}).value_or(0)), 0, 100);
    const auto description = firstOf<std::string>(record, {"description", "step"}).value_or("");
    // A package uploads several images, each a step of the same description.
    const auto number = firstOf<double>(record, {"step"});
    if (description != state.step || number != state.step_number) {
        state.step = description;
        state.step_number = number;
        state.step_start.reset();
    }
    const auto left = timeLeft(state, percentage, firstOf<double>(record, {"duration"}));
    const int width = 30;
    const int filled = percentage * width / 100;
    std::string line = fmt::format("[{}{}] {:3}%", std::string(static_cast<size_t>(filled), '#'),
                                   std::string(static_cast<size_t>(width - filled), '.'), percentage);
    if (!left.empty()) {
        line += "  " + left;
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
    const auto description = firstOf<std::string>(record, {"description", "step"}).value_or("");
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
