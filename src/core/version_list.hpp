#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "halyx.h"

namespace HALYX {

struct VersionIdentifier {
    uint32_t type = HALYX_VERSION_IDENTIFIER_STRING;
    std::string text;
    uint64_t number = 0;
};

struct Version {
    uint32_t format = HALYX_VERSION_FORMAT_STRING;
    std::string string;
    uint64_t incremental = 0;
    uint32_t major = 0;
    uint32_t minor = 0;
    uint32_t patch = 0;
    std::vector<VersionIdentifier> pre;
    std::vector<VersionIdentifier> metadata;
};

struct ModuleVersion {
    std::string name;
    std::string description;
    Version version;
    std::optional<Version> expected;
    std::vector<ModuleVersion> dependencies;
};

// The modules this process has: the library itself, and the libraries it
// loads as they are loaded.
std::vector<ModuleVersion> moduleVersions();

// The C view of a version list; owns everything it points to.
class VersionListView {
public:
    explicit VersionListView(const std::vector<ModuleVersion>& modules);
    VersionListView(const VersionListView&) = delete;
    VersionListView& operator=(const VersionListView&) = delete;

    halyx_version_list_t* get() { return &view_; }

private:
    const halyx_module_version_t* keepModules(const std::vector<ModuleVersion>& modules);
    halyx_version_t convert(const Version& version);
    const halyx_version_identifier_t* keepIdentifiers(const std::vector<VersionIdentifier>& identifiers);

    // Deques never move their elements, so the pointers into them stay put.
    std::deque<std::string> strings_;
    std::deque<std::vector<halyx_module_version_t>> modules_;
    std::deque<std::vector<halyx_version_identifier_t>> identifiers_;
    std::deque<halyx_version_t> expected_;
    halyx_version_list_t view_{};
};

} // namespace HALYX
