#pragma once

#include <mutex>
#include <string>

#include "halyx.h"

namespace HALYX {

// The code and message of a context's most recent failure. A success never
// clears it; concurrent failures overwrite each other (last writer wins).
class LastError {
public:
    struct Snapshot {
        halyx_errorcode_t code = HALYX_SUCCESS;
        std::string message;
    };

    void store(halyx_errorcode_t code, std::string message);
    Snapshot read() const;

private:
    mutable std::mutex mutex_;
    Snapshot record_;
};

} // namespace HALYX
