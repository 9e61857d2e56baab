// halyx: list, watch, program and inspect development kits from the command line.
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include "commands.hpp"
#include "image_commands.hpp"
#include "program_command.hpp"

namespace {

const char* const kFirmwareFiles =
    "Firmware files: Intel HEX (.hex, .ihex), ELF (.elf, .axf, .out), raw binary (.bin) or a zip package\n"
    "with a manifest.json (.zip). Other names are recognised by their first bytes; a raw binary must be\n"
    "named .bin.";

// An unsigned number written as C writes it (decimal, 0x hex, 0 octal) up to max.
CLI::Validator unsignedUpTo(uint64_t max, const std::string& what)
{
    return CLI::Validator(
        [max, what](std::string& text) -> std::string {
            try {
                size_t used = 0;
                const unsigned long long value = std::stoull(text, &used, 0);
                if (used == text.size() && text[0] != '-' && value <= max) {
                    return {};
                }
            } catch (const std::exception&) {
            }
            return text + " is not " + what;
        },
        "");
}

// A usage error found after parsing, reported as CLI11 reports its own.
class UsageError : public CLI::ParseError {
public:
    explicit UsageError(std::string message) : ParseError("UsageError", std::move(message), CLI::ExitCodes::ExtrasError)
    {
    }
};

// The error line names the command it is about; its usage follows.
std::string failureMessage(const CLI::App* app, const CLI::Error& error)
{
    const CLI::App* command = app;
    std::string path = app->get_name();
    // Ours are about the command line as a whole.
    const bool whole = dynamic_cast<const UsageError*>(&error) != nullptr;
    while (!whole && !command->get_subcommands().empty()) {
        command = command->get_subcommands().front();
        path += " " + command->get_name();
    }
    std::string problem = error.what();
    if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr) {
        problem =
            fmt::format("unexpected argument for '{}': {}", command->get_name(), fmt::join(command->remaining(), " "));
    }
    return fmt::format("{}: {}\n\n{}", path, problem, command->help());
}

void printLog(uint32_t, const char* message, void*)
{
    std::fprintf(stderr, "%s\n", message);
}

int runWithContext(CLI::App& app, int logLevel, halyx_tool::ListFormat format, const std::vector<std::string>& filter,
                   const halyx_tool::ProgramRequest& programRequest)
{
    const auto chosen = [&](const char* name) { return app.got_subcommand(name); };

    // Before the context exists, so that none of the library's threads takes Ctrl-C.
    halyx_tool::StopSignal stop;
    if (!chosen("watch") && !chosen("program")) {
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
        if (logLevel >= 0) {
            halyx_tool::check(context, halyx_register_log_event(context, printLog, nullptr),
                              "halyx_register_log_event");
            halyx_tool::check(context, halyx_set_log_level(context, static_cast<uint32_t>(logLevel)),
                              "halyx_set_log_level");
        }
        if (chosen("list")) {
            status = halyx_tool::list(context, format, filter);
        } else if (chosen("watch")) {
            status = halyx_tool::watch(context, stop);
        } else if (chosen("plugins")) {
            status = halyx_tool::plugins(context);
        } else if (chosen("traits")) {
            status = halyx_tool::traits(context);
        } else if (chosen("version")) {
            status = halyx_tool::version(context);
        } else if (chosen("program")) {
            status = halyx_tool::program(context, programRequest, stop);
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

} // namespace

int main(int argc, char** argv)
{
    CLI::App app("List, watch, program and inspect development kits.", "halyx");
    app.failure_message(failureMessage);
    app.require_subcommand(0, 1); // "halyx list version" is one command too many, not two

    int logLevel = -1;
    app.add_option("--log", logLevel, "Print the library's log lines to stderr, LEVEL 0 (trace) to 5 (critical)")
        ->option_text("LEVEL")
        ->check(CLI::Range(0, 5));

    auto* list = app.add_subcommand("list", "List attached devices (a table by default)");
    bool listJson = false;
    bool listCsv = false;
    std::vector<std::string> filter;
    auto* json = list->add_flag("--json", listJson, "One JSON document");
    list->add_flag("--csv", listCsv, "CSV with a header line")->excludes(json);
    list->add_option("--filter", filter, "Only devices with this trait; repeat for more")
        ->option_text("TRAIT")
        ->type_size(1)
        ->allow_extra_args(false);

    app.add_subcommand("watch", "Print one JSON line per arrival, update or removal until interrupted");
    app.add_subcommand("plugins", "The plugins this library has");
    app.add_subcommand("traits", "The traits those plugins serve");
    app.add_subcommand("version", "The library's modules and versions");

    auto* program = app.add_subcommand("program", "Program a firmware file into a device");
    halyx_tool::ProgramRequest programRequest;
    std::string serialNumber;
    uint64_t id = 0;
    auto* serialOption =
        program->add_option("--serial", serialNumber, "The device with this serial number")->option_text("SN");
    auto* idOption = program->add_option("--id", id, "The device with this id (see 'halyx list')")
                         ->option_text("N")
                         ->check(unsignedUpTo(std::numeric_limits<uint64_t>::max(), "a device id"))
                         ->excludes(serialOption);
    program->add_option("FILE", programRequest.file, "The firmware file")->required();
    program->add_flag("--json", programRequest.json, "One JSON line per progress report instead of a bar");
    program->footer("Without --serial or --id, the only programmable device attached.\n" + std::string(kFirmwareFiles));

    auto* image = app.add_subcommand("image", "Describe or convert a firmware file, without a device");
    image->require_subcommand(1);
    image->footer(kFirmwareFiles);
    std::string imageFile;
    std::string imageOut;
    bool imageJson = false;
    uint32_t base = 0;
    const auto baseCheck = unsignedUpTo(std::numeric_limits<uint32_t>::max(), "an address from 0 to 0xFFFFFFFF");
    const char* const baseHelp = "Where a raw binary is placed (default 0)";
    auto* info = image->add_subcommand("info", "Describe a firmware file: segments, start address, MCUboot header");
    info->add_option("FILE", imageFile, "The firmware file")->required();
    info->add_flag("--json", imageJson, "One JSON object");
    info->add_option("--base", base, baseHelp)->option_text("ADDRESS")->check(baseCheck);
    auto* convert = image->add_subcommand("convert", "Convert a firmware file to Intel HEX or raw binary");
    convert->add_option("IN", imageFile, "The firmware file")->required();
    convert->add_option("OUT", imageOut, "OUT.hex: Intel HEX; OUT.bin: lowest to highest address, gaps 0xFF")
        ->required();
    convert->add_option("--base", base, baseHelp)->option_text("ADDRESS")->check(baseCheck);

    // Set last: sub-commands copy these when they are made; they must not accept strays.
    app.allow_extras();
    app.footer(kFirmwareFiles);
    try {
        app.parse(argc, argv);
        if (!app.remaining().empty()) {
            const std::string first = app.remaining().front();
            throw UsageError(app.get_subcommands().empty() && !first.starts_with("-")
                                 ? "unknown command: " + first
                                 : "unexpected argument: " + first);
        }
        if (app.get_subcommands().empty()) {
            throw UsageError("a command is needed");
        }
    } catch (const CLI::ParseError& error) {
        const int status = app.exit(error);
        return status == 0 ? 0 : 2;
    }

    if (*info) {
        return halyx_tool::imageInfo(imageFile, imageJson, base);
    }
    if (*convert) {
        return halyx_tool::imageConvert(imageFile, imageOut, base);
    }
    const auto format = listJson  ? halyx_tool::ListFormat::Json
                        : listCsv ? halyx_tool::ListFormat::Csv
                                  : halyx_tool::ListFormat::Table;
    if (*serialOption) {
        programRequest.serialNumber = serialNumber;
    }
    if (*idOption) {
        programRequest.id = id;
    }
    return runWithContext(app, logLevel, format, filter, programRequest);
}
