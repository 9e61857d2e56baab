// halyx: list, watch and inspect development kits from the command line.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "commands.hpp"
#include "image_commands.hpp"
#include "program_command.hpp"

namespace {

const char* const kUsage =
    "usage: halyx [--log LEVEL] COMMAND\n"
    "\n"
    "commands:\n"
    "  list [--json | --csv] [--filter TRAIT]...   list attached devices (a table by default)\n"
    "  watch                                       print one JSON line per arrival, update or removal\n"
    "                                              until interrupted\n"
    "  plugins                                     the plugins this library has\n"
    "  traits                                      the traits those plugins serve\n"
    "  version                                     the library's modules and versions\n"
    "  program [--serial SN | --id N] FILE [--json]\n"
    "                                              program FILE (.hex, .bin, .zip, .elf) into a device; with\n"
    "                                              --json one JSON line per progress report\n"
    "  image info FILE [--json]                    describe a firmware file (HEX, ELF, BIN, zip package)\n"
    "  image convert IN OUT                        convert a firmware file to OUT.hex or OUT.bin\n"
    "\n"
    "options:\n"
    "  --log LEVEL   print the library's log lines to stderr, LEVEL 0 (trace) to 5 (critical)\n";

int usage(const char* problem)
{
    std::fprintf(stderr, "halyx: %s\n\n%s", problem, kUsage);
    return 2;
}

void printLog(uint32_t, const char* message, void*)
{
    std::fprintf(stderr, "%s\n", message);
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> args(argv + 1, argv + argc);
    int log_level = -1;
    if (args.size() >= 2 && args[0] == "--log") {
        char* end = nullptr;
        const long level = std::strtol(args[1].c_str(), &end, 10);
        if (*end != '\0' || level < 0 || level > 5) {
            return usage("--log takes a level from 0 to 5");
        }
        log_level = static_cast<int>(level);
        args.erase(args.begin(), args.begin() + 2);
    }
    if (args.empty() || args[0] == "--help" || args[0] == "-h") {
        std::fputs(kUsage, args.empty() ? stderr : stdout);
        return args.empty() ? 2 : 0;
    }

    const std::string command = args[0];
    if (command == "image") {
        return halyx_tool::image(std::vector<std::string>(args.begin() + 1, args.end()));
    }
    halyx_tool::ListFormat format = halyx_tool::ListFormat::Table;
    std::vector<std::string> filter;
    halyx_tool::ProgramRequest program_request;
    for (size_t i = 1; i < args.size(); ++i) {
        if (command == "program" && args[i] == "--json") {
            program_request.json = true;
        } else if (command == "program" && args[i] == "--serial" && i + 1 < args.size()) {
            program_request.serialNumber = args[++i];
        } else if (command == "program" && args[i] == "--id" && i + 1 < args.size()) {
            char* end = nullptr;
            program_request.id = std::strtoull(args[++i].c_str(), &end, 10);
            if (*end != '\0') {
                return usage("--id takes a device id");
            }
        } else if (command == "program" && args[i].rfind("--", 0) != 0 && program_request.file.empty()) {
            program_request.file = args[i];
        } else if (command == "list" && args[i] == "--json") {
            format = halyx_tool::ListFormat::Json;
        } else if (command == "list" && args[i] == "--csv") {
            format = halyx_tool::ListFormat::Csv;
        } else if (command == "list" && args[i] == "--filter" && i + 1 < args.size()) {
            filter.push_back(args[++i]);
        } else {
            return usage(("unexpected argument for '" + command + "': " + args[i]).c_str());
        }
    }

    if (command == "program" && program_request.file.empty()) {
        return usage("program needs a FILE");
    }
    if (command == "program" && program_request.id && program_request.serialNumber) {
        return usage("program takes --serial or --id, not both");
    }

    // Before the context exists, so that none of the library's threads takes Ctrl-C.
    halyx_tool::StopSignal stop;
    if (command != "watch" && command != "program") {
        stop.onSignal([](int signal) { std::_Exit(128 + signal); });
    }

    halyx_context* context = nullptr;
    const halyx_errorcode_t created = halyx_create_context(&context);
    if (created != HALYX_SUCCESS) {
        std::fprintf(stderr, "halyx: error %u: could not create a context\n", static_cast<unsigned>(created));
        return 1;
    }

    int status = 0;
    try {
        if (log_level >= 0) {
            halyx_tool::check(context, halyx_register_log_event(context, printLog, nullptr), "halyx_register_log_event");
            halyx_tool::check(context, halyx_set_log_level(context, static_cast<uint32_t>(log_level)),
                              "halyx_set_log_level");
        }
        if (command == "list") {
            status = halyx_tool::list(context, format, filter);
        } else if (command == "watch") {
            status = halyx_tool::watch(context, stop);
        } else if (command == "plugins") {
            status = halyx_tool::plugins(context);
        } else if (command == "traits") {
            status = halyx_tool::traits(context);
        } else if (command == "version") {
            status = halyx_tool::version(context);
        } else if (command == "program") {
            status = halyx_tool::program(context, program_request, stop);
        } else {
            halyx_release_context(context);
            return usage(("unknown command: " + command).c_str());
        }
    } catch (const halyx_tool::Failure& failure) {
        std::fprintf(stderr, "halyx: error %u: %s\n", static_cast<unsigned>(failure.code), failure.message.c_str());
        status = 1;
    }
    if (halyx_release_context(context) != HALYX_SUCCESS && status == 0) {
        std::fprintf(stderr, "halyx: the context could not be released cleanly\n");
        status = 1;
    }
    return status;
}
