#include "image/zip_archive.hpp"

#include <algorithm>

#include <zip.h>

#include <fmt/format.h>

#include "core/logging.hpp"

namespace HALYX {
namespace {

// Entries larger than this are refused rather than exhausting memory.
constexpr uint64_t kEntryLimit = uint64_t{1} << 30;

std::string describe(int code)
{
    zip_error_t error;
    zip_error_init_with_code(&error, code);
    std::string text = zip_error_strerror(&error);
    zip_error_fini(&error);
    return text;
}

} // namespace

struct ZipArchive::State {
    std::vector<uint8_t> buffer; // what a buffer-backed archive reads from
    zip_t* zip = nullptr;
    std::vector<std::string> names;

    ~State()
    {
        if (zip != nullptr) {
            // Nothing was changed, so there is nothing to write back.
            zip_discard(zip);
        }
    }

    void listEntries()
    {
        const zip_int64_t count = zip_get_num_entries(zip, 0);
        names.reserve(static_cast<size_t>(std::max<zip_int64_t>(count, 0)));
        for (zip_int64_t i = 0; i < count; ++i) {
            zip_stat_t stat;
            const bool named = zip_stat_index(zip, static_cast<zip_uint64_t>(i), 0, &stat) == 0 &&
                               (stat.valid & ZIP_STAT_NAME) != 0 && stat.name != nullptr;
            names.emplace_back(named ? stat.name : "");
        }
    }
};

ZipArchive::ZipArchive(std::unique_ptr<State> state) : state_(std::move(state))
{
}
ZipArchive::ZipArchive(ZipArchive&&) noexcept = default;
ZipArchive& ZipArchive::operator=(ZipArchive&&) noexcept = default;
ZipArchive::~ZipArchive() = default;

ZipArchive ZipArchive::open(const std::filesystem::path& path)
{
    auto state = std::make_unique<State>();
    int code = 0;
    state->zip = zip_open(path.c_str(), ZIP_RDONLY, &code);
    if (state->zip == nullptr) {
        Log::debug("libzip cannot open {}: {}", path.string(), describe(code));
        throw OpenError(fmt::format("unable to open zip file: {}", path.string()), code);
    }
    state->listEntries();
    return ZipArchive(std::move(state));
}

ZipArchive ZipArchive::fromBuffer(std::span<const uint8_t> bytes)
{
    auto state = std::make_unique<State>();
    state->buffer.assign(bytes.begin(), bytes.end());
    zip_error_t error;
    zip_error_init(&error);
    zip_source_t* source = zip_source_buffer_create(state->buffer.data(), state->buffer.size(), 0, &error);
    if (source != nullptr) {
        state->zip = zip_open_from_source(source, ZIP_RDONLY, &error);
        if (state->zip == nullptr) {
            zip_source_free(source);
        }
    }
    const int code = zip_error_code_zip(&error);
    zip_error_fini(&error);
    if (state->zip == nullptr) {
        Log::debug("libzip cannot open the zip buffer: {}", describe(code));
        throw OpenError("unable to open zip file buffer", code);
    }
    state->listEntries();
    return ZipArchive(std::move(state));
}

const std::vector<std::string>& ZipArchive::entries() const
{
    return state_->names;
}

std::optional<size_t> ZipArchive::find(std::string_view name) const
{
    const auto& names = state_->names;
    const auto found =
        std::ranges::find_if(names, [&](const std::string& entry) { return entry.find(name) != std::string::npos; });
    if (found == names.end()) {
        return std::nullopt;
    }
    return static_cast<size_t>(found - names.begin());
}

std::vector<uint8_t> ZipArchive::read(std::string_view name) const
{
    const auto index = find(name);
    if (!index) {
        throw HALYXException(HALYX_ERR_NOT_FOUND, fmt::format("file not found in zip: {}", name));
    }
    auto failed = [&] { return HALYXException(HALYX_ERR_ARCHIVE, fmt::format("file decompression failed: {}", name)); };
    zip_file_t* file = zip_fopen_index(state_->zip, *index, 0);
    if (file == nullptr) {
        Log::debug("libzip cannot open {}: {}", name, zip_strerror(state_->zip));
        throw failed();
    }
    // Grown as data arrives: the sizes in the directory are not trusted.
    std::vector<uint8_t> bytes;
    std::vector<uint8_t> chunk(64 * 1024);
    zip_int64_t got = 0;
    while ((got = zip_fread(file, chunk.data(), chunk.size())) > 0) {
        if (bytes.size() + static_cast<uint64_t>(got) > kEntryLimit) {
            got = -1;
            break;
        }
        bytes.insert(bytes.end(), chunk.begin(), chunk.begin() + got);
    }
    if (got < 0) {
        Log::debug("libzip cannot extract {}: {}", name, zip_file_strerror(file));
    }
    zip_fclose(file);
    if (got < 0) {
        throw failed();
    }
    return bytes;
}

} // namespace HALYX
