// Documents: the rendered forms of devices, core info, firmware images and versions.
#include <memory>
#include <string>

#include "core/call_guard.hpp"
#include "core/context.hpp"
#include "core/documents/device_documents.hpp"
#include "core/documents/record_documents.hpp"

using HALYX::HALYXException;

namespace {

// Renders under the guard and hands the text out; the context keeps it until
// halyx_free_document.
template <typename Input, typename Render>
halyx_errorcode_t renderDocument(halyx_context* context, uint32_t format, const Input* input, char** document,
                                 Render render, const char* function)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        HALYX::requireArgument(document, function, "document");
        auto text = std::make_unique<std::string>(render(input, format));
        char* exposed = text->data();
        *document = ctx.documents.add(std::move(text), exposed);
        return HALYX_SUCCESS;
    });
}

} // namespace

extern "C" {

HALYX_API halyx_errorcode_t halyx_util_device_as_document(halyx_context* context, uint32_t format,
                                                          const halyx_device_t* device, char** document)
{
    return renderDocument(context, format, device, document, HALYX::Documents::renderDevice,
                          "halyx_util_device_as_document");
}

HALYX_API halyx_errorcode_t halyx_util_device_list_as_document(halyx_context* context, uint32_t format,
                                                               const halyx_device_list_t* list, char** document)
{
    return renderDocument(context, format, list, document, HALYX::Documents::renderDeviceList,
                          "halyx_util_device_list_as_document");
}

HALYX_API halyx_errorcode_t halyx_util_device_core_info_as_document(halyx_context* context, uint32_t format,
                                                                    const halyx_device_core_info_t* info,
                                                                    char** document)
{
    return renderDocument(context, format, info, document, HALYX::Documents::renderCoreInfo,
                          "halyx_util_device_core_info_as_document");
}

HALYX_API halyx_errorcode_t halyx_util_version_list_as_document(halyx_context* context, uint32_t format,
                                                                const halyx_version_list_t* list, char** document)
{
    return renderDocument(context, format, list, document, HALYX::Documents::renderVersionList,
                          "halyx_util_version_list_as_document");
}

HALYX_API halyx_errorcode_t halyx_device_firmware_images_as_document(
    halyx_context* context, uint32_t format, const halyx_firmware_device_firmware_images_t* images, char** document)
{
    return renderDocument(context, format, images, document, HALYX::Documents::renderFirmwareImages,
                          "halyx_device_firmware_images_as_document");
}

HALYX_API halyx_errorcode_t halyx_free_document(halyx_context* context, char* document)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        if (document != nullptr && !ctx.documents.release(document)) {
            throw HALYXException(HALYX_ERR_UNKNOWN_HANDLE,
                                 "Could not free a document this context did not hand out (or freed already).");
        }
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_get_version_list(halyx_context* context, halyx_version_list_t** list)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        HALYX::requireArgument(list, "halyx_get_version_list", "list");
        auto view = std::make_unique<HALYX::VersionListView>(HALYX::moduleVersions());
        halyx_version_list_t* exposed = view->get();
        *list = ctx.version_lists.add(std::move(view), exposed);
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_free_version_list(halyx_context* context, halyx_version_list_t* list)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        if (list != nullptr && !ctx.version_lists.release(list)) {
            throw HALYXException(HALYX_ERR_UNKNOWN_HANDLE,
                                 "Could not free a version list this context did not hand out (or freed already).");
        }
        return HALYX_SUCCESS;
    });
}

// The version list has no document form of its own; it is rendered through
// halyx_util_version_list_as_document.
HALYX_API halyx_errorcode_t halyx_get_version_list_as_document(void)
{
    return HALYX_ERR_NOT_SUPPORTED;
}

} // extern "C"
