#include "wrapper.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace HALYX::SIM {

void execUnderWrapper(const std::vector<std::string>& arguments)
{
    char self[4096];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) {
        std::fprintf(stderr, "cannot find this program's own file to run it under umockdev-wrapper\n");
        return;
    }
    std::vector<std::string> args{"umockdev-wrapper", std::string(self, static_cast<size_t>(n))};
    args.insert(args.end(), arguments.begin(), arguments.end());
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

} // namespace HALYX::SIM
