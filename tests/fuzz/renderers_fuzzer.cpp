// The document exports fed records a caller built: any lengths, NULLs where
// arrays or texts should be, counts that claim more than the caller owns.
// Every call ends with a code; nothing is read outside what the caller owns.
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "core/context.hpp"

namespace {

// Takes values off the front of the input; zeros once it is used up.
class Reader {
public:
    Reader(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    uint8_t byte() { return at_ < size_ ? data_[at_++] : 0; }
    uint64_t number()
    {
        uint64_t value = 0;
        for (int i = 0; i < 8; ++i) {
            value = value << 8 | byte();
        }
        return value;
    }
    bool flag() { return (byte() & 1) != 0; }
    // A text that lives as long as the reader, or NULL.
    const char* text()
    {
        if (!flag()) {
            return nullptr;
        }
        const size_t length = byte() % 48;
        std::string value;
        for (size_t i = 0; i < length; ++i) {
            value.push_back(static_cast<char>(byte()));
        }
        return texts_.emplace_back(std::move(value)).c_str();
    }
    // How many entries a record claims, and whether the caller gives the
    // array: a claim without an array may be anything, one with an array is
    // what the caller owns.
    size_t count(bool& with_array)
    {
        with_array = flag();
        return with_array ? byte() % 6 : (flag() ? static_cast<size_t>(number()) : byte());
    }

private:
    const uint8_t* data_;
    size_t size_;
    size_t at_ = 0;
    std::deque<std::string> texts_;
};

template <typename T>
struct Owned {
    std::deque<std::vector<T>> arrays;

    const T* give(std::vector<T> items, bool with_array)
    {
        return with_array ? arrays.emplace_back(std::move(items)).data() : nullptr;
    }
};

void render(halyx_context* context, const auto& exported, const auto* record)
{
    for (uint32_t format = 0; format <= 5; ++format) {
        char* document = nullptr;
        if (exported(context, format, record, &document) == HALYX_SUCCESS) {
            halyx_free_document(context, document);
        }
    }
}

halyx_version_t version(Reader& in, Owned<halyx_version_identifier_t>& identifiers)
{
    halyx_version_t v{};
    v.format = in.byte() % 4;
    v.string = in.text();
    v.incremental = in.number();
    v.semantic.major = in.byte();
    for (auto* part : {&v.semantic.pre, &v.semantic.metadata}) {
        bool with_array = false;
        const auto claimed = in.count(with_array);
        std::vector<halyx_version_identifier_t> items(with_array ? claimed : 0);
        for (auto& item : items) {
            item = {static_cast<uint32_t>(in.byte() % 3), in.text(), in.number()};
        }
        *part = identifiers.give(std::move(items), with_array);
        (part == &v.semantic.pre ? v.semantic.pre_count : v.semantic.metadata_count) = claimed;
    }
    return v;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static halyx_context* context = new halyx_context(HALYX::ContextParts{nullptr, {}});
    Reader in(data, size);

    Owned<halyx_device_t> devices;
    Owned<halyx_trait_t> traits;
    Owned<halyx_serial_port_t> ports;
    bool with_devices = false;
    const auto device_count = in.count(with_devices);
    std::vector<halyx_device_t> list_items(with_devices ? device_count : 0);
    for (auto& device : list_items) {
        device.id = in.number();
        device.serial_number = in.text();
        device.usb_identifier = in.text();
        bool with_array = false;
        device.trait_count = in.count(with_array);
        std::vector<halyx_trait_t> own_traits(with_array ? device.trait_count : 0);
        for (auto& trait : own_traits) {
            trait = {in.text(), in.flag()};
        }
        device.traits = traits.give(std::move(own_traits), with_array);
        device.serial_port_count = in.count(with_array);
        std::vector<halyx_serial_port_t> own_ports(with_array ? device.serial_port_count : 0);
        for (auto& port : own_ports) {
            port = {in.text(), in.text(), in.text(), in.text(), in.text(), in.text(), in.text(), in.byte()};
        }
        device.serial_ports = ports.give(std::move(own_ports), with_array);
        device.json = in.text();
    }
    const halyx_device_list_t list{devices.give(std::move(list_items), with_devices), device_count};
    render(context, halyx_util_device_list_as_document, &list);
    for (size_t i = 0; with_devices && i < list.count; ++i) {
        render(context, halyx_util_device_as_document, &list.devices[i]);
    }

    halyx_device_core_info_t core{};
    for (size_t i = 0; i < sizeof core; ++i) {
        reinterpret_cast<uint8_t*>(&core)[i] = in.byte();
    }
    core.codeRamPresent = in.flag();
    core.qspiPresent = in.flag();
    render(context, halyx_util_device_core_info_as_document, &core);

    bool with_images = false;
    const auto image_count = in.count(with_images);
    std::vector<halyx_image_info_t> images(with_images ? image_count : 0);
    for (auto& image : images) {
        image = {static_cast<uint32_t>(in.number()), in.byte(), static_cast<uint32_t>(in.number()), in.byte(),
                 static_cast<uint32_t>(in.number()), in.text()};
    }
    const halyx_firmware_device_firmware_images_t found{with_images ? images.data() : nullptr, image_count};
    render(context, halyx_device_firmware_images_as_document, &found);

    Owned<halyx_version_identifier_t> identifiers;
    Owned<halyx_module_version_t> dependencies;
    bool with_modules = false;
    const auto module_count = in.count(with_modules);
    std::vector<halyx_module_version_t> modules(with_modules ? module_count : 0);
    std::deque<halyx_version_t> expected;
    for (auto& module : modules) {
        module.module_name = in.text();
        module.description = in.text();
        module.version = version(in, identifiers);
        module.expected_version = in.flag() ? &expected.emplace_back(version(in, identifiers)) : nullptr;
        bool with_array = false;
        module.dependency_count = in.count(with_array);
        std::vector<halyx_module_version_t> own(with_array ? module.dependency_count : 0);
        for (auto& dependency : own) {
            dependency.module_name = in.text();
            dependency.version = version(in, identifiers);
        }
        module.dependencies = dependencies.give(std::move(own), with_array);
    }
    const halyx_version_list_t versions{with_modules ? modules.data() : nullptr, module_count};
    render(context, halyx_util_version_list_as_document, &versions);
    return 0;
}
