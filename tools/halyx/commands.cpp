#include "commands.hpp"

#include <cstdio>
#include <mutex>
#include <string>

#include <nlohmann/json.hpp>

namespace halyx_tool {
namespace {

std::string lastError(halyx_context* context)
{
    uint32_t code = 0;
    char buffer[2048];
    if (context == nullptr || halyx_get_last_error(context, &code, buffer, sizeof buffer) != HALYX_SUCCESS) {
        return {};
    }
    return buffer;
}

// Frees a document from the library when it goes out of scope.
class Document {
public:
    explicit Document(halyx_context* context) : context_(context) {}
    ~Document() { halyx_free_document(context_, text_); }
    Document(const Document&) = delete;
    Document& operator=(const Document&) = delete;
    char** out() { return &text_; }
    const char* text() const { return text_ != nullptr ? text_ : ""; }

private:
    halyx_context* context_;
    char* text_ = nullptr;
};

std::string orDash(const char* text)
{
    return text != nullptr ? text : "-";
}

void printTable(const halyx_device_list_t& list)
{
    std::printf("%-6s %-22s %-40s %s\n", "ID", "SERIAL NUMBER", "TRAITS", "SERIAL PORTS");
    for (size_t i = 0; i < list.count; ++i) {
        const halyx_device_t& device = list.devices[i];
        std::string traits;
        for (size_t t = 0; t < device.trait_count; ++t) {
            if (device.traits[t].value) {
                traits += (traits.empty() ? "" : ",") + std::string(device.traits[t].name);
            }
        }
        std::string ports;
        for (size_t p = 0; p < device.serial_port_count; ++p) {
            ports += (ports.empty() ? "" : ",") + orDash(device.serial_ports[p].com_name);
        }
        std::printf("%-6llu %-22s %-40s %s\n", static_cast<unsigned long long>(device.id),
                    orDash(device.serial_number).c_str(), traits.empty() ? "-" : traits.c_str(),
                    ports.empty() ? "-" : ports.c_str());
    }
    if (list.count == 0) {
        std::printf("(no devices found)\n");
    }
}

void printJsonNames(void*, const char* json)
{
    std::printf("%s\n", json);
}

std::mutex output_mutex;

void printEvent(halyx_context*, const halyx_device_event_t* event, void*)
{
    static const char* const names[] = {"arrived", "left", "updated"};
    const char* name = event->type <= HALYX_DEVICE_EVENT_UPDATED ? names[event->type] : "unknown";
    nlohmann::ordered_json line{{"event", name}, {"id", event->device_id}, {"device", nullptr}};
    if (event->device != nullptr && event->device->json != nullptr) {
        // Runs on a library thread, where nothing may throw: text that does not parse is passed on as text.
        auto device = nlohmann::ordered_json::parse(event->device->json, nullptr, false);
        line["device"] = device.is_discarded() ? nlohmann::ordered_json(event->device->json) : std::move(device);
    }
    std::lock_guard lock(output_mutex);
    std::printf("%s\n", line.dump().c_str());
    std::fflush(stdout);
}

} // namespace

void check(halyx_context* context, halyx_errorcode_t code, const char* what)
{
    if (code != HALYX_SUCCESS) {
        auto message = lastError(context);
        throw Failure{code, message.empty() ? std::string(what) + " failed" : message};
    }
}

int list(halyx_context* context, ListFormat format, const std::vector<std::string>& filter)
{
    std::vector<const char*> names;
    for (const auto& trait : filter) {
        names.push_back(trait.c_str());
    }
    check(context, halyx_set_filter(context, names.data(), names.size()), "halyx_set_filter");

    halyx_device_list_t* list = nullptr;
    check(context, halyx_enumerate(context, &list), "halyx_enumerate");
    try {
        if (format == ListFormat::Table) {
            printTable(*list);
        } else {
            // The library's CSV_WO_HEADER is the variant that writes the header line.
            const uint32_t doc_format =
                format == ListFormat::Json ? HALYX_DOC_FORMAT_JSON_PRETTY : HALYX_DOC_FORMAT_CSV_WO_HEADER;
            Document document(context);
            check(context, halyx_util_device_list_as_document(context, doc_format, list, document.out()),
                  "halyx_util_device_list_as_document");
            std::fputs(document.text(), stdout);
            if (format == ListFormat::Json) {
                std::fputc('\n', stdout);
            }
        }
    } catch (...) {
        halyx_free_device_list(context, list);
        throw;
    }
    check(context, halyx_free_device_list(context, list), "halyx_free_device_list");
    return 0;
}

int watch(halyx_context* context, StopSignal& stop)
{
    check(context, halyx_register_device_event(context, printEvent, nullptr), "halyx_register_device_event");
    check(context, halyx_start_eventhandler(context), "halyx_start_eventhandler");
    stop.wait();
    check(context, halyx_stop_eventhandler(context), "halyx_stop_eventhandler");
    check(context, halyx_unregister_device_event(context), "halyx_unregister_device_event");
    return 0;
}

int plugins(halyx_context* context)
{
    check(context, halyx_available_plugins(context, printJsonNames, nullptr), "halyx_available_plugins");
    return 0;
}

int traits(halyx_context* context)
{
    check(context, halyx_available_traits(context, printJsonNames, nullptr), "halyx_available_traits");
    return 0;
}

int version(halyx_context* context)
{
    halyx_version_list_t* versions = nullptr;
    check(context, halyx_get_version_list(context, &versions), "halyx_get_version_list");
    Document document(context);
    const auto code =
        halyx_util_version_list_as_document(context, HALYX_DOC_FORMAT_JSON_PRETTY, versions, document.out());
    halyx_free_version_list(context, versions);
    check(context, code, "halyx_util_version_list_as_document");
    std::printf("%s\n", document.text());
    return 0;
}

} // namespace halyx_tool
