// halyx_enumerate latency with 1, 8 and 32 simulated kits, next to the
// floor: a bare libusb + libudev listing of the same testbed (device list,
// descriptors, strings, serial ports), plus the cost of the maker's two
// vendor requests per kit on their own. One JSON line per kit count.
#include <libudev.h>
#include <libusb.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <vector>

#include "bench_json.hpp"
#include "devices/known_kits.hpp"
#include "halyx.h"
#include "kit.hpp"
#include "testbed.hpp"

namespace {

using Clock = std::chrono::steady_clock;

double medianMs(int rounds, const std::function<void()>& work)
{
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i) {
        const auto start = Clock::now();
        work();
        times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

// What any program must do to list the same facts.
size_t bareListing(libusb_context* usb)
{
    size_t found = 0;
    libusb_device** list = nullptr;
    const ssize_t count = libusb_get_device_list(usb, &list);
    for (ssize_t i = 0; i < count; ++i) {
        libusb_device_descriptor descriptor{};
        libusb_get_device_descriptor(list[i], &descriptor);
        libusb_config_descriptor* config = nullptr;
        if (libusb_get_active_config_descriptor(list[i], &config) == 0) {
            libusb_free_config_descriptor(config);
        }
    }
    libusb_free_device_list(list, 1);

    udev* context = udev_new();
    for (const char* subsystem : {"usb", "tty"}) {
        udev_enumerate* enumerate = udev_enumerate_new(context);
        udev_enumerate_add_match_subsystem(enumerate, subsystem);
        udev_enumerate_scan_devices(enumerate);
        for (auto* e = udev_enumerate_get_list_entry(enumerate); e != nullptr; e = udev_list_entry_get_next(e)) {
            udev_device* device = udev_device_new_from_syspath(context, udev_list_entry_get_name(e));
            udev_device* usb_parent = udev_device_get_parent_with_subsystem_devtype(device, "usb", "usb_device");
            if (usb_parent != nullptr) {
                found += udev_device_get_sysattr_value(usb_parent, "serial") != nullptr;
                udev_device_get_sysattr_value(usb_parent, "manufacturer");
                udev_device_get_sysattr_value(usb_parent, "product");
            }
            udev_device_unref(device);
        }
        udev_enumerate_unref(enumerate);
    }
    udev_unref(context);
    return found;
}

// The two DFU-trigger requests to every maker's kit, with bare libusb.
void vendorRequests(libusb_context* usb, uint8_t interface)
{
    libusb_device** list = nullptr;
    const ssize_t count = libusb_get_device_list(usb, &list);
    for (ssize_t i = 0; i < count; ++i) {
        libusb_device_descriptor descriptor{};
        libusb_get_device_descriptor(list[i], &descriptor);
        libusb_device_handle* handle = nullptr;
        if (!HALYX::KnownKits::isMakerDevice(descriptor.idVendor) || libusb_open(list[i], &handle) != 0) {
            continue;
        }
        unsigned char reply[255];
        libusb_control_transfer(handle, 0xA1, HALYX::KnownKits::kDfuTriggerSemVerRequest, 0, interface, reply,
                                HALYX::KnownKits::kDfuTriggerSemVerSize, 1000);
        libusb_control_transfer(handle, 0xA1, HALYX::KnownKits::kDfuTriggerInfoRequest, 0, interface, reply,
                                HALYX::KnownKits::kDfuTriggerInfoSize, 1000);
        libusb_close(handle);
    }
    libusb_free_device_list(list, 1);
}

} // namespace

int main()
{
    const int rounds = 15;
    for (const unsigned kits : {1u, 8u, 32u}) {
        HALYX::SIM::Testbed testbed;
        for (unsigned k = 0; k < kits; ++k) {
            testbed.plug(HALYX::SIM::makerKit("KVB" + std::to_string(100000 + k)));
        }

        libusb_context* usb = nullptr;
        libusb_init(&usb);
        const double floor_ms = medianMs(rounds, [&] { bareListing(usb); });
        const auto interface = HALYX::SIM::dfuTriggerInterface(HALYX::SIM::makerKit());
        const double requests_ms = medianMs(rounds, [&] { vendorRequests(usb, interface); });
        libusb_exit(usb);

        halyx_context* context = nullptr;
        if (halyx_create_context(&context) != HALYX_SUCCESS) {
            std::fprintf(stderr, "cannot create a context\n");
            return 1;
        }
        size_t listed = 0;
        const double enumerate_ms = medianMs(rounds, [&] {
            halyx_device_list_t* list = nullptr;
            if (halyx_enumerate(context, &list) == HALYX_SUCCESS) {
                listed = list->count;
                halyx_free_device_list(context, list);
            }
        });
        halyx_release_context(context);

        const double bound_ms = 3 * floor_ms + requests_ms;
        halyx_bench::printFigure("halyx_enumerate", {{"kits", kits},
                                                     {"devices_listed", listed},
                                                     {"median_ms", enumerate_ms},
                                                     {"per_kit_ms", enumerate_ms / kits},
                                                     {"floor_libusb_libudev_ms", floor_ms},
                                                     {"vendor_requests_ms", requests_ms},
                                                     {"bound_ms", bound_ms},
                                                     {"bound", "3x floor + vendor requests"},
                                                     {"within_bound", enumerate_ms <= bound_ms}});
    }
    return 0;
}
