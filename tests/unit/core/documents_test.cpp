// Documents: formats, keys and errors through the C boundary.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "devices/device_view.hpp"
#include "test_context.hpp"

using halyx_test::lastError;
using halyx_test::TestContext;
using nlohmann::json;

namespace {

HALYX::Device kit(uint64_t id, std::optional<std::string> serial, std::vector<std::string> ports)
{
    HALYX::Device device;
    device.id = id;
    device.serialNumber = std::move(serial);
    device.traits = {{"serialPorts", !ports.empty()}, {"jlink", false}};
    for (size_t i = 0; i < ports.size(); ++i) {
        HALYX::SerialPort port;
        port.comName = ports[i];
        port.vcom = static_cast<uint32_t>(i);
        device.serialPorts.push_back(port);
    }
    return device;
}

// Renders and frees; the code, and the text on success.
std::pair<halyx_errorcode_t, std::string> render(halyx_context* context, uint32_t format,
                                                 const halyx_device_list_t* list)
{
    char* text = nullptr;
    const auto code = halyx_util_device_list_as_document(context, format, list, &text);
    std::string result = text != nullptr ? text : "";
    EXPECT_EQ(halyx_free_document(context, text), HALYX_SUCCESS);
    return {code, result};
}

} // namespace

TEST(Documents, DeviceListCsvHeaderFollowsTheReversedNames)
{
    TestContext context;
    HALYX::DeviceListView list({kit(1, "683011111", {"/dev/ttyACM0", "/dev/ttyACM1"}), kit(2, std::nullopt, {})});

    const auto csv = render(context, HALYX_DOC_FORMAT_CSV, list.get());
    EXPECT_EQ(csv.first, HALYX_SUCCESS);
    EXPECT_EQ(csv.second, "683011111;/dev/ttyACM0,/dev/ttyACM1\n;\n");

    const auto with_header = render(context, HALYX_DOC_FORMAT_CSV_WO_HEADER, list.get());
    EXPECT_EQ(with_header.second, "serialnumber;serialports\n683011111;/dev/ttyACM0,/dev/ttyACM1\n;\n");

    HALYX::DeviceListView empty({});
    EXPECT_EQ(render(context, HALYX_DOC_FORMAT_CSV, empty.get()).second, "");
    EXPECT_EQ(render(context, HALYX_DOC_FORMAT_CSV_WO_HEADER, empty.get()).second, "serialnumber;serialports\n");
}

TEST(Documents, DeviceListJsonCompactAndPretty)
{
    TestContext context;
    HALYX::DeviceListView list({kit(7, "A", {"/dev/ttyACM3"})});
    const auto compact = render(context, HALYX_DOC_FORMAT_JSON, list.get());
    ASSERT_EQ(compact.first, HALYX_SUCCESS);
    EXPECT_EQ(compact.second.find('\n'), std::string::npos);
    const auto parsed = json::parse(compact.second);
    ASSERT_EQ(parsed.at("devices").size(), 1u);
    EXPECT_EQ(parsed["devices"][0]["id"], 7);
    EXPECT_EQ(parsed["devices"][0]["serialPorts"][0]["path"], "/dev/ttyACM3");

    const auto pretty = render(context, HALYX_DOC_FORMAT_JSON_PRETTY, list.get());
    EXPECT_EQ(json::parse(pretty.second), parsed);
    EXPECT_EQ(pretty.second.substr(0, 17), "{\n    \"devices\": ");
}

TEST(Documents, RefusedFormatsAndNullInputs)
{
    TestContext context;
    HALYX::DeviceListView list({kit(1, "A", {})});
    char* text = nullptr;

    EXPECT_EQ(halyx_util_device_list_as_document(context, HALYX_DOC_FORMAT_TEXT, list.get(), &text),
              HALYX_ERR_NOT_SUPPORTED);
    EXPECT_EQ(lastError(context).message, "HALYX_DOC_FORMAT_TEXT not supported yet.");
    EXPECT_EQ(halyx_util_device_list_as_document(context, 5, list.get(), &text), HALYX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(lastError(context).message, "Unknown enum value to convert to text");
    EXPECT_EQ(halyx_util_device_list_as_document(context, HALYX_DOC_FORMAT_JSON, nullptr, &text),
              HALYX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(lastError(context).message, "device_list must have a valid value");

    const halyx_device_core_info_t info{};
    EXPECT_EQ(halyx_util_device_core_info_as_document(context, HALYX_DOC_FORMAT_CSV, &info, &text),
              HALYX_ERR_NOT_SUPPORTED);
    EXPECT_EQ(lastError(context).message, "HALYX_DOC_FORMAT_CSV not supported yet.");
    EXPECT_EQ(halyx_util_device_core_info_as_document(context, HALYX_DOC_FORMAT_JSON, nullptr, &text),
              HALYX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(lastError(context).message, "Device core info pointer is nullptr.");
    EXPECT_EQ(halyx_util_device_as_document(context, HALYX_DOC_FORMAT_JSON, nullptr, &text),
              HALYX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(lastError(context).message, "device must have a valid value");
    EXPECT_EQ(halyx_util_device_as_document(context, HALYX_DOC_FORMAT_CSV_WO_HEADER, list.get()->devices, &text),
              HALYX_ERR_NOT_SUPPORTED);
    EXPECT_EQ(lastError(context).message, "HALYX_DOC_FORMAT_CSV_WO_HEADER not supported yet.");
    EXPECT_EQ(halyx_device_firmware_images_as_document(context, HALYX_DOC_FORMAT_JSON, nullptr, &text),
              HALYX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(lastError(context).message, "images info pointer is nullptr.");
    EXPECT_EQ(halyx_util_version_list_as_document(context, HALYX_DOC_FORMAT_JSON, nullptr, &text),
              HALYX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(lastError(context).message, "List is nullptr.");
    EXPECT_EQ(text, nullptr);

    // Only what this context handed out can be freed, and only once.
    char foreign[] = "not ours";
    EXPECT_EQ(halyx_free_document(context, foreign), HALYX_ERR_UNKNOWN_HANDLE);
    ASSERT_EQ(halyx_util_device_as_document(context, HALYX_DOC_FORMAT_JSON, list.get()->devices, &text), HALYX_SUCCESS);
    EXPECT_EQ(halyx_free_document(context, text), HALYX_SUCCESS);
    EXPECT_EQ(halyx_free_document(context, text), HALYX_ERR_UNKNOWN_HANDLE);
    EXPECT_EQ(halyx_free_document(context, nullptr), HALYX_SUCCESS);
}

// A record the caller built that claims more than it holds is refused alike
// by every renderer, never read past.
TEST(Documents, CallerBuiltRecordsThatClaimMoreThanTheyHold)
{
    TestContext context;
    halyx_device_t device{};
    device.id = 7;
    device.serial_number = "CALLER";
    device.serial_port_count = 2; // but no ports
    halyx_device_list_t list{&device, 1};
    char* text = nullptr;
    for (const auto format : {HALYX_DOC_FORMAT_JSON, HALYX_DOC_FORMAT_CSV, HALYX_DOC_FORMAT_CSV_WO_HEADER}) {
        EXPECT_EQ(halyx_util_device_list_as_document(context, format, &list, &text), HALYX_ERR_INVALID_ARGUMENT)
            << format;
        EXPECT_EQ(lastError(context).message, "device 7's serial_ports has 2 entries but no array");
    }
    EXPECT_EQ(halyx_util_device_as_document(context, HALYX_DOC_FORMAT_JSON, &device, &text),
              HALYX_ERR_INVALID_ARGUMENT);
    device.serial_port_count = 0;
    device.trait_count = 3;
    EXPECT_EQ(halyx_util_device_list_as_document(context, HALYX_DOC_FORMAT_CSV, &list, &text),
              HALYX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(lastError(context).message, "device 7's traits has 3 entries but no array");
    EXPECT_EQ(text, nullptr);

    // Consistent, it renders: the fields are what there is without "json".
    device.trait_count = 0;
    ASSERT_EQ(halyx_util_device_list_as_document(context, HALYX_DOC_FORMAT_CSV, &list, &text), HALYX_SUCCESS);
    EXPECT_STREQ(text, "CALLER;\n");
    halyx_free_document(context, text);
}

TEST(Documents, CoreInfoAndFirmwareImages)
{
    TestContext context;
    halyx_device_core_info_t info{0,          4096,   1048576, 0x10001000, 4096,      true, 0x00800000,
                                  0x20000000, 262144, false,   0x12000000, 0x8000000, 18};
    char* text = nullptr;
    ASSERT_EQ(halyx_util_device_core_info_as_document(context, HALYX_DOC_FORMAT_JSON, &info, &text), HALYX_SUCCESS);
    const auto core = json::parse(text);
    halyx_free_document(context, text);
    EXPECT_EQ(core, json::parse(R"({"codeAddress":0,"codePageSize":4096,"codeSize":1048576,"uicrAddress":268439552,
        "infoPageSize":4096,"codeRamPresent":true,"codeRamAddress":8388608,"dataRamAddress":536870912,
        "ramSize":262144,"qspiPresent":false,"xipAddress":301989888,"xipSize":134217728,"pinResetPin":18})"));

    const halyx_image_info_t images[] = {
        {HALYX_IMAGE_TYPE_BOOTLOADER, HALYX_IMAGE_LOCATION_INTERNAL_FLASH, 0, 0x8000, HALYX_BOOTLOADER_TYPE_MCUBOOT,
         "1.2.3"},
        {77, HALYX_IMAGE_LOCATION_EXTERNAL_FLASH, 0x10000, 0x1000, 99, nullptr},
    };
    const halyx_firmware_device_firmware_images_t list{images, 2};
    ASSERT_EQ(halyx_device_firmware_images_as_document(context, HALYX_DOC_FORMAT_JSON_PRETTY, &list, &text),
              HALYX_SUCCESS);
    const auto found = json::parse(text);
    halyx_free_document(context, text);
    ASSERT_EQ(found.at("imageInfoList").size(), 2u);
    EXPECT_EQ(found["imageInfoList"][0]["imageType"], "HALYX_IMAGE_TYPE_BOOTLOADER");
    EXPECT_EQ(found["imageInfoList"][0]["bootloaderType"], "HALYX_BOOTLOADER_TYPE_MCUBOOT");
    EXPECT_EQ(found["imageInfoList"][0]["size"], 0x8000);
    EXPECT_EQ(found["imageInfoList"][0]["version"], "1.2.3");
    EXPECT_EQ(found["imageInfoList"][1]["imageType"], "HALYX_IMAGE_TYPE_UNKNOWN");
    EXPECT_EQ(found["imageInfoList"][1]["bootloaderType"], "HALYX_BOOTLOADER_TYPE_UNKNOWN");
    EXPECT_FALSE(found["imageInfoList"][1].contains("version"));
}

TEST(Documents, VersionListRendersEveryFormatAndRefusesBadOnes)
{
    TestContext context;
    halyx_version_list_t* versions = nullptr;
    ASSERT_EQ(halyx_get_version_list(context, &versions), HALYX_SUCCESS);
    ASSERT_GE(versions->count, 1u);
    EXPECT_STREQ(versions->modules[0].module_name, "halyx");
    char* text = nullptr;
    ASSERT_EQ(halyx_util_version_list_as_document(context, HALYX_DOC_FORMAT_JSON, versions, &text), HALYX_SUCCESS);
    const auto own = json::parse(text).at("modules").at(0);
    halyx_free_document(context, text);
    EXPECT_EQ(own["moduleName"], "halyx");
    EXPECT_EQ(own["versionFormat"], "semantic");
    EXPECT_EQ(own["version"]["major"], versions->modules[0].version.semantic.major);
    EXPECT_TRUE(own["expectedVersion"].is_null());
    EXPECT_EQ(halyx_free_version_list(context, versions), HALYX_SUCCESS);
    EXPECT_EQ(halyx_free_version_list(context, versions), HALYX_ERR_UNKNOWN_HANDLE);

    // A list the application built: every format, identifiers and dependencies.
    const halyx_version_identifier_t pre[] = {{HALYX_VERSION_IDENTIFIER_STRING, "rc", 0},
                                              {HALYX_VERSION_IDENTIFIER_NUMERIC, nullptr, 2}};
    halyx_version_t semantic{};
    semantic.format = HALYX_VERSION_FORMAT_SEMANTIC;
    semantic.semantic = {3, 1, 4, pre, 2, nullptr, 0};
    halyx_version_t incremental{};
    incremental.format = HALYX_VERSION_FORMAT_INCREMENTAL;
    incremental.incremental = 42;
    halyx_version_t plain{};
    plain.format = HALYX_VERSION_FORMAT_STRING;
    plain.string = "V7.94e";
    const halyx_module_version_t dependency{"probe", "probe library", plain, &plain, nullptr, 0};
    halyx_module_version_t modules[] = {{"app", "an application", semantic, &incremental, &dependency, 1}};
    halyx_version_list_t list{modules, 1};
    ASSERT_EQ(halyx_util_version_list_as_document(context, HALYX_DOC_FORMAT_JSON, &list, &text), HALYX_SUCCESS);
    EXPECT_EQ(json::parse(text), json::parse(R"({"modules":[{"moduleName":"app","description":"an application",
        "versionFormat":"semantic","version":{"major":3,"minor":1,"patch":4,"pre":["rc",2],"metadata":[]},
        "expectedVersion":42,"dependencies":[{"moduleName":"probe","description":"probe library",
        "versionFormat":"string","version":"V7.94e","expectedVersion":"V7.94e","dependencies":[]}]}]})"));
    halyx_free_document(context, text);

    halyx_version_identifier_t bad_metadata[] = {{9, "x", 0}};
    modules[0].version.semantic.metadata = bad_metadata;
    modules[0].version.semantic.metadata_count = 1;
    EXPECT_EQ(halyx_util_version_list_as_document(context, HALYX_DOC_FORMAT_JSON, &list, &text),
              HALYX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(lastError(context).message, "Unable to convert identifier type for version metadata.");
    modules[0].version.format = 3;
    EXPECT_EQ(halyx_util_version_list_as_document(context, HALYX_DOC_FORMAT_JSON, &list, &text),
              HALYX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(lastError(context).message, "Unable to convert version format.");
    EXPECT_EQ(halyx_util_version_list_as_document(context, HALYX_DOC_FORMAT_CSV, &list, &text),
              HALYX_ERR_NOT_SUPPORTED);
}
