#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iosfwd>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace HALYX {

// A firmware image in memory: memory segments (address and bytes) that never
// overlap and never touch (touching segments are merged), ordered by address.
//
// Loaders (Intel HEX, ELF) fill an image through append() and seal it with
// finalize(); after that the image is read-only and safe to share between
// threads for reading.
//
// All bytes live in one buffer, so an image read in address order costs one
// allocation and no copying when it is sealed.
class BinaryImage {
public:
    // Every failure of this class derives from error; the exported layer
    // reports them with their message.
    class error : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };
    // A file that cannot be opened, or holds no data.
    class file_error : public error {
    public:
        using error::error;
    };
    // Segments that overlap, or an address outside the image.
    class memory_error : public error {
    public:
        using error::error;
    };
    // Content that is damaged or of an unsupported kind.
    class format_error : public error {
    public:
        using error::error;
    };
    // A line of a text file that could not be parsed; reason() says why.
    class parse_error : public error {
    public:
        parse_error(const std::string& message, std::string reason) : error(message), reason_(std::move(reason)) {}
        const std::string& reason() const noexcept { return reason_; }

    private:
        std::string reason_;
    };
    class DiscontiguousError : public error {
    public:
        DiscontiguousError() : error("Memory segments were not contiguous.") {}
    };

    // A view of one segment; valid while the image lives and is not changed.
    struct Segment {
        uint32_t address;
        std::span<const uint8_t> bytes;

        uint64_t end() const { return uint64_t{address} + bytes.size(); }
    };

    // The entry point a file names, in the form the file gave it.
    struct StartAddress {
        enum class Kind {
            Segmented, // CS:IP, value = CS << 16 | IP
            Linear,    // a 32-bit address
        };
        Kind kind;
        uint32_t value;

        bool operator==(const StartAddress&) const = default;
    };

    // Output formats of save(); names are what save() accepts as specifier.
    enum class OutputFormat {
        IntelHex,
        Binary
    };

    BinaryImage() = default;

    // Readers. The name is used in messages (the path for files).
    static BinaryImage fromHexFile(const std::filesystem::path& path);
    static BinaryImage fromHex(std::istream& input, const std::string& name);
    static BinaryImage fromHex(std::span<const uint8_t> text, const std::string& name);
    static BinaryImage fromElfFile(const std::filesystem::path& path);
    static BinaryImage fromElf(std::istream& input, const std::string& name);
    static BinaryImage fromElf(std::span<const uint8_t> bytes, const std::string& name);
    // Raw bytes placed at one address.
    static BinaryImage fromBytes(std::span<const uint8_t> bytes, uint32_t address);
    // An image file opened for reading; file_error "BinaryImage access
    // error, could not open {}." if it cannot be (a directory cannot).
    static std::ifstream openFile(const std::filesystem::path& path);

    // Writers. Intel HEX: 16-byte data records, extended linear address
    // records as needed, lines ending in "\r\n". Binary: the bytes from the
    // lowest to the highest address, gaps filled with gapFill.
    void writeHex(std::ostream& output) const;
    void writeBinary(std::ostream& output, uint8_t gapFill = 0xFF) const;
    // Writes to a temporary file beside path and renames it into place, so
    // a failure never leaves a partial file. Specifiers: "hex", "ihex", "bin".
    void save(const std::filesystem::path& path, std::string_view formatSpecifier) const;
    static OutputFormat outputFormat(std::string_view formatSpecifier);

    // Building. append() returns room for size bytes at address, to be
    // written by the caller; records that continue the last one extend its
    // segment. finalize() sorts, refuses overlaps (memory_error) and merges.
    uint8_t* append(uint32_t address, size_t size);
    void append(uint32_t address, std::span<const uint8_t> bytes);
    void reserve(size_t bytes) { bytes_.reserve(bytes); }
    void setStartAddress(std::optional<StartAddress> start) { start_ = start; }
    void finalize();
    // Adds every segment of other; overlaps fail as in finalize() and leave
    // this image unchanged.
    void merge(const BinaryImage& other);

    // Reading.
    bool empty() const { return extents_.empty(); }
    size_t size() const;
    size_t segmentCount() const { return extents_.size(); }
    std::vector<Segment> segments() const;
    Segment segment(size_t index) const;
    uint32_t lowestAddress() const;  // 0 for an empty image
    uint64_t highestAddress() const; // one past the last byte; 0 for an empty image
    const std::optional<StartAddress>& startAddress() const { return start_; }

    // Exactly length bytes at address, or memory_error naming how many the
    // image holds there.
    std::vector<uint8_t> read(uint32_t address, size_t length) const;
    // Fills out with the bytes from address on, gapFill where the image has none.
    void copy(uint64_t address, std::span<uint8_t> out, uint8_t gapFill) const;
    // The bytes of a single-segment image; DiscontiguousError otherwise.
    Segment contiguous() const;

private:
    struct Extent {
        uint32_t address;
        size_t offset; // into bytes_
        size_t size;

        uint64_t end() const { return uint64_t{address} + size; }
    };

    size_t extentAt(uint64_t address) const; // first extent ending above address

    std::vector<uint8_t> bytes_;
    std::vector<Extent> extents_;
    std::optional<StartAddress> start_;
};

} // namespace HALYX
