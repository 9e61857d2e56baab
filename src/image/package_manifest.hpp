#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace HALYX {

class ZipArchive;

// The "manifest.json" of a firmware package: its "files" list names the
// images. Every failure is a HALYXException with code 16, except those of
// reading the entry out of the package (codes 10 and 18).
class PackageManifest {
public:
    // One item of "files".
    class Item {
    public:
        Item(std::string file, nlohmann::json fields) : file_(std::move(file)), fields_(std::move(fields)) {}

        const std::string& file() const { return file_; }
        const nlohmann::json& fields() const { return fields_; }
        // An unsigned number given as a JSON number or as a decimal or 0x-hex
        // string; nullopt when absent, code 16 when it is something else.
        std::optional<uint64_t> number(std::string_view key) const;
        // A string (numbers are given as their text); nullopt when absent.
        std::optional<std::string> text(std::string_view key) const;

    private:
        std::string file_;
        nlohmann::json fields_;
    };

    static PackageManifest read(const ZipArchive& package);
    static PackageManifest parse(std::string_view text);

    const nlohmann::json& document() const { return document_; }
    const std::vector<Item>& files() const { return files_; }

private:
    nlohmann::json document_;
    std::vector<Item> files_;
};

} // namespace HALYX
