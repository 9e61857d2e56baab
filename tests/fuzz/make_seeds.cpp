// Writes the fuzz targets' seeds: what the simulated devices send (SMP
// answers as the boot loader simulator frames them, USB descriptors and
// DFU-trigger replies of the simulated kits) and the documents the library
// exchanges. usage: make_seeds DIR   (one subfolder per target)
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "kit.hpp"
#include "smp_wire.hpp"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

void write(const fs::path& file, const std::vector<uint8_t>& bytes)
{
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

void write(const fs::path& file, const std::string& text)
{
    write(file, std::vector<uint8_t>(text.begin(), text.end()));
}

// An SMP answer as the simulated boot loader puts it on the line, after the
// byte that sizes the pieces it is read in.
std::vector<uint8_t> answer(uint8_t piece, uint8_t op, uint16_t group, uint8_t id, const json& map, size_t line = 127)
{
    HALYX::SIM::WirePacket packet;
    packet.op = op;
    packet.group = group;
    packet.id = id;
    packet.seq = 7;
    packet.payload = json::to_cbor(map);
    auto wire = HALYX::SIM::encodeLines(packet, line);
    wire.insert(wire.begin(), piece);
    return wire;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_seeds DIR\n");
        return 2;
    }
    const fs::path out = argv[1];

    const auto smp = out / "smp_receive";
    write(smp / "rc0", answer(13, 3, 0, 5, {{"rc", 0}}));
    write(smp / "chunk", answer(40, 3, 1, 1, {{"rc", 0}, {"off", 1392}}));
    write(smp / "not_supported", answer(1, 1, 2, 0, {{"rc", 8}}));
    write(smp / "smp_com", answer(7, 1, 2, 0, {{"rc", 0}, {"fields", {{"frame_max", 127}, {"pack_max", 4096}}}}));
    write(smp / "parameters", answer(63, 1, 0, 6, {{"buf_size", 2048}, {"buf_count", 1}}));
    write(smp / "long", answer(5, 3, 1, 1, {{"rc", 0}, {"images", std::string(400, 'x')}}, 20));
    auto noisy = answer(3, 3, 0, 5, {{"rc", 0}});
    const std::string noise = "\r\nboot: serial recovery\r\n\x06";
    noisy.insert(noisy.begin() + 1, noise.begin(), noise.end());
    write(smp / "noise", noisy);

    const auto usb = out / "usb_replies";
    for (const auto& kit : {HALYX::SIM::makerKit(), HALYX::SIM::probeKit(), HALYX::SIM::cellularKit(),
                            HALYX::SIM::mcubootDevice(), HALYX::SIM::otherVendorDevice()}) {
        auto bytes = HALYX::SIM::deviceDescriptor(kit);
        const auto configuration = HALYX::SIM::configurationDescriptor(kit);
        bytes.insert(bytes.end(), configuration.begin(), configuration.end());
        write(usb / kit.name, bytes);
    }
    write(usb / "dfu_info", HALYX::SIM::encodeDfuInfo(0x000F8000, 1, 6, 0x0052A6F1, 0x00100000, 0x1000));

    const auto documents = out / "documents_back";
    write(documents / "configuration",
          json{{"device_lister",
                {{{"name", "mcuboot"},
                  {"init_parameters", {{"MCUBOOT_SERIALPORT_BAUDRATE", 115200}, {"MCUBOOT_PACKET_SIZE", 2048}}}},
                 {{"name", "broken"}}}}}
              .dump());
    write(documents / "devices",
          json{{"devices",
                {{{"id", 1},
                  {"serialNumber", "FUZZ"},
                  {"traits", {{"usb", true}, {"serialPorts", true}}},
                  {"usbIdentifier", "1-1"},
                  {"serialPorts",
                   {{{"comName", "/dev/ttyACM0"}, {"serialNumber", "FUZZ"}, {"manufacturer", nullptr}, {"vcom", 0}}}},
                  {"usb", {{"busNumber", 1}, {"address", 2}}}},
                 {{"id", 9}, {"serialNumber", nullptr}, {"traits", json::object()}}}}}
              .dump());

    const auto renderers = out / "renderers";
    write(renderers / "one_device", std::vector<uint8_t>{1, 1, 0, 0, 0, 0, 0, 0, 0, 7, 1, 4, 'K', 'V', '0', '1'});
    write(renderers / "claims", std::vector<uint8_t>{0, 1, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
    return 0;
}
