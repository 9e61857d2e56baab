// Documents: the rendered forms of devices, core info, firmware images and versions.
#include "halyx.h"

extern "C" {

// The version list has no document form of its own; it is rendered through
// halyx_util_version_list_as_document.
HALYX_API halyx_errorcode_t halyx_get_version_list_as_document(void)
{
    return HALYX_ERR_NOT_SUPPORTED;
}

} // extern "C"
