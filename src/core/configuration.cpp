#include "core/configuration.hpp"

#include "core/halyx_exception.hpp"

namespace HALYX {
namespace {

bool hasEmptyKey(const nlohmann::json& value)
{
    if (value.is_object()) {
        for (const auto& [key, child] : value.items()) {
            if (key.empty() || hasEmptyKey(child)) {
                return true;
            }
        }
    } else if (value.is_array()) {
        for (const auto& child : value) {
            if (hasEmptyKey(child)) {
                return true;
            }
        }
    }
    return false;
}

} // namespace

ConfigurationMap parseConfiguration(const char* json)
{
    if (json == nullptr) {
        throw HALYXException(HALYX_ERR_INVALID_ARGUMENT, "Unable to deserialize configuration");
    }
    auto document = nlohmann::json::parse(json, nullptr, false);
    if (document.is_discarded()) {
        throw HALYXException(HALYX_ERR_INVALID_ARGUMENT, "Unable to deserialize configuration");
    }
    if (!document.is_object()) {
        throw HALYXException(HALYX_ERR_INVALID_ARGUMENT, "Configuration must be a JSON object");
    }
    if (hasEmptyKey(document)) {
        throw HALYXException(HALYX_ERR_INVALID_ARGUMENT, "Empty json string key is not supported");
    }
    ConfigurationMap map;
    for (auto& [key, value] : document.items()) {
        map.emplace(key, std::move(value));
    }
    return map;
}

} // namespace HALYX
