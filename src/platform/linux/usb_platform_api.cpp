#include "platform/linux/usb_platform_api.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <tuple>

#include <fmt/format.h>

#include "core/halyx_exception.hpp"
#include "core/logging.hpp"
#include "platform/linux/usb_serial_ports.hpp"

#ifndef HALYX_UDEV_RULES_PATH
#  define HALYX_UDEV_RULES_PATH "70-halyx.rules"
#endif

namespace HALYX::Linux {
namespace {

constexpr unsigned kTransferTimeoutMs = 1000;

std::set<std::string> portNodes(const std::vector<SerialPort>& ports)
{
    std::set<std::string> nodes;
    for (const auto& port : ports) {
        nodes.insert(*port.comName);
    }
    return nodes;
}

// The serial ports a device will show once its drivers are bound: one per
// CDC ACM communication interface. Other serial drivers are not waited for.
size_t expectedPorts(const USBDevice& device)
{
    if (device.configurations.empty()) {
        return 0;
    }
    const auto& interfaces = device.configurations.front().interfaces;
    return static_cast<size_t>(std::count_if(interfaces.begin(), interfaces.end(), [](const auto& i) {
        return i.bInterfaceClass == 0x02 && i.bInterfaceSubClass == 0x02 && i.bAlternateSetting == 0;
    }));
}

std::vector<uint8_t> readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

UdevDevicePtr findUsbDevice(udev* context, uint8_t bus, uint8_t address, const std::string& sysname)
{
    if (UdevDevicePtr device{udev_device_new_from_subsystem_sysname(context, "usb", sysname.c_str())}) {
        return device;
    }
    // Names that do not follow the kernel's bus-port scheme: look by bus and address.
    UdevEnumeratePtr enumerate(udev_enumerate_new(context));
    if (!enumerate) {
        return nullptr;
    }
    udev_enumerate_add_match_subsystem(enumerate.get(), "usb");
    udev_enumerate_add_match_property(enumerate.get(), "DEVTYPE", "usb_device");
    udev_enumerate_add_match_sysattr(enumerate.get(), "busnum", std::to_string(bus).c_str());
    udev_enumerate_add_match_sysattr(enumerate.get(), "devnum", std::to_string(address).c_str());
    udev_enumerate_scan_devices(enumerate.get());
    auto* entry = udev_enumerate_get_list_entry(enumerate.get());
    return UdevDevicePtr(entry != nullptr ? udev_device_new_from_syspath(context, udev_list_entry_get_name(entry))
                                          : nullptr);
}

void signal(int fd)
{
    const uint64_t one = 1;
    if (fd >= 0) {
        [[maybe_unused]] const auto written = ::write(fd, &one, sizeof one);
    }
}

void drain(int fd)
{
    uint64_t count = 0;
    [[maybe_unused]] const auto read = ::read(fd, &count, sizeof count);
}

} // namespace

// One notification thread between a start() and the stop() that ends it.
struct USBPlatformAPI::Run {
    Run() : wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    {
        if (wake < 0) {
            throw HALYXException(HALYX_ERR_GENERAL, "Unable to create the USB notification thread's wake-up event.");
        }
    }
    ~Run() { ::close(wake); }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    bool onThisThread() const { return thread.get_id() == std::this_thread::get_id(); }

    const int wake;
    std::atomic<bool> stop{false};
    std::thread thread;
};

USBPlatformAPI::USBPlatformAPI()
{
    const int result = libusb_init(&usb_);
    if (result != LIBUSB_SUCCESS) {
        usb_ = nullptr;
        init_error_ = libusb_error_name(result);
        Log::error("Unable to initialise libusb: {}", init_error_);
    }
}

USBPlatformAPI::~USBPlatformAPI()
{
    try {
        stop();
    } catch (const std::exception& e) {
        Log::exception(spdlog::level::err, e, "HALYX::Linux::USBPlatformAPI:");
    }
    if (run_) {
        // Stopped from its own callback, which is destroying us: the context
        // refuses that, so this is a caller's mistake that must not abort.
        Log::critical("The USB notification thread is destroyed from its own callback; it is left to end alone.");
        run_->thread.detach();
    }
    for (auto& [key, known] : known_) {
        libusb_unref_device(known.device);
    }
    if (usb_ != nullptr) {
        libusb_exit(usb_);
    }
}

void USBPlatformAPI::requireContext() const
{
    if (usb_ == nullptr) {
        throw HALYXException(HALYX_ERR_GENERAL,
                             fmt::format("USB is not available: libusb could not be initialised ({}).", init_error_));
    }
}

void USBPlatformAPI::setArrivalCallback(DeviceCallback callback)
{
    std::lock_guard lock(callbacks_mutex_);
    arrival_ = std::move(callback);
}

void USBPlatformAPI::setRemovalCallback(DeviceCallback callback)
{
    std::lock_guard lock(callbacks_mutex_);
    removal_ = std::move(callback);
}

void USBPlatformAPI::setUpdateCallback(DeviceCallback callback)
{
    std::lock_guard lock(callbacks_mutex_);
    update_ = std::move(callback);
}

void USBPlatformAPI::setSettleTime(std::chrono::milliseconds settle)
{
    settle_ms_ = static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(settle.count(), 0, 60000));
}

std::vector<USBDevice> USBPlatformAPI::enumerate()
{
    Log::ScopeTimer timer("HALYX::Linux::USBPlatformAPI::enumerate");
    return list(true);
}

std::vector<USBDevice> USBPlatformAPI::list(bool forget_departed)
{
    requireContext();
    auto context = makeUdev();

    const uint64_t listed = stamps_.load();
    libusb_device** attached = nullptr;
    const ssize_t count = libusb_get_device_list(usb_, &attached);
    if (count < 0) {
        throw HALYXException(HALYX_ERR_GENERAL, fmt::format("Error when retrieving device paths: {}",
                                                            libusb_error_name(static_cast<int>(count))));
    }
    std::map<std::string, std::vector<SerialPort>> ports_by_device;
    for (auto& port : listUsbSerialPorts(context.get())) {
        ports_by_device[*port.usbIdentifier].push_back(std::move(port));
    }

    std::vector<USBDevice> devices;
    std::set<BusAddress> present;
    for (ssize_t i = 0; i < count; ++i) {
        try {
            std::string syspath;
            if (auto device = copyDeviceToUSB(attached[i], context.get(), &syspath)) {
                remember(attached[i], *device, syspath, portNodes(ports_by_device[device->usbIdentifier]));
                present.emplace(device->busNumber, device->address);
                devices.push_back(std::move(*device));
            }
        } catch (const std::exception& e) {
            Log::exception(spdlog::level::warn, e, "Unable to copy USB:");
        }
    }
    libusb_free_device_list(attached, 1);
    if (forget_departed) {
        forgetAllBut(present, listed);
    }
    // Bus order, so that ids follow the order in which the devices were attached.
    std::sort(devices.begin(), devices.end(), [](const USBDevice& a, const USBDevice& b) {
        return std::tie(a.busNumber, a.address) < std::tie(b.busNumber, b.address);
    });
    return devices;
}

std::optional<USBDevice> USBPlatformAPI::copyDeviceToUSB(libusb_device* device, udev* context, std::string* syspath)
{
    Log::ScopeTimer timer("HALYX::Linux::USBPlatformAPI::copyDeviceToUSB");
    uint8_t ports[8];
    const int depth = libusb_get_port_numbers(device, ports, sizeof ports);
    if (depth <= 0) {
        return std::nullopt; // a root hub: the host's own, not an attached device
    }
    USBDevice record;
    record.busNumber = libusb_get_bus_number(device);
    record.address = libusb_get_device_address(device);
    std::string sysname = fmt::format("{}-{}", record.busNumber, ports[0]);
    for (int i = 1; i < depth; ++i) {
        sysname += fmt::format(".{}", ports[i]);
    }
    const auto sysfs = findUsbDevice(context, record.busNumber, record.address, sysname);
    if (!sysfs) {
        Log::warn("Unable to copy USB: no sysfs entry for bus {} address {}", record.busNumber, record.address);
        return std::nullopt;
    }

    libusb_device_descriptor d{};
    if (const int result = libusb_get_device_descriptor(device, &d); result != LIBUSB_SUCCESS) {
        Log::warn("Unable to copy USB: no device descriptor for {} ({})", sysname, libusb_error_name(result));
        return std::nullopt;
    }
    record.descriptor = USBDeviceDescriptor{d.bLength,         d.bDescriptorType,   d.bcdUSB,          d.bDeviceClass,
                                            d.bDeviceSubClass, d.bDeviceProtocol,   d.bMaxPacketSize0, d.idVendor,
                                            d.idProduct,       d.bcdDevice,         d.iManufacturer,   d.iProduct,
                                            d.iSerialNumber,   d.bNumConfigurations};
    record.manufacturer = sysattr(sysfs.get(), "manufacturer");
    record.product = sysattr(sysfs.get(), "product");
    record.serialNumber = sysattr(sysfs.get(), "serial");
    const char* node = udev_device_get_devnode(sysfs.get());
    record.osDevicePath =
        node != nullptr ? node : fmt::format("/dev/bus/usb/{:03}/{:03}", record.busNumber, record.address);
    record.usbIdentifier = udev_device_get_sysname(sysfs.get());
    *syspath = udev_device_get_syspath(sysfs.get());

    // The kernel's copy: the device descriptor, then every configuration as sent.
    const auto raw = readFile(*syspath + "/descriptors");
    if (!raw.empty() && raw[0] <= raw.size()) {
        record.configurations = walkConfigurationDescriptors(raw.data() + raw[0], raw.size() - raw[0]);
    } else {
        Log::warn("No configuration descriptor found for USB {}.", record.usbIdentifier);
    }
    return record;
}

void USBPlatformAPI::remember(libusb_device* device, const USBDevice& record, const std::string& syspath,
                              std::set<std::string> ports)
{
    USBDevice identity;
    identity.busNumber = record.busNumber;
    identity.address = record.address;
    identity.serialNumber = record.serialNumber;
    identity.usbIdentifier = record.usbIdentifier;
    identity.osDevicePath = record.osDevicePath;
    libusb_ref_device(device);
    libusb_device* replaced = nullptr;
    {
        std::lock_guard lock(known_mutex_);
        auto& known = known_[{record.busNumber, record.address}];
        replaced = known.device;
        known = Known{std::move(identity), syspath, std::move(ports), device, ++stamps_};
    }
    if (replaced != nullptr) {
        libusb_unref_device(replaced);
    }
}

void USBPlatformAPI::forgetAllBut(const std::set<BusAddress>& present, uint64_t listed)
{
    std::vector<libusb_device*> forgotten;
    {
        std::lock_guard lock(known_mutex_);
        std::erase_if(known_, [&](const auto& entry) {
            if (present.contains(entry.first) || entry.second.stamp > listed) {
                return false;
            }
            forgotten.push_back(entry.second.device);
            return true;
        });
    }
    for (auto* device : forgotten) {
        libusb_unref_device(device);
    }
}

int USBPlatformAPI::controlTransfer(const USBDevice& device, uint8_t request_type, uint8_t request, uint8_t* data,
                                    uint16_t length)
{
    requireContext();
    const auto* interface = findDfuTriggerInterface(device);
    if (interface == nullptr) {
        throw HALYXException(HALYX_ERR_NOT_FOUND, "No DFU interface.");
    }
    libusb_device* usb_device = nullptr;
    {
        std::lock_guard lock(known_mutex_);
        if (const auto it = known_.find({device.busNumber, device.address}); it != known_.end()) {
            usb_device = libusb_ref_device(it->second.device);
        }
    }
    if (usb_device == nullptr) {
        throw HALYXException(HALYX_ERR_NOT_FOUND,
                             fmt::format("USB device {} is not attached (any more).", device.osDevicePath));
    }
    libusb_device_handle* handle = nullptr;
    int result = libusb_open(usb_device, &handle);
    libusb_unref_device(usb_device);
    if (result == LIBUSB_ERROR_ACCESS) {
        Log::error("Permission denied opening USB device {} ({:04x}:{:04x}). Install the udev rules file {} "
                   "(see the README, section Permissions), then replug the device.",
                   device.osDevicePath, device.descriptor.idVendor, device.descriptor.idProduct, HALYX_UDEV_RULES_PATH);
        return result;
    }
    if (result != LIBUSB_SUCCESS) {
        Log::error("Unable to open USB device {}: {}", device.osDevicePath, libusb_error_name(result));
        return result;
    }
    // The interface's number goes in the setup packet's index, and the data
    // stage is sized by its length field: both are what the device expects.
    result = libusb_control_transfer(handle, request_type, request, 0, interface->bInterfaceNumber, data, length,
                                     kTransferTimeoutMs);
    libusb_close(handle);
    return result;
}

void USBPlatformAPI::sendTriggerRequest(const USBDevice& device, uint8_t request)
{
    Log::ScopeTimer timer("HALYX::Linux::USBPlatformAPI::sendTriggerRequest");
    if (controlTransfer(device, 0x21, request, nullptr, 0) < 0) {
        Log::debug("Control transfer was not successful. This is as expected.");
    } else {
        Log::debug("Control transfer was successful, but this is not as expected.");
    }
}

bool USBPlatformAPI::vendorRead(const USBDevice& device, uint8_t request, std::vector<uint8_t>& buffer)
{
    Log::ScopeTimer timer("HALYX::Linux::USBPlatformAPI::vendorRead");
    const auto capacity = static_cast<uint16_t>(std::min<size_t>(buffer.size(), 0xFFFF));
    const int result = controlTransfer(device, 0xA1, request, buffer.data(), capacity);
    if (result < 0) {
        Log::debug("Vendor read {} to {} failed: {}", request, device.osDevicePath, libusb_error_name(result));
        return false;
    }
    buffer.resize(static_cast<size_t>(result));
    return true;
}

void USBPlatformAPI::start()
{
    Log::ScopeTimer timer("HALYX::Linux::USBPlatformAPI::start");
    requireContext();
    if (libusb_has_capability(LIBUSB_CAP_HAS_HOTPLUG) == 0) {
        throw HALYXException(HALYX_ERR_NOT_SUPPORTED, "Unable to register for USB device notification.");
    }
    std::unique_ptr<Run> ended;
    {
        std::lock_guard lock(lifecycle_mutex_);
        if (run_ && run_->onThisThread()) {
            throw HALYXException(HALYX_ERR_INVALID_STATE, "Hot-plug events cannot be restarted from a device event "
                                                          "callback; start them from another thread.");
        }
        if (run_ && !run_->stop) {
            return;
        }
        ended = std::move(run_);
    }
    if (ended) {
        // Stopped from its own callback: it has ended or is about to.
        ended->thread.join();
    }
    // What is attached now must be known for its removal to be reported.
    // Devices that left while stopped stay known: libusb still holds their
    // removal notices, and the records of the device pool need them.
    try {
        (void)list(false);
    } catch (const std::exception& e) {
        Log::exception(spdlog::level::warn, e, "HALYX::Linux::USBPlatformAPI::start:");
    }
    auto run = std::make_unique<Run>();
    std::lock_guard lock(lifecycle_mutex_);
    if (run_) {
        return; // another thread started one meanwhile
    }
    wake_fd_ = run->wake;
    run->thread = std::thread([this, run = run.get()] { this->run(*run); });
    run_ = std::move(run);
}

void USBPlatformAPI::stop()
{
    std::unique_ptr<Run> ending;
    {
        std::lock_guard lock(lifecycle_mutex_);
        if (!run_) {
            return;
        }
        run_->stop = true;
        signal(run_->wake);
        if (run_->onThisThread()) {
            return; // a callback: the run ends once it returns
        }
        ending = std::move(run_);
    }
    Log::ScopeTimer timer("HALYX::Linux::USBPlatformAPI::stop");
    ending->thread.join();
}

int LIBUSB_CALL USBPlatformAPI::onHotplug(libusb_context*, libusb_device* device, libusb_hotplug_event event,
                                          void* self)
{
    auto* platform = static_cast<USBPlatformAPI*>(self);
    {
        std::lock_guard lock(platform->queue_mutex_);
        platform->queue_.emplace_back(libusb_ref_device(device), event == LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED);
    }
    // This may run on another thread's event handling; wake the run.
    signal(platform->wake_fd_.load());
    return 0;
}

void USBPlatformAPI::run(Run& run)
{
    libusb_hotplug_callback_handle handle = 0;
    bool registered = false;
    try {
        auto context = makeUdev();
        UdevMonitorPtr monitor(udev_monitor_new_from_netlink(context.get(), "udev"));
        if (!monitor || udev_monitor_filter_add_match_subsystem_devtype(monitor.get(), "tty", nullptr) < 0 ||
            udev_monitor_enable_receiving(monitor.get()) < 0) {
            Log::error("Unable to register for serial port notification; late serial ports are not reported.");
            monitor.reset();
        }
        const int result = libusb_hotplug_register_callback(
            usb_, LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED | LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT, LIBUSB_HOTPLUG_NO_FLAGS,
            LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY, &USBPlatformAPI::onHotplug,
            this, &handle);
        registered = result == LIBUSB_SUCCESS;
        if (!registered) {
            Log::error("Unable to register for USB device notification. ({})", libusb_error_name(result));
        }

        std::deque<UdevDevicePtr> port_events;
        std::vector<pollfd> watched;
        while (!run.stop) {
            // libusb's descriptors change as devices are opened and closed.
            watched.clear();
            watched.push_back({run.wake, POLLIN, 0});
            if (monitor) {
                watched.push_back({udev_monitor_get_fd(monitor.get()), POLLIN, 0});
            }
            if (const libusb_pollfd** usb_fds = libusb_get_pollfds(usb_)) {
                for (auto** fd = usb_fds; *fd != nullptr; ++fd) {
                    watched.push_back({(*fd)->fd, (*fd)->events, 0});
                }
                libusb_free_pollfds(usb_fds);
            }
            int timeout_ms = -1;
            timeval next{};
            if (libusb_pollfds_handle_timeouts(usb_) == 0 && libusb_get_next_timeout(usb_, &next) == 1) {
                timeout_ms = static_cast<int>(next.tv_sec * 1000 + (next.tv_usec + 999) / 1000);
            }
            if (::poll(watched.data(), watched.size(), timeout_ms) < 0 && errno != EINTR) {
                throw HALYXException(HALYX_ERR_GENERAL, fmt::format("poll failed: {}", std::strerror(errno)));
            }
            if ((watched[0].revents & POLLIN) != 0) {
                drain(run.wake);
            }
            timeval now{0, 0};
            libusb_handle_events_timeout_completed(usb_, &now, nullptr);

            std::deque<std::pair<libusb_device*, bool>> batch;
            {
                std::lock_guard lock(queue_mutex_);
                batch.swap(queue_);
            }
            for (auto& [device, arrived] : batch) {
                if (!run.stop) {
                    try {
                        if (arrived) {
                            handleArrival(run, device, context.get(), monitor.get(), port_events);
                        } else {
                            handleRemoval(device);
                        }
                    } catch (const std::exception& e) {
                        Log::exception(spdlog::level::err, e, "USB hot-plug notice could not be handled:");
                    }
                }
                libusb_unref_device(device);
            }
            drainMonitor(monitor.get(), port_events);
            for (; !port_events.empty() && !run.stop; port_events.pop_front()) {
                handlePortEvent(port_events.front().get());
            }
        }
    } catch (const std::exception& e) {
        Log::exception(spdlog::level::err, e, "The USB notification thread ended:");
    } catch (...) {
        Log::error("The USB notification thread ended with an unknown error.");
    }
    if (registered) {
        libusb_hotplug_deregister_callback(usb_, handle);
    }
    wake_fd_ = -1;
    std::lock_guard lock(queue_mutex_);
    for (auto& [device, arrived] : queue_) {
        libusb_unref_device(device);
    }
    queue_.clear();
}

void USBPlatformAPI::handleArrival(Run& run, libusb_device* device, udev* context, udev_monitor* monitor,
                                   std::deque<UdevDevicePtr>& port_events)
{
    std::string syspath;
    auto record = copyDeviceToUSB(device, context, &syspath);
    if (!record) {
        return;
    }
    // Report the device with its serial ports: their drivers bind after the
    // device itself appears, so wait for them, up to the settle time.
    const auto expected = expectedPorts(*record);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(settle_ms_.load());
    auto nodes = portNodes(listUsbSerialPorts(context, syspath.c_str()));
    while (nodes.size() < expected && !run.stop) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
        if (left <= 0) {
            Log::debug("USB {}: {} of {} serial ports after the settle time; later ones arrive as an update",
                       record->usbIdentifier, nodes.size(), expected);
            break;
        }
        // A port's udev notice (or a stop) ends the wait; without a monitor,
        // only the time limit does.
        pollfd watched[2] = {{run.wake, POLLIN, 0},
                             {monitor != nullptr ? udev_monitor_get_fd(monitor) : -1, POLLIN, 0}};
        ::poll(watched, 2, static_cast<int>(left));
        drainMonitor(monitor, port_events);
        nodes = portNodes(listUsbSerialPorts(context, syspath.c_str()));
    }
    remember(device, *record, syspath, std::move(nodes));
    call(arrival_, *record, "arrival");
}

void USBPlatformAPI::handleRemoval(libusb_device* device)
{
    const BusAddress key{libusb_get_bus_number(device), libusb_get_device_address(device)};
    std::optional<USBDevice> identity;
    libusb_device* referenced = nullptr;
    {
        std::lock_guard lock(known_mutex_);
        if (auto node = known_.extract(key)) {
            identity = std::move(node.mapped().identity);
            referenced = node.mapped().device;
        }
    }
    if (referenced != nullptr) {
        libusb_unref_device(referenced);
    }
    if (!identity) {
        Log::debug("USB device at bus {} address {} left before it was reported", key.first, key.second);
        return;
    }
    call(removal_, *identity, "removal");
}

void USBPlatformAPI::handlePortEvent(udev_device* tty)
{
    const char* action = udev_device_get_action(tty);
    const char* node = udev_device_get_devnode(tty);
    if (action == nullptr || node == nullptr || std::string_view(action) != "add") {
        return; // a departing port goes with its USB device
    }
    udev_device* usb = udev_device_get_parent_with_subsystem_devtype(tty, "usb", "usb_device");
    if (usb == nullptr) {
        return;
    }
    const std::string syspath = udev_device_get_syspath(usb);
    std::optional<USBDevice> identity;
    {
        std::lock_guard lock(known_mutex_);
        for (auto& [key, known] : known_) {
            if (known.syspath == syspath && known.ports.insert(node).second) {
                identity = known.identity;
                break;
            }
        }
    }
    if (identity) {
        call(update_, *identity, "update");
    }
}

void USBPlatformAPI::drainMonitor(udev_monitor* monitor, std::deque<UdevDevicePtr>& into)
{
    if (monitor == nullptr) {
        return;
    }
    for (;;) {
        pollfd watch{udev_monitor_get_fd(monitor), POLLIN, 0};
        if (::poll(&watch, 1, 0) <= 0) {
            return;
        }
        UdevDevicePtr device(udev_monitor_receive_device(monitor));
        if (!device) {
            return;
        }
        into.push_back(std::move(device));
    }
}

void USBPlatformAPI::call(const DeviceCallback& callback, const USBDevice& device, const char* what)
{
    DeviceCallback target;
    {
        std::lock_guard lock(callbacks_mutex_);
        target = callback;
    }
    if (!target) {
        return;
    }
    try {
        target(device);
    } catch (const std::exception& e) {
        Log::exception(spdlog::level::err, e,
                       fmt::format("USB {} of {} could not be delivered:", what, device.usbIdentifier));
    } catch (...) {
        Log::error("USB {} of {} could not be delivered: unknown error", what, device.usbIdentifier);
    }
}

} // namespace HALYX::Linux
