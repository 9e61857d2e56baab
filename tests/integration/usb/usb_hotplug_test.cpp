// Hot-plug of simulated kits through the library's device events.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "halyx.h"
#include "testbed.hpp"

namespace {

using HALYX::SIM::Testbed;
using nlohmann::json;
using namespace std::chrono_literals;

struct Event {
    halyx_device_event_type_t type;
    uint64_t id;
    json device; // null for a removal
};

// Records device events; waits for the next one with a time limit.
class Events {
public:
    static void record(halyx_context*, const halyx_device_event_t* event, void* self)
    {
        auto* events = static_cast<Events*>(self);
        Event copy{event->type, event->device_id,
                   event->device != nullptr ? json::parse(event->device->json) : json(nullptr)};
        std::lock_guard lock(events->mutex_);
        events->events_.push_back(std::move(copy));
        events->changed_.notify_all();
    }

    // The next event, failing the test when none comes in time.
    Event next(std::chrono::milliseconds limit = 5s)
    {
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, limit, [this] { return taken_ < events_.size(); })) {
            ADD_FAILURE() << "no device event within " << limit.count() << " ms";
            return Event{HALYX_DEVICE_EVENT_UPDATED, 0, json(nullptr)};
        }
        return events_[taken_++];
    }

    size_t pending()
    {
        std::lock_guard lock(mutex_);
        return events_.size() - taken_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Event> events_;
    size_t taken_ = 0;
};

class Hotplug : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(halyx_create_context(&context_), HALYX_SUCCESS);
        ASSERT_EQ(halyx_register_device_event(context_, &Events::record, &events_), HALYX_SUCCESS);
        // The testbed binds a kit's ttys one after the other, slowly under the
        // sanitizers; the arrival waits for all of them, and returns as soon
        // as they are there.
        const halyx_timeout_configuration_t timeouts{60000, 3000, 30000, 30000};
        ASSERT_EQ(halyx_set_timeout(context_, &timeouts), HALYX_SUCCESS);
    }
    void TearDown() override
    {
        EXPECT_EQ(halyx_stop_eventhandler(context_), HALYX_SUCCESS);
        EXPECT_EQ(halyx_release_context(context_), HALYX_SUCCESS);
    }

    std::vector<std::string> comNames(const json& device)
    {
        std::vector<std::string> names;
        if (device.contains("serialPorts")) {
            for (const auto& port : device.at("serialPorts")) {
                names.push_back(port.at("comName"));
            }
        }
        return names;
    }

    Testbed testbed_; // before the context: libusb must start after the testbed
    halyx_context* context_ = nullptr;
    Events events_;
};

TEST_F(Hotplug, ArrivalCarriesSerialPortsRemovalAndReplugFollow)
{
    ASSERT_EQ(halyx_start_eventhandler(context_), HALYX_SUCCESS);
    const auto first = testbed_.plug(HALYX::SIM::makerKit("KV-HP"));

    auto arrived = events_.next();
    ASSERT_EQ(arrived.type, HALYX_DEVICE_EVENT_ARRIVED);
    EXPECT_EQ(arrived.device.at("serialNumber"), "KV-HP");
    EXPECT_TRUE(arrived.device.at("traits").at("kelvaneUsb"));
    EXPECT_TRUE(arrived.device.at("traits").at("serialPorts"));
    EXPECT_EQ(arrived.device.at("usb").at("dfuTriggerVersion").at("semVer"), "1.6.2");
    EXPECT_EQ(comNames(arrived.device), first.ttys);

    // The pooled record is what the event showed.
    halyx_device_t* device = nullptr;
    ASSERT_EQ(halyx_get_device(context_, static_cast<uint32_t>(arrived.id), &device), HALYX_SUCCESS);
    EXPECT_EQ(device->serial_port_count, 2u);
    EXPECT_EQ(halyx_free_device(context_, device), HALYX_SUCCESS);

    testbed_.unplug(first.id);
    const auto left = events_.next();
    EXPECT_EQ(left.type, HALYX_DEVICE_EVENT_LEFT);
    EXPECT_EQ(left.id, arrived.id);
    EXPECT_TRUE(left.device.is_null());
    EXPECT_NE(halyx_get_device(context_, static_cast<uint32_t>(arrived.id), &device), HALYX_SUCCESS);

    // Replugged: a new device number and new tty names, a new record.
    const auto second = testbed_.plug(HALYX::SIM::makerKit("KV-HP"));
    const auto again = events_.next();
    ASSERT_EQ(again.type, HALYX_DEVICE_EVENT_ARRIVED);
    EXPECT_NE(again.id, arrived.id);
    EXPECT_EQ(comNames(again.device), second.ttys);
    EXPECT_NE(second.ttys, first.ttys);
}

TEST_F(Hotplug, PortsThatBindAfterTheSettleTimeArriveAsAnUpdate)
{
    const halyx_timeout_configuration_t timeouts{60000, 30, 30000, 30000};
    ASSERT_EQ(halyx_set_timeout(context_, &timeouts), HALYX_SUCCESS);
    ASSERT_EQ(halyx_start_eventhandler(context_), HALYX_SUCCESS);

    auto model = HALYX::SIM::makerKit();
    model.serialNumber.reset(); // the update must find the record by USB identifier
    const auto kit = testbed_.plug(model, /*ports_later=*/true);
    const auto arrived = events_.next();
    ASSERT_EQ(arrived.type, HALYX_DEVICE_EVENT_ARRIVED);
    EXPECT_TRUE(comNames(arrived.device).empty());

    testbed_.addPorts(kit.id);
    // One update per port, the last one with both.
    std::vector<std::string> seen;
    while (seen.size() < kit.ttys.size()) {
        const auto update = events_.next();
        ASSERT_EQ(update.type, HALYX_DEVICE_EVENT_UPDATED);
        EXPECT_EQ(update.id, arrived.id);
        seen = comNames(update.device);
    }
    EXPECT_EQ(seen, kit.ttys);
}

TEST_F(Hotplug, EventHandlerStartsAndStopsWhileKitsComeAndGo)
{
    ASSERT_EQ(halyx_start_eventhandler(context_), HALYX_SUCCESS);
    auto attached = testbed_.plug(HALYX::SIM::otherVendorDevice("OT-0")).id;
    auto arrived = events_.next();
    ASSERT_EQ(arrived.type, HALYX_DEVICE_EVENT_ARRIVED);

    for (int round = 1; round <= 3; ++round) {
        ASSERT_EQ(halyx_stop_eventhandler(context_), HALYX_SUCCESS);
        // While stopped nothing is reported...
        testbed_.unplug(attached);
        const auto serial = "OT-" + std::to_string(round);
        attached = testbed_.plug(HALYX::SIM::otherVendorDevice(serial)).id;
        std::this_thread::sleep_for(50ms);
        EXPECT_EQ(events_.pending(), 0u);

        // ...and a restart catches up: the old kit left, the new one came.
        ASSERT_EQ(halyx_start_eventhandler(context_), HALYX_SUCCESS);
        const auto left = events_.next();
        EXPECT_EQ(left.type, HALYX_DEVICE_EVENT_LEFT);
        EXPECT_EQ(left.id, arrived.id);
        arrived = events_.next();
        ASSERT_EQ(arrived.type, HALYX_DEVICE_EVENT_ARRIVED);
        EXPECT_EQ(arrived.device.at("serialNumber"), serial);
    }
}

// A device event callback may stop the events it is delivering, even while
// another thread stops them too: neither waits for the other.
TEST_F(Hotplug, ACallbackMayStopTheEventsItDelivers)
{
    struct Attempt {
        std::mutex mutex;
        std::condition_variable changed;
        bool entered = false;
        bool outside_stopping = false;
        std::optional<halyx_errorcode_t> code;
    } attempt;
    ASSERT_EQ(halyx_unregister_device_event(context_), HALYX_SUCCESS);
    ASSERT_EQ(halyx_register_device_event(
                  context_,
                  [](halyx_context* context, const halyx_device_event_t*, void* self) {
                      auto* a = static_cast<Attempt*>(self);
                      std::unique_lock lock(a->mutex);
                      if (a->code) {
                          return; // only the first event stops
                      }
                      a->entered = true;
                      a->changed.notify_all();
                      // Give the other thread time to be inside its stop.
                      a->changed.wait_for(lock, 200ms, [a] { return a->outside_stopping; });
                      lock.unlock();
                      const auto code = halyx_stop_eventhandler(context);
                      lock.lock();
                      a->code = code;
                      a->changed.notify_all();
                  },
                  &attempt),
              HALYX_SUCCESS);
    ASSERT_EQ(halyx_start_eventhandler(context_), HALYX_SUCCESS);
    testbed_.plug(HALYX::SIM::otherVendorDevice("OT-STOP"));
    {
        std::unique_lock lock(attempt.mutex);
        ASSERT_TRUE(attempt.changed.wait_for(lock, 5s, [&] { return attempt.entered; }));
        attempt.outside_stopping = true;
        attempt.changed.notify_all();
    }
    // A watchdog rather than a hang if the two stops wait for each other.
    auto outside = std::async(std::launch::async, [this] { return halyx_stop_eventhandler(context_); });
    ASSERT_EQ(outside.wait_for(10s), std::future_status::ready) << "the two stops wait for each other";
    EXPECT_EQ(outside.get(), HALYX_SUCCESS);
    {
        std::unique_lock lock(attempt.mutex);
        ASSERT_TRUE(attempt.changed.wait_for(lock, 5s, [&] { return attempt.code.has_value(); }));
        EXPECT_EQ(*attempt.code, HALYX_SUCCESS);
    }

    // Stopped from the callback alone: no more events until started again.
    ASSERT_EQ(halyx_start_eventhandler(context_), HALYX_SUCCESS);
    ASSERT_EQ(halyx_unregister_device_event(context_), HALYX_SUCCESS);
    ASSERT_EQ(halyx_register_device_event(
                  context_,
                  [](halyx_context* context, const halyx_device_event_t* event, void* self) {
                      Events::record(context, event, self);
                      halyx_stop_eventhandler(context);
                  },
                  &events_),
              HALYX_SUCCESS);
    testbed_.plug(HALYX::SIM::otherVendorDevice("OT-ONCE"));
    EXPECT_EQ(events_.next().device.at("serialNumber"), "OT-ONCE");
    testbed_.plug(HALYX::SIM::otherVendorDevice("OT-UNHEARD"));
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(events_.pending(), 0u);
    ASSERT_EQ(halyx_start_eventhandler(context_), HALYX_SUCCESS);

    // A context released while its callback stops the events: neither waits for the other.
    struct Entered {
        std::mutex mutex;
        std::condition_variable changed;
        bool inside = false;
        bool releasing = false;
    } entered;
    halyx_context* other = nullptr;
    ASSERT_EQ(halyx_create_context(&other), HALYX_SUCCESS);
    ASSERT_EQ(halyx_register_device_event(
                  other,
                  [](halyx_context* context, const halyx_device_event_t*, void* self) {
                      auto* e = static_cast<Entered*>(self);
                      std::unique_lock lock(e->mutex);
                      if (e->inside) {
                          return;
                      }
                      e->inside = true;
                      e->changed.notify_all();
                      e->changed.wait_for(lock, 200ms, [e] { return e->releasing; });
                      lock.unlock();
                      halyx_stop_eventhandler(context);
                  },
                  &entered),
              HALYX_SUCCESS);
    ASSERT_EQ(halyx_start_eventhandler(other), HALYX_SUCCESS);
    testbed_.plug(HALYX::SIM::otherVendorDevice("OT-RELEASE"));
    {
        std::unique_lock lock(entered.mutex);
        ASSERT_TRUE(entered.changed.wait_for(lock, 5s, [&] { return entered.inside; }));
        entered.releasing = true;
        entered.changed.notify_all();
    }
    auto release = std::async(std::launch::async, [other] { return halyx_release_context(other); });
    ASSERT_EQ(release.wait_for(10s), std::future_status::ready)
        << "release and the callback's stop wait for each other";
    EXPECT_EQ(release.get(), HALYX_SUCCESS);
}

} // namespace
