#pragma once

#include "platform/dll_utils.hpp"

namespace HALYX::Linux {

// The dynamic loader: dladdr, dlopen, dlsym, dlclose; files "lib{}.so".
class DLLUtils final : public HALYX::DLLUtils {
public:
    std::filesystem::path libraryPath() const override;
    std::string libraryFileName(const std::string& base_name) const override;
    Handle loadLibrary(const std::filesystem::path& path) const override;
    Function functionPointer(Handle library, const std::string& name) const override;
    void freeLibrary(Handle library) const override;
};

} // namespace HALYX::Linux
