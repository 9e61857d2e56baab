#include "testbed.hpp"

#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <optional>
#include <stdexcept>

#include <umockdev.h>

#include "smp_simulator.hpp"

namespace HALYX::SIM {
namespace {

// Drops a GObject reference when it goes out of scope.
struct Unref {
    void operator()(gpointer object) const
    {
        if (object != nullptr) {
            g_object_unref(object);
        }
    }
};
template <typename T>
using GPtr = std::unique_ptr<T, Unref>;

[[noreturn]] void fail(const std::string& what, GError* error)
{
    std::string message = what + (error != nullptr ? std::string(": ") + error->message : std::string());
    if (error != nullptr) {
        g_error_free(error);
    }
    throw std::runtime_error(message);
}

std::filesystem::path rootDir(UMockdevTestbed* testbed)
{
    gchar* root = umockdev_testbed_get_root_dir(testbed);
    std::filesystem::path path(root);
    g_free(root);
    return path;
}

std::vector<uint8_t> stringDescriptor(const std::string& text)
{
    std::vector<uint8_t> out{static_cast<uint8_t>(2 + 2 * text.size()), 0x03};
    for (const char c : text) {
        out.push_back(static_cast<uint8_t>(c));
        out.push_back(0);
    }
    return out;
}

} // namespace

// Answers a kit's control transfers on usbfs. Runs on umockdev's worker thread.
// Counts a node's open files, so that the handler of a removed node can go
// once the last client has closed it.
class OpenFiles {
public:
    explicit OpenFiles(UMockdevIoctlBase* handler) : handler_(handler)
    {
        g_signal_connect(handler_, "client-connected", G_CALLBACK(&OpenFiles::onConnected), this);
        g_signal_connect(handler_, "client-vanished", G_CALLBACK(&OpenFiles::onVanished), this);
    }
    ~OpenFiles() { g_signal_handlers_disconnect_by_data(handler_, this); }
    OpenFiles(const OpenFiles&) = delete;
    OpenFiles& operator=(const OpenFiles&) = delete;

    bool any() const { return count_ > 0; }

private:
    static void onConnected(UMockdevIoctlBase*, UMockdevIoctlClient*, gpointer self)
    {
        ++static_cast<OpenFiles*>(self)->count_;
    }
    static void onVanished(UMockdevIoctlBase*, UMockdevIoctlClient*, gpointer self)
    {
        --static_cast<OpenFiles*>(self)->count_;
    }

    UMockdevIoctlBase* handler_;
    std::atomic<int> count_{0};
};

class UsbResponder {
public:
    explicit UsbResponder(KitModel model) : model_(std::move(model)), handler_(umockdev_ioctl_base_new())
    {
        g_signal_connect(handler_.get(), "handle-ioctl", G_CALLBACK(&UsbResponder::onIoctl), this);
        g_signal_connect(handler_.get(), "client-vanished", G_CALLBACK(&UsbResponder::onVanished), this);
    }
    ~UsbResponder()
    {
        g_signal_handlers_disconnect_by_data(handler_.get(), this);
        std::lock_guard lock(mutex_);
        for (auto& [client, urbs] : completed_) {
            drop(urbs);
        }
    }
    UMockdevIoctlBase* handler() const { return handler_.get(); }
    bool inUse() const { return open_files_.any(); }

private:
    // The reply to a control request, or nullopt for a stall.
    std::optional<std::vector<uint8_t>> answer(const uint8_t* setup) const
    {
        const uint8_t type = setup[0];
        const uint8_t request = setup[1];
        const uint16_t value = static_cast<uint16_t>(setup[2] | (setup[3] << 8));
        const uint16_t index = static_cast<uint16_t>(setup[4] | (setup[5] << 8));
        if (type == 0x80 && request == 0x06) { // GET_DESCRIPTOR
            const uint8_t kind = static_cast<uint8_t>(value >> 8);
            const uint8_t number = static_cast<uint8_t>(value & 0xFF);
            if (kind == 0x01) {
                return deviceDescriptor(model_);
            }
            if (kind == 0x02) {
                return configurationDescriptor(model_);
            }
            if (kind == 0x03) {
                switch (number) {
                case 0:
                    return std::vector<uint8_t>{4, 0x03, 0x09, 0x04};
                case 1:
                    return stringDescriptor(model_.manufacturer);
                case 2:
                    return stringDescriptor(model_.product);
                case 3:
                    if (model_.serialNumber) {
                        return stringDescriptor(*model_.serialNumber);
                    }
                    break;
                default:
                    break;
                }
            }
            return std::nullopt;
        }
        const bool to_trigger = model_.dfuTrigger && (index & 0xFF) == dfuTriggerInterface(model_);
        if (type == 0xA1 && to_trigger) {
            if (request == 8 && !model_.semVer.empty()) {
                std::vector<uint8_t> text(model_.semVer.begin(), model_.semVer.end());
                text.push_back(0);
                return text;
            }
            if (request == 7 && !model_.dfuInfo.empty()) {
                return model_.dfuInfo;
            }
        }
        return std::nullopt;
    }

    static gboolean onIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self)
    {
        static_cast<UsbResponder*>(self)->handle(client);
        return TRUE;
    }

    // An open file of the node closed: what it submitted and never reaped goes with it.
    static void onVanished(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self)
    {
        auto* responder = static_cast<UsbResponder*>(self);
        std::lock_guard lock(responder->mutex_);
        if (auto node = responder->completed_.extract(client)) {
            drop(node.mapped());
        }
    }

    static void drop(std::deque<UMockdevIoctlData*>& urbs)
    {
        for (auto* urb : urbs) {
            g_object_unref(urb);
        }
        urbs.clear();
    }

    void handle(UMockdevIoctlClient* client)
    {
        const gulong request = umockdev_ioctl_client_get_request(client);
        UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
        if (request == USBDEVFS_SUBMITURB) {
            GPtr<UMockdevIoctlData> urb_data(umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_urb), nullptr));
            auto* urb = urb_data ? reinterpret_cast<usbdevfs_urb*>(urb_data->data) : nullptr;
            if (urb == nullptr || urb->type != USBDEVFS_URB_TYPE_CONTROL || urb->buffer_length < 8) {
                umockdev_ioctl_client_complete(client, -1, EINVAL);
                return;
            }
            GPtr<UMockdevIoctlData> buffer(
                umockdev_ioctl_data_resolve(urb_data.get(), G_STRUCT_OFFSET(usbdevfs_urb, buffer),
                                            static_cast<gsize>(urb->buffer_length), nullptr));
            if (!buffer) {
                umockdev_ioctl_client_complete(client, -1, EFAULT);
                return;
            }
            const auto reply = answer(buffer->data);
            const uint16_t wanted = static_cast<uint16_t>(buffer->data[6] | (buffer->data[7] << 8));
            if (reply) {
                const size_t room = std::min<size_t>(wanted, static_cast<size_t>(urb->buffer_length - 8));
                const size_t n = std::min(room, reply->size());
                std::memcpy(buffer->data + 8, reply->data(), n);
                urb->actual_length = static_cast<int>(n);
                urb->status = 0;
            } else {
                urb->actual_length = 0;
                urb->status = -EPIPE;
            }
            {
                std::lock_guard lock(mutex_);
                completed_[client].push_back(urb_data.release());
            }
            umockdev_ioctl_client_complete(client, 0, 0);
            return;
        }
        if (request == USBDEVFS_REAPURB || request == USBDEVFS_REAPURBNDELAY) {
            GPtr<UMockdevIoctlData> urb;
            {
                std::lock_guard lock(mutex_);
                auto mine = completed_.find(client);
                if (mine != completed_.end() && !mine->second.empty()) {
                    urb.reset(mine->second.front());
                    mine->second.pop_front();
                }
            }
            if (!urb) {
                umockdev_ioctl_client_complete(client, -1, EAGAIN);
                return;
            }
            GPtr<UMockdevIoctlData> out(umockdev_ioctl_data_resolve(arg, 0, sizeof(void*), nullptr));
            if (!out) {
                umockdev_ioctl_client_complete(client, -1, EFAULT);
                return;
            }
            umockdev_ioctl_data_set_ptr(out.get(), 0, urb.get());
            umockdev_ioctl_client_complete(client, 0, 0);
            return;
        }
        // Claims, capabilities and the rest: not emulated, as on a kernel without them.
        umockdev_ioctl_client_complete(client, -1, ENOTTY);
    }

    const KitModel model_;
    GPtr<UMockdevIoctlBase> handler_;
    OpenFiles open_files_{handler_.get()};
    std::mutex mutex_;
    // Per open file, as the kernel keeps them: a URB is reaped only through
    // the file that submitted it. Each holds a reference.
    std::map<UMockdevIoctlClient*, std::deque<UMockdevIoctlData*>> completed_;
};

// Runs a tty's ioctls on the real pty behind it (umockdev answers them with
// ENOTTY otherwise, which breaks non-blocking serial I/O).
class TtyForwarder {
public:
    TtyForwarder() : handler_(umockdev_ioctl_base_new())
    {
        g_signal_connect(handler_.get(), "handle-ioctl", G_CALLBACK(&TtyForwarder::onIoctl), nullptr);
    }
    UMockdevIoctlBase* handler() const { return handler_.get(); }
    bool inUse() const { return open_files_.any(); }

private:
    static gboolean onIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer)
    {
        int error = 0;
        const int result = umockdev_ioctl_client_execute(client, &error, nullptr);
        umockdev_ioctl_client_complete(client, result, error);
        return TRUE;
    }

    GPtr<UMockdevIoctlBase> handler_;
    OpenFiles open_files_{handler_.get()};
};

Testbed::Testbed() : testbed_(umockdev_testbed_new())
{
    if (!inMockEnvironment()) {
        g_object_unref(testbed_);
        throw std::runtime_error("simulated kits need the umockdev preload: run this program under umockdev-wrapper");
    }
    reboot_thread_ = std::thread([this] { serveReboots(); });
}

Testbed::~Testbed()
{
    {
        std::lock_guard lock(reboot_mutex_);
        stopping_ = true;
    }
    reboot_wake_.notify_all();
    reboot_thread_.join();
    // Their reboot handlers only queue now; nobody serves the queue.
    bootloaders_.clear();
    for (const auto& [node, responder] : usb_responders_) {
        umockdev_testbed_detach_ioctl(testbed_, node.c_str(), nullptr);
    }
    for (const auto& [node, forwarder] : tty_forwarders_) {
        umockdev_testbed_detach_ioctl(testbed_, node.c_str(), nullptr);
    }
    for (const auto& [node, responder] : retired_responders_) {
        umockdev_testbed_detach_ioctl(testbed_, node.c_str(), nullptr);
    }
    for (const auto& [node, forwarder] : retired_forwarders_) {
        umockdev_testbed_detach_ioctl(testbed_, node.c_str(), nullptr);
    }
    usb_responders_.clear();
    tty_forwarders_.clear();
    retired_responders_.clear();
    retired_forwarders_.clear();
    g_object_unref(testbed_);
}

bool Testbed::inMockEnvironment()
{
    // umockdev_in_mock_environment() answers false under the wrapper too.
    const char* preload = std::getenv("LD_PRELOAD");
    return preload != nullptr && std::strstr(preload, "libumockdev-preload") != nullptr;
}

void Testbed::addNode(const SysfsNode& node)
{
    GError* error = nullptr;
    if (!umockdev_testbed_add_from_string(testbed_, node.text.c_str(), &error)) {
        fail("cannot add " + node.syspath, error);
    }
}

const Testbed::Kit& Testbed::plug(const KitModel& model, bool ports_later)
{
    std::lock_guard lock(mutex_);
    Kit kit;
    kit.id = next_id_++;
    kit.model = model;
    kit.place = Placement{1, next_port_++, next_devnum_++, next_tty_};
    next_tty_ += model.cdcPorts;
    attachKit(kit, ports_later);
    if (!ports_later) {
        startBootloader(kit);
    }
    return kits_[kit.id] = std::move(kit);
}

// Adds the kit's nodes at its placement and answers for them.
void Testbed::attachKit(Kit& kit, bool ports_later)
{
    const auto nodes = describeKit(kit.model, kit.place);
    kit.usbSyspath = nodes.front().syspath;
    kit.usbNode = nodes.front().devnode;
    kit.ttys.clear();
    kit.devlinks.clear();
    kit.syspaths.clear();

    std::vector<SysfsNode> ports;
    for (const auto& node : nodes) {
        if (node.devnode.starts_with("/dev/tty")) {
            kit.ttys.push_back(node.devnode);
            if (!node.devlink.empty()) {
                kit.devlinks.push_back(node.devlink);
            }
            if (ports_later) {
                ports.push_back(node);
                continue;
            }
        }
        addNode(node);
        kit.syspaths.push_back(node.syspath);
        if (node.devnode.starts_with("/dev/tty")) {
            bindTty(node);
        }
        if (&node == &nodes.front()) {
            auto responder = std::make_unique<UsbResponder>(kit.model);
            GError* error = nullptr;
            if (!umockdev_testbed_attach_ioctl(testbed_, kit.usbNode.c_str(), responder->handler(), &error)) {
                fail("cannot attach to " + kit.usbNode, error);
            }
            usb_responders_[kit.usbNode] = std::move(responder);
        }
    }
    if (!ports.empty()) {
        pending_ports_[kit.id] = std::move(ports);
    }
}

void Testbed::addPorts(unsigned id)
{
    std::lock_guard lock(mutex_);
    auto pending = pending_ports_.extract(id);
    if (pending.empty()) {
        return;
    }
    auto& kit = kits_.at(id);
    for (const auto& node : pending.mapped()) {
        addNode(node);
        kit.syspaths.push_back(node.syspath);
        bindTty(node);
    }
    startBootloader(kit);
}

// udev would add the by-id link. Here it is one link in the testbed's /dev
// and one beside the tty's ioctl socket: the preload looks for a socket
// under the name the client opened, and without one answers ioctls itself.
void Testbed::bindTty(const SysfsNode& node)
{
    auto forwarder = std::make_unique<TtyForwarder>();
    GError* error = nullptr;
    if (!umockdev_testbed_attach_ioctl(testbed_, node.devnode.c_str(), forwarder->handler(), &error)) {
        fail("cannot attach to " + node.devnode, error);
    }
    tty_forwarders_[node.devnode] = std::move(forwarder);
    if (node.devlink.empty()) {
        return;
    }
    const auto root = rootDir(testbed_);
    for (const auto& tree : {root, root / "ioctl"}) {
        const auto link = tree / node.devlink.substr(1);
        const auto target = (tree / node.devnode.substr(1)).lexically_relative(link.parent_path());
        std::filesystem::create_directories(link.parent_path());
        std::filesystem::remove(link); // a kit of the same serial number plugged earlier
        std::filesystem::create_symlink(target, link);
    }
}

void Testbed::removeLink(const std::string& devlink)
{
    const auto root = rootDir(testbed_);
    std::error_code ignored;
    std::filesystem::remove(root / devlink.substr(1), ignored);
    std::filesystem::remove(root / "ioctl" / devlink.substr(1), ignored);
}

void Testbed::startBootloader(const Kit& kit)
{
    if (!kit.model.serialRecovery || kit.ttys.empty()) {
        return;
    }
    const auto& tty = kit.ttys.front();
    const int master = umockdev_testbed_get_dev_fd(testbed_, tty.c_str());
    if (master < 0) {
        throw std::runtime_error("no terminal behind " + tty);
    }
    auto bootloader = std::make_unique<SmpSimulator>(kit.model.bootloader, master, tty);
    bootloader->setRebootHandler([this, id = kit.id](std::chrono::milliseconds away) { requestReboot(id, away); });
    bootloaders_[kit.id] = std::move(bootloader);
}

void Testbed::unplug(unsigned id)
{
    std::lock_guard lock(mutex_);
    if (away_.erase(id) > 0) {
        bootloaders_.erase(id);
        return;
    }
    auto node = kits_.extract(id);
    if (node.empty()) {
        throw std::invalid_argument("no simulated kit with id " + std::to_string(id));
    }
    pending_ports_.erase(id);
    // Silence the boot loader before its terminal goes away.
    bootloaders_.erase(id);
    detachKit(node.mapped());
}

// Removes the kit's nodes, children first, with "remove" uevents.
void Testbed::detachKit(const Kit& kit)
{
    for (const auto& tty : kit.ttys) {
        if (auto forwarder = tty_forwarders_.extract(tty)) {
            retired_forwarders_.emplace_back(tty, std::move(forwarder.mapped()));
        }
    }
    for (const auto& link : kit.devlinks) {
        removeLink(link);
    }
    if (auto responder = usb_responders_.extract(kit.usbNode)) {
        retired_responders_.emplace_back(kit.usbNode, std::move(responder.mapped()));
    }
    for (auto it = kit.syspaths.rbegin(); it != kit.syspaths.rend(); ++it) {
        umockdev_testbed_uevent(testbed_, it->c_str(), "remove");
        umockdev_testbed_remove_device(testbed_, it->c_str());
    }
    releaseClosed(retired_responders_);
    releaseClosed(retired_forwarders_);
}

// Handlers of removed nodes that nobody has open any more: a test that plugs
// and unplugs for hours must not keep every one.
template <typename Handler>
void Testbed::releaseClosed(std::vector<std::pair<std::string, std::unique_ptr<Handler>>>& retired)
{
    std::erase_if(retired, [this](const auto& entry) {
        if (entry.second->inUse()) {
            return false;
        }
        umockdev_testbed_detach_ioctl(testbed_, entry.first.c_str(), nullptr);
        return true;
    });
}

// On a boot loader's thread: only queue, the reboot thread does the rest.
void Testbed::requestReboot(unsigned id, std::chrono::milliseconds away)
{
    {
        std::lock_guard lock(reboot_mutex_);
        reboots_.emplace(Clock::now(), Reboot{id, false, away});
    }
    reboot_wake_.notify_all();
}

void Testbed::serveReboots()
{
    std::unique_lock lock(reboot_mutex_);
    while (!stopping_) {
        if (reboots_.empty()) {
            reboot_wake_.wait(lock);
            continue;
        }
        const auto due = reboots_.begin()->first;
        if (Clock::now() < due) {
            reboot_wake_.wait_until(lock, due);
            continue;
        }
        const auto job = reboots_.begin()->second;
        reboots_.erase(reboots_.begin());
        lock.unlock();
        try {
            if (!job.back) {
                const auto back_at = Clock::now() + job.away;
                if (takeAway(job.id)) {
                    std::lock_guard queue(reboot_mutex_);
                    reboots_.emplace(back_at, Reboot{job.id, true, job.away});
                }
            } else {
                bringBack(job.id);
            }
        } catch (const std::exception& e) {
            std::fprintf(stderr, "simulated kit %u: reboot failed: %s\n", job.id, e.what());
        }
        lock.lock();
    }
}

// The kit leaves the bus; its boot loader, silent since the reset, stays.
bool Testbed::takeAway(unsigned id)
{
    std::lock_guard lock(mutex_);
    auto node = kits_.extract(id);
    if (node.empty()) {
        return false; // unplugged meanwhile
    }
    detachKit(node.mapped());
    away_.insert(std::move(node));
    return true;
}

// The kit is back on the same port: a new device number and new tty names,
// the same serial number and by-id links, the same boot loader.
void Testbed::bringBack(unsigned id)
{
    std::lock_guard lock(mutex_);
    auto node = away_.extract(id);
    if (node.empty()) {
        return; // unplugged while away
    }
    auto& kit = node.mapped();
    kit.place.devnum = next_devnum_++;
    kit.place.firstTty = next_tty_;
    next_tty_ += kit.model.cdcPorts;
    attachKit(kit, false);
    const auto& tty = kit.ttys.front();
    const auto it = bootloaders_.find(id);
    const int master = umockdev_testbed_get_dev_fd(testbed_, tty.c_str());
    kits_.insert(std::move(node));
    if (it != bootloaders_.end()) {
        if (master < 0) {
            throw std::runtime_error("no terminal behind " + tty);
        }
        it->second->attach(master, tty);
    }
}

void Testbed::addDescription(const std::string& text)
{
    GError* error = nullptr;
    if (!umockdev_testbed_add_from_string(testbed_, text.c_str(), &error)) {
        fail("cannot add the device description", error);
    }
}

std::vector<Testbed::Kit> Testbed::kits() const
{
    std::lock_guard lock(mutex_);
    std::vector<Kit> list;
    for (const auto& [id, kit] : kits_) {
        list.push_back(kit);
    }
    return list;
}

SmpSimulator* Testbed::bootloader(unsigned id) const
{
    std::lock_guard lock(mutex_);
    const auto it = bootloaders_.find(id);
    return it != bootloaders_.end() ? it->second.get() : nullptr;
}

int Testbed::ttyMaster(const std::string& tty) const
{
    return umockdev_testbed_get_dev_fd(testbed_, tty.c_str());
}

} // namespace HALYX::SIM
