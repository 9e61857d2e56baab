#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kit.hpp"

typedef struct _UMockdevTestbed UMockdevTestbed;

namespace HALYX::SIM {

class UsbResponder;
class TtyForwarder;
class SmpSimulator;

// A umockdev testbed with simulated kits that can be plugged and unplugged
// at run time. The process must run under umockdev-wrapper. Each kit's USB
// node answers control transfers (the maker's DFU-trigger requests and
// string descriptors) and its ttys forward terminal ioctls to the real pty
// behind them, so serial I/O on them works, by node and by-id link alike.
// A kit in serial recovery gets an SMP boot loader on its first tty; when
// that boot loader reboots after a reset, the kit leaves the bus and comes
// back with the same serial number, its flash intact.
//
// Threads: the calling thread plugs and unplugs; umockdev's worker thread
// runs the responders; each boot loader serves on a thread of its own; the
// reboot thread takes rebooting kits away and brings them back.
// Locks: mutex_ guards the kits and every testbed change; reboot_mutex_
// guards the reboot queue only. A boot loader's reboot handler (on its own
// thread, holding none of its locks) only queues under reboot_mutex_; the
// reboot thread takes mutex_ and then a boot loader's lock (attach()), never
// the other way round, so unplug() may destroy a boot loader under mutex_.
// Build the testbed before anything opens libusb and release libusb before
// destroying it.
class Testbed {
public:
    struct Kit {
        unsigned id = 0;
        KitModel model;
        Placement place;
        std::string usbSyspath;
        std::string usbNode;
        std::vector<std::string> ttys;     // "/dev/ttyACM0", ... in vcom order
        std::vector<std::string> devlinks; // their "/dev/serial/by-id/..." links
        std::vector<std::string> syspaths; // every node, parents first
    };

    Testbed();
    ~Testbed();
    Testbed(const Testbed&) = delete;
    Testbed& operator=(const Testbed&) = delete;

    // Adds a kit on the next free port with a new device number and fresh
    // tty names; with ports_later the ttys come later, through addPorts().
    // The reference is good until the kit is unplugged or reboots.
    const Kit& plug(const KitModel& model, bool ports_later = false);
    // Binds the ttys of a kit plugged with ports_later.
    void addPorts(unsigned id);
    // Removes a kit, children first, with "remove" uevents; a kit away for
    // a reboot stays away.
    void unplug(unsigned id);
    // Loads a umockdev description written elsewhere (a recorded device).
    void addDescription(const std::string& text);

    // The kits on the bus (not those away for a reboot).
    std::vector<Kit> kits() const;
    // The boot loader answering on a kit's first tty; null for a kit without
    // one or before its ports are bound. Valid until the kit is unplugged;
    // the same one serves the kit again after a reboot.
    SmpSimulator* bootloader(unsigned id) const;
    // The master side of a tty's pty (owned by the testbed).
    int ttyMaster(const std::string& tty) const;
    UMockdevTestbed* raw() const { return testbed_; }

    // True when this process runs under umockdev-wrapper.
    static bool inMockEnvironment();

private:
    using Clock = std::chrono::steady_clock;
    struct Reboot {
        unsigned id = 0;
        bool back = false; // false: take the kit away; true: bring it back
        std::chrono::milliseconds away{0};
    };

    void attachKit(Kit& kit, bool ports_later);
    void detachKit(const Kit& kit);
    void addNode(const SysfsNode& node);
    void bindTty(const SysfsNode& node);
    void startBootloader(const Kit& kit);
    void removeLink(const std::string& link);
    void requestReboot(unsigned id, std::chrono::milliseconds away);
    void serveReboots();
    bool takeAway(unsigned id);
    void bringBack(unsigned id);
    template <typename Handler>
    void releaseClosed(std::vector<std::pair<std::string, std::unique_ptr<Handler>>>& retired);

    UMockdevTestbed* testbed_ = nullptr;
    mutable std::mutex mutex_;
    std::map<unsigned, Kit> kits_;
    std::map<unsigned, std::vector<SysfsNode>> pending_ports_;
    std::map<std::string, std::unique_ptr<UsbResponder>> usb_responders_;
    // Those of nodes already removed: a client may still have the node open,
    // and ends up with an I/O error on it, as with a kernel, rather than with
    // the preload failing when its handler goes away. They go once nobody
    // has them open (see releaseClosed).
    std::vector<std::pair<std::string, std::unique_ptr<UsbResponder>>> retired_responders_;
    std::vector<std::pair<std::string, std::unique_ptr<TtyForwarder>>> retired_forwarders_;
    std::map<std::string, std::unique_ptr<TtyForwarder>> tty_forwarders_;
    std::map<unsigned, std::unique_ptr<SmpSimulator>> bootloaders_;
    std::map<unsigned, Kit> away_; // rebooting
    unsigned next_id_ = 1;
    unsigned next_port_ = 1;
    unsigned next_devnum_ = 2;
    unsigned next_tty_ = 0;

    std::mutex reboot_mutex_;
    std::condition_variable reboot_wake_;
    std::multimap<Clock::time_point, Reboot> reboots_;
    bool stopping_ = false;
    std::thread reboot_thread_;
};

} // namespace HALYX::SIM
