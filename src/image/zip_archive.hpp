#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/halyx_exception.hpp"

namespace HALYX {

// A zip package opened for reading, from a file or from bytes it keeps a
// copy of. Not for concurrent use: one thread at a time.
class ZipArchive {
public:
    // libzip refused the package (code 17); zipError() is libzip's code.
    class OpenError : public HALYXException {
    public:
        OpenError(std::string message, int zipError)
            : HALYXException(HALYX_ERR_OPEN_FAILED, std::move(message)), zipError_(zipError)
        {
        }
        int zipError() const noexcept { return zipError_; }

    private:
        int zipError_;
    };

    static ZipArchive open(const std::filesystem::path& path);
    static ZipArchive fromBuffer(std::span<const uint8_t> bytes);

    ZipArchive(ZipArchive&&) noexcept;
    ZipArchive& operator=(ZipArchive&&) noexcept;
    ~ZipArchive();

    // Entry names in archive order.
    const std::vector<std::string>& entries() const;
    // The first entry, in archive order, whose name contains name, so
    // "manifest.json" also finds "pkg/manifest.json"; an exact match further
    // on does not win over it.
    std::optional<size_t> find(std::string_view name) const;
    // The bytes of the entry find() picks: code 10 "file not found in zip: {}"
    // when there is none, 18 "file decompression failed: {}" when it cannot
    // be extracted.
    std::vector<uint8_t> read(std::string_view name) const;

private:
    struct State;
    explicit ZipArchive(std::unique_ptr<State> state);

    std::unique_ptr<State> state_;
};

} // namespace HALYX
