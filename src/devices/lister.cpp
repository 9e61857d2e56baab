#include "devices/lister.hpp"

#include "core/halyx_exception.hpp"

namespace HALYX {

std::vector<event_object> AsyncLister::describe(DeviceAccess&, const std::vector<uint64_t>&)
{
    return {};
}

bool AsyncLister::dfuTriggerTransfer(const std::string&, const DfuTriggerTransfer&, std::vector<uint8_t>&)
{
    throw HALYXException(HALYX_ERR_NOT_SUPPORTED, "This lister has no USB devices to send control transfers to.");
}

} // namespace HALYX
