// Linked into programs that need the umockdev preload (tests, benchmarks):
// started without it, the program runs itself again under umockdev-wrapper
// before anything else happens, so that CTest and users can start it plainly.
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "testbed.hpp"
#include "wrapper.hpp"

namespace {

__attribute__((constructor)) void runUnderWrapper()
{
    if (HALYX::SIM::Testbed::inMockEnvironment()) {
        return;
    }
    std::ifstream in("/proc/self/cmdline", std::ios::binary);
    const std::string cmdline((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<std::string> arguments;
    // argv[0] is left out: the wrapper gets the program's real path.
    for (size_t start = cmdline.find('\0'); start != std::string::npos && start + 1 < cmdline.size();) {
        const auto end = cmdline.find('\0', start + 1);
        arguments.push_back(cmdline.substr(start + 1, end - start - 1));
        start = end;
    }
    HALYX::SIM::execUnderWrapper(arguments);
}

} // namespace
