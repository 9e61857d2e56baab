// Package reading: the input as a zip package of MCUboot images and as the
// text of a manifest. Failures must be the library's own errors.
#include <string_view>

#include "core/halyx_exception.hpp"
#include "image/binary_image.hpp"
#include "image/package_manifest.hpp"
#include "mcuboot/multi_image_file.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    try {
        auto package = HALYX::MCUBOOT::MultiImageFile::fromBuffer(std::span(data, size));
        for (auto& image : package.images()) {
            while (!image.image->nextChunk(4096).bytes.empty()) {
            }
        }
    } catch (const HALYX::HALYXException&) {
    } catch (const HALYX::BinaryImage::error&) {
    }
    try {
        const auto manifest =
            HALYX::PackageManifest::parse(std::string_view(reinterpret_cast<const char*>(data), size));
        for (const auto& item : manifest.files()) {
            for (const char* key : {"load_address", "image_index", "modtime"}) {
                (void)item.number(key);
            }
            (void)item.text("version_MCUBOOT");
        }
    } catch (const HALYX::HALYXException&) {
    }
    return 0;
}
