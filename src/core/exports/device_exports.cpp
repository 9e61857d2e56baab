// Enumeration, device copies, filter and device events.
#include <string>
#include <vector>

#include "core/call_guard.hpp"
#include "core/context.hpp"
#include "devices/device_lister.hpp"

using HALYX::HALYXException;

extern "C" {

HALYX_API halyx_errorcode_t halyx_enumerate(halyx_context* context, halyx_device_list_t** list)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        HALYX::requireArgument(list, "halyx_enumerate", "list");
        *list = ctx.lister->enumerate();
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_get_device(halyx_context* context, uint32_t device_id, halyx_device_t** device)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        HALYX::requireArgument(device, "halyx_get_device", "device");
        *device = ctx.lister->getDevice(device_id);
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_free_device(halyx_context* context, halyx_device_t* device)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        ctx.lister->freeDevice(device);
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_free_device_list(halyx_context* context, halyx_device_list_t* list)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        ctx.lister->freeDeviceList(list);
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_set_filter(halyx_context* context, const char* const* traits, size_t count)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        if (count > 0 && traits == nullptr) {
            throw HALYXException(HALYX_ERR_INVALID_ARGUMENT,
                                 "halyx_set_filter: 'traits' cannot be NULL when count > 0");
        }
        std::vector<std::string> names;
        for (size_t i = 0; i < count; ++i) {
            if (traits[i] == nullptr) {
                throw HALYXException(HALYX_ERR_INVALID_ARGUMENT, "halyx_set_filter: a trait name is NULL");
            }
            names.emplace_back(traits[i]);
        }
        ctx.lister->setFilter(std::move(names));
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_reset_filter(halyx_context* context)
{
    return HALYX::guardedCall(context, [](halyx_context& ctx) {
        ctx.lister->resetFilter();
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_register_device_event(halyx_context* context, halyx_device_event_callback_t callback,
                                                        void* user_data)
{
    return HALYX::guardedCall(context, [&](halyx_context& ctx) {
        HALYX::requireArgument(callback, "halyx_register_device_event", "callback");
        ctx.lister->registerDeviceEvent(callback, user_data);
        return HALYX_SUCCESS;
    });
}

HALYX_API halyx_errorcode_t halyx_unregister_device_event(halyx_context* context)
{
    return HALYX::guardedCall(context, [](halyx_context& ctx) {
        ctx.lister->unregisterDeviceEvent();
        return HALYX_SUCCESS;
    });
}

} // extern "C"
