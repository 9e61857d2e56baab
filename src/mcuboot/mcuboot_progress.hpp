#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "mcuboot/mcuboot_error.hpp"

namespace HALYX::MCUBOOT {

enum class ProgressOperation : uint32_t {
    OpenDevice,
    CloseDevice,
    UploadImage,
    EraseImage,
    ConfirmImage,
    VerifyImage,
    ReadImages,
    IssueModemDfuReset,
    EnterProgrammingState,
    EnterApplicationState,
    GetMemoryHash,
    AttachDevice,
    DownloadImage,
    CheckBootloader,
};

// "open_device", ...; throws std::invalid_argument for a value outside the enum.
std::string toString(ProgressOperation operation);

// Builds the progress records of one program call and hands them on. Steps
// are numbered in the order they start; their count comes from the plan.
class ProgressReporter {
public:
    // Records keep their keys in the order they are documented in.
    using Sink = std::function<void(const nlohmann::ordered_json& record)>;

    ProgressReporter() = default;
    explicit ProgressReporter(Sink sink) : sink_(std::move(sink)) {}

    // The steps the call is going to take, in order.
    void plan(std::vector<ProgressOperation> steps) { plan_ = std::move(steps); }

    // Starts the next step: its number and its clock.
    void beginStep(ProgressOperation operation, const std::string& description);

    void report(const std::string& message, int percentage, McuBootError result = McuBootError::Ok);

private:
    Sink sink_;
    std::vector<ProgressOperation> plan_;
    uint32_t step_ = 0;
    ProgressOperation operation_ = ProgressOperation::OpenDevice;
    std::string description_;
    std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
};

} // namespace HALYX::MCUBOOT
