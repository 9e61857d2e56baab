#pragma once

#include "devices/plugin_api.hpp"

namespace HALYX {

// Marks devices whose firmware is known to be defective, judging only the
// USB facts already in the enumeration document; it never talks to a device.
class BrokenPlugin final : public PluginApi {
public:
    static constexpr const char* kDescription =
        "This is a Trekkit device that has a broken USB descriptor and a broken CDC UART implementation. Please go "
        "to the product page and upgrade to the latest firmware.";
    static constexpr const char* kUrl = "https://www.kelvane.com/products/trekkit/firmware";

    ~BrokenPlugin() override;

    std::string getName() const override;
    std::vector<std::string> getTraits() const override;
    void enumerate(nlohmann::json& document, const DeviceChanged& changed, const DeviceFound& found) override;
};

} // namespace HALYX
