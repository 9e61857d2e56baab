#include "core/documents/record_documents.hpp"

#include <array>

#include "core/documents/document_format.hpp"

namespace HALYX::Documents {
namespace {

using nlohmann::json;

template <size_t N>
const char* nameOf(const std::array<const char*, N>& names, uint32_t value)
{
    // The last name of each table is its "unknown".
    return value < N ? names[value] : names[N - 1];
}

constexpr std::array<const char*, 6> kImageTypes{"HALYX_IMAGE_TYPE_APPLICATION", "HALYX_IMAGE_TYPE_BOOTLOADER",
                                                 "HALYX_IMAGE_TYPE_RADIOSTACK",  "HALYX_IMAGE_TYPE_OPERATIVE_SYSTEM",
                                                 "HALYX_IMAGE_TYPE_GENERIC",     "HALYX_IMAGE_TYPE_UNKNOWN"};
constexpr std::array<const char*, 5> kBootloaderTypes{"HALYX_BOOTLOADER_TYPE_NONE", "HALYX_BOOTLOADER_TYPE_MCUBOOT",
                                                      "HALYX_BOOTLOADER_TYPE_SDFU", "HALYX_BOOTLOADER_TYPE_B0",
                                                      "HALYX_BOOTLOADER_TYPE_UNKNOWN"};

json identifiers(const halyx_version_identifier_t* list, size_t count, const char* part)
{
    json out = json::array();
    for (const auto& identifier : itemsOf(list, count, std::string("version ") + part)) {
        if (identifier.type == HALYX_VERSION_IDENTIFIER_STRING) {
            out.push_back(identifier.text != nullptr ? identifier.text : "");
        } else if (identifier.type == HALYX_VERSION_IDENTIFIER_NUMERIC) {
            out.push_back(identifier.number);
        } else {
            throw HALYXException(HALYX_ERR_INVALID_ARGUMENT,
                                 std::string("Unable to convert identifier type for version ") + part + ".");
        }
    }
    return out;
}

const char* versionFormatName(uint32_t format)
{
    switch (format) {
    case HALYX_VERSION_FORMAT_STRING:
        return "string";
    case HALYX_VERSION_FORMAT_INCREMENTAL:
        return "incremental";
    case HALYX_VERSION_FORMAT_SEMANTIC:
        return "semantic";
    default:
        throw HALYXException(HALYX_ERR_INVALID_ARGUMENT, "Unable to convert version format.");
    }
}

json versionValue(const halyx_version_t& version)
{
    versionFormatName(version.format);
    if (version.format == HALYX_VERSION_FORMAT_STRING) {
        return version.string != nullptr ? version.string : "";
    }
    if (version.format == HALYX_VERSION_FORMAT_INCREMENTAL) {
        return version.incremental;
    }
    const auto& semantic = version.semantic;
    return json{{"major", semantic.major},
                {"minor", semantic.minor},
                {"patch", semantic.patch},
                {"pre", identifiers(semantic.pre, semantic.pre_count, "pre")},
                {"metadata", identifiers(semantic.metadata, semantic.metadata_count, "metadata")}};
}

json moduleJson(const halyx_module_version_t& module)
{
    json dependencies = json::array();
    for (const auto& dependency : itemsOf(module.dependencies, module.dependency_count, "module dependencies")) {
        dependencies.push_back(moduleJson(dependency));
    }
    return json{{"moduleName", module.module_name != nullptr ? module.module_name : ""},
                {"description", module.description != nullptr ? module.description : ""},
                {"versionFormat", versionFormatName(module.version.format)},
                {"version", versionValue(module.version)},
                {"expectedVersion",
                 module.expected_version != nullptr ? versionValue(*module.expected_version) : json(nullptr)},
                {"dependencies", std::move(dependencies)}};
}

} // namespace

std::string renderCoreInfo(const halyx_device_core_info_t* info, uint32_t format)
{
    return renderRecord(info, "Device core info pointer is nullptr.", format, [](const auto& core) {
        return json{{"codeAddress", core.codeAddress},
                    {"codePageSize", core.codePageSize},
                    {"codeSize", core.codeSize},
                    {"uicrAddress", core.uicrAddress},
                    {"infoPageSize", core.infoPageSize},
                    {"codeRamPresent", core.codeRamPresent},
                    {"codeRamAddress", core.codeRamAddress},
                    {"dataRamAddress", core.dataRamAddress},
                    {"ramSize", core.ramSize},
                    {"qspiPresent", core.qspiPresent},
                    {"xipAddress", core.xipAddress},
                    {"xipSize", core.xipSize},
                    {"pinResetPin", core.pinResetPin}};
    });
}

std::string renderFirmwareImages(const halyx_firmware_device_firmware_images_t* images, uint32_t format)
{
    return renderRecord(images, "images info pointer is nullptr.", format, [](const auto& found) {
        json list = json::array();
        for (const auto& image : itemsOf(found.images, found.count, "images info")) {
            json entry{{"imageType", nameOf(kImageTypes, image.image_type)},
                       {"imageLocation", image.image_location},
                       {"address", image.address},
                       {"size", image.size},
                       {"bootloaderType", nameOf(kBootloaderTypes, image.bootloader_type)}};
            if (image.version != nullptr) {
                entry["version"] = image.version;
            }
            list.push_back(std::move(entry));
        }
        return json{{"imageInfoList", std::move(list)}};
    });
}

std::string renderVersionList(const halyx_version_list_t* list, uint32_t format)
{
    return renderRecord(list, "List is nullptr.", format, [](const auto& versions) {
        json modules = json::array();
        for (const auto& module : itemsOf(versions.modules, versions.count, "version list")) {
            modules.push_back(moduleJson(module));
        }
        return json{{"modules", std::move(modules)}};
    });
}

} // namespace HALYX::Documents
