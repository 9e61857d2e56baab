#include "core/last_error.hpp"

namespace HALYX {

void LastError::store(halyx_errorcode_t code, std::string message)
{
    std::lock_guard lock(mutex_);
    record_.code = code;
    record_.message = std::move(message);
}

LastError::Snapshot LastError::read() const
{
    std::lock_guard lock(mutex_);
    return record_;
}

} // namespace HALYX
