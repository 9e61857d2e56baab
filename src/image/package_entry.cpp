#include "image/package_entry.hpp"

#include "core/halyx_exception.hpp"
#include "image/firmware_format.hpp"
#include "image/firmware_loader.hpp"
#include "image/zip_archive.hpp"

namespace HALYX {

PackageEntry readPackageEntry(const ZipArchive& package, const PackageManifest::Item& item,
                              const std::string& packageName)
{
    PackageEntry entry;
    entry.file = item.file();
    entry.bytes = package.read(item.file());
    entry.format = packageEntryFormat(item.file(), entry.bytes);
    uint64_t address = 0;
    if (entry.format == HALYX_FW_FORMAT_BINARY) {
        const auto loadAddress = item.number("load_address");
        if (!loadAddress) {
            throw HALYXException(HALYX_ERR_MANIFEST, "load_address key missing");
        }
        address = *loadAddress;
    }
    const auto name = packageName.empty() ? item.file() : packageName + "/" + item.file();
    entry.image = loadImageBytes(entry.bytes, entry.format, name, address);
    return entry;
}

} // namespace HALYX
