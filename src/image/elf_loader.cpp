#include "image/elf_loader.hpp"

#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include <fmt/format.h>
#include <gelf.h>

namespace HALYX {
namespace {

using format_error = BinaryImage::format_error;

[[noreturn]] void notElf()
{
    throw format_error("Could not load elf data.");
}

struct ElfCloser {
    void operator()(Elf* elf) const { elf_end(elf); }
};

// A section lies in a segment when its file bytes do; among several such
// segments the one whose memory range also holds it wins, as with objcopy.
std::optional<uint64_t> loadAddress(const GElf_Shdr& section, const std::vector<GElf_Phdr>& loads)
{
    std::optional<uint64_t> found;
    for (const auto& segment : loads) {
        const bool inFile = section.sh_offset >= segment.p_offset &&
                            section.sh_offset - segment.p_offset + section.sh_size <= segment.p_filesz;
        if (!inFile) {
            continue;
        }
        found = segment.p_paddr + (section.sh_offset - segment.p_offset);
        const bool inMemory = section.sh_addr >= segment.p_vaddr &&
                              section.sh_addr - segment.p_vaddr + section.sh_size <= segment.p_memsz;
        if (inMemory) {
            break;
        }
    }
    return found;
}

void add(BinaryImage& image, uint64_t address, std::span<const uint8_t> file, uint64_t offset, uint64_t size)
{
    if (offset > file.size() || size > file.size() - offset || address + size > uint64_t{1} << 32) {
        notElf();
    }
    image.append(static_cast<uint32_t>(address), file.subspan(static_cast<size_t>(offset), static_cast<size_t>(size)));
}

} // namespace

BinaryImage ElfLoader::load(std::span<const uint8_t> bytes, const std::string& name)
{
    if (bytes.size() < EI_NIDENT || std::memcmp(bytes.data(), ELFMAG, SELFMAG) != 0 ||
        (bytes[EI_CLASS] != ELFCLASS32 && bytes[EI_CLASS] != ELFCLASS64)) {
        notElf();
    }
    static std::once_flag initialised;
    std::call_once(initialised, [] { elf_version(EV_CURRENT); });

    // libelf wants a writable image; it gets its own copy.
    std::vector<char> copy(bytes.begin(), bytes.end());
    std::unique_ptr<Elf, ElfCloser> elf(elf_memory(copy.data(), copy.size()));
    GElf_Ehdr header;
    size_t segmentCount = 0;
    size_t sectionCount = 0;
    if (!elf || elf_kind(elf.get()) != ELF_K_ELF || gelf_getehdr(elf.get(), &header) == nullptr ||
        elf_getphdrnum(elf.get(), &segmentCount) != 0 || elf_getshdrnum(elf.get(), &sectionCount) != 0) {
        notElf();
    }
    std::vector<GElf_Phdr> segments(segmentCount);
    for (size_t i = 0; i < segmentCount; ++i) {
        if (gelf_getphdr(elf.get(), static_cast<int>(i), &segments[i]) == nullptr) {
            notElf();
        }
    }
    std::vector<GElf_Shdr> sections;
    sections.reserve(sectionCount);
    for (size_t i = 1; i < sectionCount; ++i) {
        GElf_Shdr section;
        Elf_Scn* scn = elf_getscn(elf.get(), i);
        if (scn == nullptr || gelf_getshdr(scn, &section) == nullptr) {
            notElf();
        }
        sections.push_back(section);
    }
    if (header.e_ident[EI_CLASS] != ELFCLASS32) {
        throw format_error("Content is not a 32bit elf file.");
    }
    if (header.e_ident[EI_DATA] != ELFDATA2LSB) {
        throw format_error("Content is not a little endian elf file.");
    }

    std::vector<GElf_Phdr> loads;
    bool physicalAddresses = false;
    for (const auto& segment : segments) {
        physicalAddresses = physicalAddresses || segment.p_paddr != 0;
        if (segment.p_type == PT_LOAD) {
            loads.push_back(segment);
        }
    }
    // Some linkers leave every physical address zero; then the virtual
    // addresses are the load addresses.
    if (!physicalAddresses) {
        for (auto& segment : loads) {
            segment.p_paddr = segment.p_vaddr;
        }
    }

    BinaryImage image;
    if (sections.empty()) {
        for (const auto& segment : loads) {
            add(image, segment.p_paddr, bytes, segment.p_offset, segment.p_filesz);
        }
    } else {
        for (const auto& section : sections) {
            if ((section.sh_flags & SHF_ALLOC) == 0 || section.sh_type == SHT_NOBITS || section.sh_size == 0) {
                continue;
            }
            const uint64_t address = loadAddress(section, loads).value_or(section.sh_addr);
            add(image, address, bytes, section.sh_offset, section.sh_size);
        }
    }
    if (header.e_entry != 0) {
        image.setStartAddress(
            BinaryImage::StartAddress{BinaryImage::StartAddress::Kind::Linear, static_cast<uint32_t>(header.e_entry)});
    }
    image.finalize();
    if (image.empty()) {
        throw BinaryImage::file_error(fmt::format("BinaryImage {} is empty.", name));
    }
    return image;
}

BinaryImage BinaryImage::fromElf(std::span<const uint8_t> bytes, const std::string& name)
{
    return ElfLoader::load(bytes, name);
}

BinaryImage BinaryImage::fromElf(std::istream& input, const std::string& name)
{
    std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(input), std::istreambuf_iterator<char>()};
    if (input.bad()) {
        throw file_error(fmt::format("BinaryImage access error, could not read {}.", name));
    }
    return ElfLoader::load(bytes, name);
}

BinaryImage BinaryImage::fromElfFile(const std::filesystem::path& path)
{
    auto input = openFile(path);
    return fromElf(input, path.string());
}

} // namespace HALYX
