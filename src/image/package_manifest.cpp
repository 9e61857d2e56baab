#include "image/package_manifest.hpp"

#include <charconv>

#include <fmt/format.h>

#include "core/halyx_exception.hpp"
#include "image/zip_archive.hpp"

namespace HALYX {
namespace {

constexpr const char* kManifestName = "manifest.json";

HALYXException manifestError(std::string message)
{
    return HALYXException(HALYX_ERR_MANIFEST, std::move(message));
}

std::optional<uint64_t> parseUnsigned(std::string_view text)
{
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        text.remove_prefix(2);
        base = 16;
    }
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

} // namespace

std::optional<uint64_t> PackageManifest::Item::number(std::string_view key) const
{
    const auto it = fields_.find(key);
    if (it == fields_.end() || it->is_null()) {
        return std::nullopt;
    }
    std::optional<uint64_t> value;
    if (it->is_number_unsigned()) {
        value = it->get<uint64_t>();
    } else if (it->is_string()) {
        value = parseUnsigned(it->get_ref<const std::string&>());
    }
    if (!value) {
        throw manifestError(
            fmt::format("\"{}\" of manifest item {} is not an unsigned number: {}", key, file_, it->dump()));
    }
    return value;
}

std::optional<std::string> PackageManifest::Item::text(std::string_view key) const
{
    const auto it = fields_.find(key);
    if (it == fields_.end() || it->is_null()) {
        return std::nullopt;
    }
    return it->is_string() ? it->get<std::string>() : it->dump();
}

PackageManifest PackageManifest::parse(std::string_view text)
{
    PackageManifest manifest;
    manifest.document_ = nlohmann::json::parse(text, nullptr, false);
    if (manifest.document_.is_discarded()) {
        throw manifestError(fmt::format("{} is not valid JSON", kManifestName));
    }
    const auto files = manifest.document_.is_object() ? manifest.document_.find("files") : manifest.document_.end();
    if (!manifest.document_.is_object() || files == manifest.document_.end() || !files->is_array()) {
        throw manifestError("files key missing");
    }
    for (const auto& item : *files) {
        const auto file = item.is_object() ? item.find("file") : item.end();
        if (!item.is_object() || file == item.end() || !file->is_string() ||
            file->get_ref<const std::string&>().empty()) {
            throw manifestError("file field missing from json manifest item");
        }
        manifest.files_.emplace_back(file->get<std::string>(), item);
    }
    return manifest;
}

PackageManifest PackageManifest::read(const ZipArchive& package)
{
    const auto bytes = package.read(kManifestName);
    return parse(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

} // namespace HALYX
