#include "mcuboot/mcuboot_progress.hpp"

#include <stdexcept>

#include "core/json_fields.hpp"
#include "core/logging.hpp"

namespace HALYX::MCUBOOT {

std::string toString(ProgressOperation operation)
{
    static const char* const names[] = {"open_device",
                                        "close_device",
                                        "upload_image",
                                        "erase_image",
                                        "confirm_image",
                                        "verify_image",
                                        "read_images",
                                        "issue_modem_dfu_reset",
                                        "enter_programming_state",
                                        "enter_application_state",
                                        "get_memory_hash",
                                        "attach_device",
                                        "download_image",
                                        "check_bootloader"};
    const auto index = static_cast<size_t>(operation);
    if (index >= std::size(names)) {
        throw std::invalid_argument("Unable to generate string for operation enum value.");
    }
    return names[index];
}

void ProgressReporter::beginStep(ProgressOperation operation, const std::string& description)
{
    ++step_;
    if (step_ <= plan_.size() && plan_[step_ - 1] != operation) {
        Log::warn("Step {} is {}, planned was {}", step_, toString(operation), toString(plan_[step_ - 1]));
    }
    operation_ = operation;
    description_ = description;
    started_ = std::chrono::steady_clock::now();
}

void ProgressReporter::report(const std::string& message, int percentage, McuBootError result)
{
    const auto duration =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started_);
    nlohmann::ordered_json record;
    record["operation"] = toString(operation_);
    record["step"] = step_;
    const auto steps = static_cast<uint32_t>(plan_.size());
    record["amountOfSteps"] = steps;
    record["description"] = description_;
    record["progressPercentage"] = percentage;
    record["message"] = message;
    record["duration"] = duration.count();
    record["result"] = result == McuBootError::Ok ? "success" : "fail";
    record["errorCode"] = toNumber(result);
    if (step_ > steps) {
        Log::warn("Step count is larger than expected (got: {}; expected: {}). JSON dump: {}", step_, steps,
                  jsonText(record));
    }
    if (sink_) {
        sink_(record);
    }
}

} // namespace HALYX::MCUBOOT
