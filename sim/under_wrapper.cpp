// Linked into programs that need the umockdev preload (tests, benchmarks):
// started without it, the program runs itself again under umockdev-wrapper
// before anything else happens, so that CTest and users can start it plainly.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "testbed.hpp"

namespace {

__attribute__((constructor)) void runUnderWrapper()
{
    if (HALYX::SIM::Testbed::inMockEnvironment()) {
        return;
    }
    std::ifstream in("/proc/self/cmdline", std::ios::binary);
    const std::string cmdline((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    static std::vector<std::string> args{"umockdev-wrapper"};
    char self[4096];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0 || cmdline.empty()) {
        return;
    }
    args.emplace_back(self, static_cast<size_t>(n));
    // Skip argv[0]: the real executable's path takes its place.
    for (size_t start = cmdline.find('\0') + 1; start < cmdline.size();) {
        const auto end = cmdline.find('\0', start);
        args.push_back(cmdline.substr(start, end - start));
        start = end == std::string::npos ? cmdline.size() : end + 1;
    }
#ifdef __SANITIZE_ADDRESS__
    // The preload comes before the ASan runtime; ASan must be told that is fine.
    const char* options = std::getenv("ASAN_OPTIONS");
    std::string asan = options != nullptr ? options : "";
    if (asan.find("verify_asan_link_order") == std::string::npos) {
        setenv("ASAN_OPTIONS", (asan.empty() ? asan : asan + ":").append("verify_asan_link_order=0").c_str(), 1);
    }
#endif
    std::vector<char*> argv;
    for (auto& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    std::fprintf(stderr, "cannot run umockdev-wrapper (%s): install the umockdev package\n", std::strerror(errno));
}

} // namespace
