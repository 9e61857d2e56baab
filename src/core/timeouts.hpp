#pragma once

#include "halyx.h"

namespace HALYX {

// Enumeration limit, hot-plug settle time, serial boot loader response limit
// and device reappearance limit, in milliseconds.
constexpr halyx_timeout_configuration_t kDefaultTimeouts{60000, 60, 30000, 30000};

} // namespace HALYX
