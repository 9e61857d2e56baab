#pragma once

#include <filesystem>
#include <string>

namespace HALYX {

// Finds the library's own file and loads sibling libraries from beside it,
// so that it works wherever it is installed. The order of the virtual
// operations is part of the design.
class DLLUtils {
public:
    using Handle = void*;
    using Function = void*;

    // The full path of the file that holds halyx_create_context.
    virtual std::filesystem::path libraryPath() const = 0;
    // The host's file name for a library of this base name.
    virtual std::string libraryFileName(const std::string& base_name) const = 0;
    // Throws 50 "Unable to load DLL: {path}".
    virtual Handle loadLibrary(const std::filesystem::path& path) const = 0;
    // Throws 50 "Unable to get function pointer: {name}".
    virtual Function functionPointer(Handle library, const std::string& name) const = 0;
    virtual void freeLibrary(Handle library) const = 0;
    virtual ~DLLUtils() = default;
};

} // namespace HALYX
