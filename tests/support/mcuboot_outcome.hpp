#pragma once

#include "mcuboot/mcuboot_error.hpp"

namespace halyx_test {

// The McuBootError a call fails with, or Ok.
template <typename Call>
HALYX::MCUBOOT::McuBootError outcome(Call&& call)
{
    try {
        call();
        return HALYX::MCUBOOT::McuBootError::Ok;
    } catch (const HALYX::MCUBOOT::McuBootFailure& failure) {
        return failure.error();
    }
}

} // namespace halyx_test
