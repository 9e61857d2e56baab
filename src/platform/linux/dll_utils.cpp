#include "platform/linux/dll_utils.hpp"

#include <dlfcn.h>

#include <fmt/format.h>

#include "core/halyx_exception.hpp"
#include "core/logging.hpp"

namespace HALYX::Linux {
namespace {

// Any function of the core lives in the same file as halyx_create_context:
// the core is linked into libhalyx.so (or into the program that embeds it).
void anchor()
{
}

} // namespace

std::filesystem::path DLLUtils::libraryPath() const
{
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&anchor), &info) == 0) {
        throw HALYXException(HALYX_ERR_GENERAL,
                             "Fatal error. Unable to get module handle of function when finding DLL path.");
    }
    if (info.dli_fname == nullptr || info.dli_fname[0] == '\0') {
        throw HALYXException(HALYX_ERR_GENERAL, "Unable to get DLL path of the library.");
    }
    std::error_code error;
    auto path = std::filesystem::canonical(info.dli_fname, error);
    return error ? std::filesystem::path(info.dli_fname) : path;
}

std::string DLLUtils::libraryFileName(const std::string& base_name) const
{
    return fmt::format("lib{}.so", base_name);
}

DLLUtils::Handle DLLUtils::loadLibrary(const std::filesystem::path& path) const
{
    Handle library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* reason = dlerror();
        Log::debug("dlopen({}): {}", path.string(), reason != nullptr ? reason : "unknown reason");
        throw HALYXException(HALYX_ERR_INVALID_ARGUMENT, fmt::format("Unable to load DLL: {}", path.string()));
    }
    return library;
}

DLLUtils::Function DLLUtils::functionPointer(Handle library, const std::string& name) const
{
    dlerror();
    Function function = library != nullptr ? dlsym(library, name.c_str()) : nullptr;
    if (function == nullptr) {
        throw HALYXException(HALYX_ERR_INVALID_ARGUMENT, fmt::format("Unable to get function pointer: {}", name));
    }
    return function;
}

void DLLUtils::freeLibrary(Handle library) const
{
    if (library != nullptr) {
        dlclose(library);
    }
}

} // namespace HALYX::Linux
