#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>

#include "devices/device.hpp"
#include "devices/plugin_api.hpp"
#include "halyx.h"

namespace HALYX {

// The plugins told of every device arrival, update and departure through
// onDeviceEvent: the context's own plugins for its whole life, and the
// plugin instance of a running operation while it runs (a plugin whose
// device restarts into its boot loader follows it that way).
//
// Threads: tell() runs on whichever thread reports the change (the
// notification thread, or an operation's worker); follow() and the tickets
// on the operations' workers. Lock: mutex_ guards the list; it is not held
// while a plugin is called.
class PluginFollowers {
public:
    class Ticket {
    public:
        Ticket() = default;
        Ticket(PluginFollowers* owner, std::list<std::weak_ptr<PluginApi>>::iterator entry);
        ~Ticket();
        Ticket(Ticket&& other) noexcept;
        Ticket& operator=(Ticket&& other) noexcept;
        Ticket(const Ticket&) = delete;
        Ticket& operator=(const Ticket&) = delete;

    private:
        PluginFollowers* owner_ = nullptr;
        std::list<std::weak_ptr<PluginApi>>::iterator entry_;
    };

    // Until the ticket is dropped.
    Ticket follow(const std::shared_ptr<PluginApi>& plugin);

    void tell(const Device& device, halyx_device_event_type_t type);

private:
    std::mutex mutex_;
    std::list<std::weak_ptr<PluginApi>> plugins_;
};

} // namespace HALYX
