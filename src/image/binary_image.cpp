#include "image/binary_image.hpp"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <random>
#include <system_error>

#include <fmt/format.h>

#include "image/intel_hex_writer.hpp"

namespace HALYX {
namespace {

constexpr uint64_t kAddressSpace = uint64_t{1} << 32;

std::string lowercase(std::string_view text)
{
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c); });
    return out;
}

std::filesystem::path temporaryBeside(const std::filesystem::path& path)
{
    std::random_device seed;
    auto name = path.filename();
    name += fmt::format(".tmp-{:08x}", seed());
    return path.parent_path() / name;
}

} // namespace

BinaryImage BinaryImage::fromBytes(std::span<const uint8_t> bytes, uint32_t address)
{
    BinaryImage image;
    image.append(address, bytes);
    image.finalize();
    return image;
}

std::ifstream BinaryImage::openFile(const std::filesystem::path& path)
{
    std::error_code error;
    std::ifstream input;
    if (!std::filesystem::is_directory(path, error)) {
        input.open(path, std::ios::binary);
    }
    if (!input.is_open()) {
        throw file_error(fmt::format("BinaryImage access error, could not open {}.", path.string()));
    }
    return input;
}

uint8_t* BinaryImage::append(uint32_t address, size_t size)
{
    if (uint64_t{address} + size > kAddressSpace) {
        throw memory_error(
            fmt::format("{} bytes at address 0x{:08X} run past the end of the 32-bit address space.", size, address));
    }
    const size_t offset = bytes_.size();
    if (!extents_.empty() && extents_.back().end() == address &&
        extents_.back().offset + extents_.back().size == offset) {
        extents_.back().size += size;
    } else if (size > 0) {
        extents_.push_back({address, offset, size});
    }
    bytes_.resize(offset + size);
    return bytes_.data() + offset;
}

void BinaryImage::append(uint32_t address, std::span<const uint8_t> bytes)
{
    uint8_t* target = append(address, bytes.size());
    if (!bytes.empty()) {
        std::memcpy(target, bytes.data(), bytes.size());
    }
}

void BinaryImage::finalize()
{
    if (extents_.empty()) {
        return;
    }
    auto byAddress = [](const Extent& a, const Extent& b) { return a.address < b.address; };
    if (!std::is_sorted(extents_.begin(), extents_.end(), byAddress)) {
        std::stable_sort(extents_.begin(), extents_.end(), byAddress);
    }
    for (size_t i = 1; i < extents_.size(); ++i) {
        if (extents_[i].address < extents_[i - 1].end()) {
            throw memory_error(fmt::format("Overlapping segments detected at address 0x{:08X}.", extents_[i].address));
        }
    }

    // Records that arrived out of address order: lay the bytes out again in
    // address order, once, so that touching segments can share storage.
    const bool inOrder = std::is_sorted(extents_.begin(), extents_.end(),
                                        [](const Extent& a, const Extent& b) { return a.offset < b.offset; });
    if (!inOrder) {
        std::vector<uint8_t> ordered;
        ordered.reserve(bytes_.size());
        for (auto& extent : extents_) {
            const size_t offset = ordered.size();
            ordered.insert(ordered.end(), bytes_.begin() + static_cast<ptrdiff_t>(extent.offset),
                           bytes_.begin() + static_cast<ptrdiff_t>(extent.offset + extent.size));
            extent.offset = offset;
        }
        bytes_ = std::move(ordered);
    }

    std::vector<Extent> merged;
    merged.reserve(extents_.size());
    for (const auto& extent : extents_) {
        if (!merged.empty() && merged.back().end() == extent.address) {
            merged.back().size += extent.size;
        } else {
            merged.push_back(extent);
        }
    }
    extents_ = std::move(merged);
}

void BinaryImage::merge(const BinaryImage& other)
{
    // Built aside, so that a refused merge leaves this image as it was.
    BinaryImage combined = *this;
    for (const auto& extent : other.extents_) {
        combined.append(extent.address, std::span(other.bytes_).subspan(extent.offset, extent.size));
    }
    if (!combined.start_) {
        combined.start_ = other.start_;
    }
    combined.finalize();
    *this = std::move(combined);
}

size_t BinaryImage::size() const
{
    return bytes_.size();
}

BinaryImage::Segment BinaryImage::segment(size_t index) const
{
    const Extent& extent = extents_.at(index);
    return {extent.address, std::span(bytes_).subspan(extent.offset, extent.size)};
}

std::vector<BinaryImage::Segment> BinaryImage::segments() const
{
    std::vector<Segment> out;
    out.reserve(extents_.size());
    for (size_t i = 0; i < extents_.size(); ++i) {
        out.push_back(segment(i));
    }
    return out;
}

uint32_t BinaryImage::lowestAddress() const
{
    return extents_.empty() ? 0 : extents_.front().address;
}

uint64_t BinaryImage::highestAddress() const
{
    return extents_.empty() ? 0 : extents_.back().end();
}

size_t BinaryImage::extentAt(uint64_t address) const
{
    auto it = std::upper_bound(extents_.begin(), extents_.end(), address,
                               [](uint64_t a, const Extent& e) { return a < e.end(); });
    return static_cast<size_t>(it - extents_.begin());
}

std::vector<uint8_t> BinaryImage::read(uint32_t address, size_t length) const
{
    size_t available = 0;
    const size_t index = extentAt(address);
    if (index < extents_.size() && extents_[index].address <= address) {
        available = static_cast<size_t>(std::min<uint64_t>(length, extents_[index].end() - address));
    }
    if (available < length) {
        throw memory_error(fmt::format("Number of bytes read from hex file was not as expected for address=0x{:08X}. "
                                       "Expected to read: {}, but got: {}",
                                       address, length, available));
    }
    const auto& extent = extents_[index];
    const auto begin = bytes_.begin() + static_cast<ptrdiff_t>(extent.offset + (address - extent.address));
    return {begin, begin + static_cast<ptrdiff_t>(length)};
}

void BinaryImage::copy(uint64_t address, std::span<uint8_t> out, uint8_t gapFill) const
{
    size_t done = 0;
    for (size_t index = extentAt(address); done < out.size(); ++index) {
        const uint64_t at = address + done;
        if (index >= extents_.size()) {
            std::memset(out.data() + done, gapFill, out.size() - done);
            break;
        }
        const Extent& extent = extents_[index];
        if (extent.address > at) {
            const size_t gap = static_cast<size_t>(std::min<uint64_t>(extent.address - at, out.size() - done));
            std::memset(out.data() + done, gapFill, gap);
            done += gap;
            if (done == out.size()) {
                break;
            }
        }
        const uint64_t from = address + done;
        const size_t count = static_cast<size_t>(std::min<uint64_t>(extent.end() - from, out.size() - done));
        std::memcpy(out.data() + done, bytes_.data() + extent.offset + (from - extent.address), count);
        done += count;
    }
}

BinaryImage::Segment BinaryImage::contiguous() const
{
    if (extents_.size() > 1) {
        throw DiscontiguousError();
    }
    return extents_.empty() ? Segment{0, {}} : segment(0);
}

void BinaryImage::writeHex(std::ostream& output) const
{
    IntelHexWriter(output).write(*this);
}

void BinaryImage::writeBinary(std::ostream& output, uint8_t gapFill) const
{
    std::vector<uint8_t> fill;
    uint64_t at = lowestAddress();
    for (const auto& extent : extents_) {
        if (extent.address > at) {
            fill.assign(static_cast<size_t>(std::min<uint64_t>(extent.address - at, 1u << 20)), gapFill);
            for (uint64_t gap = extent.address - at; gap > 0;) {
                const size_t n = static_cast<size_t>(std::min<uint64_t>(gap, fill.size()));
                output.write(reinterpret_cast<const char*>(fill.data()), static_cast<std::streamsize>(n));
                gap -= n;
            }
        }
        output.write(reinterpret_cast<const char*>(bytes_.data() + extent.offset),
                     static_cast<std::streamsize>(extent.size));
        at = extent.end();
    }
}

BinaryImage::OutputFormat BinaryImage::outputFormat(std::string_view formatSpecifier)
{
    const std::string format = lowercase(formatSpecifier);
    if (format == "hex" || format == "ihex") {
        return OutputFormat::IntelHex;
    }
    if (format == "bin") {
        return OutputFormat::Binary;
    }
    throw format_error(fmt::format("{} was not recognized as a supported format specifier.", formatSpecifier));
}

void BinaryImage::save(const std::filesystem::path& path, std::string_view formatSpecifier) const
{
    const OutputFormat format = outputFormat(formatSpecifier);
    const auto temporary = temporaryBeside(path);
    auto discard = [&] {
        std::error_code ignored;
        std::filesystem::remove(temporary, ignored);
    };
    // Declared before the stream: the stream may flush into it when it closes.
    std::vector<char> buffer(1u << 20);
    std::ofstream output;
    output.rdbuf()->pubsetbuf(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    output.open(temporary, std::ios::binary | std::ios::trunc);
    if (!output) {
        throw file_error(fmt::format("BinaryImage access error, could not open {}.", temporary.string()));
    }
    try {
        if (format == OutputFormat::IntelHex) {
            writeHex(output);
        } else {
            writeBinary(output);
        }
    } catch (...) {
        output.close();
        discard();
        throw;
    }
    output.close();
    if (!output) {
        discard();
        throw file_error(fmt::format("Could not write {} (is the disk full?).", path.string()));
    }
    std::error_code error;
    std::filesystem::rename(temporary, path, error);
    if (error) {
        discard();
        throw file_error(fmt::format("Could not write {}: {}.", path.string(), error.message()));
    }
}

} // namespace HALYX
