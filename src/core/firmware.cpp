#include "core/firmware.hpp"

#include "core/call_guard.hpp"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <system_error>

#include <fmt/format.h>

#include "core/halyx_exception.hpp"

namespace HALYX {
namespace {

void checkReadableFile(const std::string& path)
{
    std::error_code status_error;
    const auto status = std::filesystem::status(path, status_error);
    if (!std::filesystem::exists(status)) {
        const int error = status_error ? status_error.value() : ENOENT;
        throw HALYXException(HALYX_ERR_INVALID_ARGUMENT,
                             fmt::format("file does not exist: {} (error code: {}, error_message )", path, error));
    }
    // A directory opens as a stream on some hosts but is never an image.
    int error = std::filesystem::is_directory(status) ? EISDIR : 0;
    if (error == 0) {
        errno = 0;
        std::ifstream file(path, std::ios::binary);
        if (file) {
            return;
        }
        error = errno != 0 ? errno : EIO;
    }
    throw HALYXException(
        HALYX_ERR_INVALID_ARGUMENT,
        fmt::format("Other error when trying to open file: {} (error code: {}, error_message )", path, error));
}

} // namespace

halyx_firmware* createFirmware(const uint8_t* data, size_t size, uint32_t source_kind, uint32_t format)
{
    if (format > HALYX_FW_FORMAT_MODEM_PACKAGE) {
        throw HALYXException(
            HALYX_ERR_INVALID_ARGUMENT,
            fmt::format("Unknown firmware format: {}. Use one of the HALYX_FW_FORMAT_* values.", format));
    }
    HALYX::requireArgument(data, "halyx_fw_create_handle", "data");
    auto firmware = std::make_unique<halyx_firmware>();
    firmware->source_kind = source_kind;
    firmware->format = format;
    if (source_kind == HALYX_FW_SOURCE_FILE) {
        if (size != 0) {
            throw HALYXException(HALYX_ERR_INVALID_ARGUMENT, "Non-zero data-length was provided for file-type data");
        }
        firmware->data = reinterpret_cast<const char*>(data);
        if (firmware->data.empty()) {
            throw HALYXException(HALYX_ERR_INVALID_ARGUMENT, "halyx_fw_create_handle: the file path is empty");
        }
        checkReadableFile(firmware->data);
    } else {
        firmware->data.assign(reinterpret_cast<const char*>(data), size);
    }
    return firmware.release();
}

} // namespace HALYX
