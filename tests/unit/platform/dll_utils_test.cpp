#include <gtest/gtest.h>

#include <filesystem>

#include "core/halyx_exception.hpp"
#include "platform/host.hpp"

namespace {

TEST(DLLUtils, LoadsFindsAndReportsWhatIsMissing)
{
    const auto dll = HALYX::makeHostDllUtils();
    EXPECT_EQ(dll->libraryFileName("highlevelpallinor"), "libhighlevelpallinor.so");

    // The core is linked into this test program, so its own file is the program.
    const auto self = dll->libraryPath();
    EXPECT_TRUE(self.is_absolute());
    EXPECT_EQ(std::filesystem::canonical(self), std::filesystem::canonical("/proc/self/exe"));

    try {
        dll->loadLibrary("/nonexistent/libnothing.so");
        FAIL() << "loading a missing library succeeded";
    } catch (const HALYX::HALYXException& e) {
        EXPECT_EQ(e.code(), HALYX_ERR_INVALID_ARGUMENT);
        EXPECT_STREQ(e.what(), "Unable to load DLL: /nonexistent/libnothing.so");
    }

    auto* library = dll->loadLibrary("libm.so.6");
    ASSERT_NE(library, nullptr);
    using Cos = double (*)(double);
    const auto cosine = reinterpret_cast<Cos>(dll->functionPointer(library, "cos"));
    EXPECT_DOUBLE_EQ(cosine(0.0), 1.0);
    try {
        dll->functionPointer(library, "PALLINOR_NoSuchFunction");
        FAIL() << "a missing function was found";
    } catch (const HALYX::HALYXException& e) {
        EXPECT_EQ(e.code(), HALYX_ERR_INVALID_ARGUMENT);
        EXPECT_STREQ(e.what(), "Unable to get function pointer: PALLINOR_NoSuchFunction");
    }
    dll->freeLibrary(library);
}

} // namespace
