#include "core/version_list.hpp"

#include "core/version.hpp"

namespace HALYX {

std::vector<ModuleVersion> moduleVersions()
{
    ModuleVersion library;
    library.name = "halyx";
    library.description = "Finds, identifies and programs development kits";
    library.version.format = HALYX_VERSION_FORMAT_SEMANTIC;
    library.version.major = LibraryVersion::kMajor;
    library.version.minor = LibraryVersion::kMinor;
    library.version.patch = LibraryVersion::kPatch;
    return {library};
}

VersionListView::VersionListView(const std::vector<ModuleVersion>& modules)
{
    view_.modules = keepModules(modules);
    view_.count = modules.size();
}

const halyx_module_version_t* VersionListView::keepModules(const std::vector<ModuleVersion>& modules)
{
    auto& out = modules_.emplace_back();
    out.reserve(modules.size());
    for (const auto& module : modules) {
        halyx_module_version_t entry{};
        entry.module_name = strings_.emplace_back(module.name).c_str();
        entry.description = strings_.emplace_back(module.description).c_str();
        entry.version = convert(module.version);
        entry.expected_version = module.expected ? &expected_.emplace_back(convert(*module.expected)) : nullptr;
        entry.dependencies = keepModules(module.dependencies);
        entry.dependency_count = module.dependencies.size();
        out.push_back(entry);
    }
    return out.data();
}

halyx_version_t VersionListView::convert(const Version& version)
{
    halyx_version_t out{};
    out.format = version.format;
    out.string = strings_.emplace_back(version.string).c_str();
    out.incremental = version.incremental;
    out.semantic.major = version.major;
    out.semantic.minor = version.minor;
    out.semantic.patch = version.patch;
    out.semantic.pre = keepIdentifiers(version.pre);
    out.semantic.pre_count = version.pre.size();
    out.semantic.metadata = keepIdentifiers(version.metadata);
    out.semantic.metadata_count = version.metadata.size();
    return out;
}

const halyx_version_identifier_t* VersionListView::keepIdentifiers(const std::vector<VersionIdentifier>& identifiers)
{
    auto& out = identifiers_.emplace_back();
    out.reserve(identifiers.size());
    for (const auto& identifier : identifiers) {
        out.push_back(halyx_version_identifier_t{identifier.type, strings_.emplace_back(identifier.text).c_str(),
                                                 identifier.number});
    }
    return out.data();
}

} // namespace HALYX
