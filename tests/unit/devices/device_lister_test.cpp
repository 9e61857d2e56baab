// Enumeration, device copies, filters and hot-plug events through the C boundary.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "core/halyx_exception.hpp"
#include "scripted_plugin.hpp"
#include "test_context.hpp"

using namespace std::chrono_literals;
using halyx_test::finding;
using halyx_test::lastError;
using halyx_test::LogCapture;
using halyx_test::TestContext;
using nlohmann::json;

namespace {

// What a serial-port lister would report for a kit's ports.
HALYX::event_object portsOf(std::string serial_number, std::vector<std::string> com_names)
{
    json ports = json::array();
    for (size_t i = 0; i < com_names.size(); ++i) {
        ports.push_back(
            {{"comName", com_names[i]}, {"serialNumber", serial_number}, {"manufacturer", nullptr}, {"vcom", i}});
    }
    return finding(std::move(serial_number), {{"serialPorts", true}}, "serialPorts", ports.dump());
}

halyx_test::PluginScript servesTraits(std::string name, std::vector<std::string> traits)
{
    halyx_test::PluginScript script;
    script.name = std::move(name);
    script.traits = std::move(traits);
    return script;
}

std::vector<json> documents(const halyx_device_list_t& list)
{
    std::vector<json> result;
    for (size_t i = 0; i < list.count; ++i) {
        result.push_back(json::parse(list.devices[i].json));
    }
    return result;
}

} // namespace

TEST(DeviceLister, FindingsAreMergedBySerialNumberAndListedWithEveryTrait)
{
    TestContext context({halyx_test::factory(servesTraits("probe", {"jlink", "seggerUsb"})),
                         halyx_test::factory(servesTraits("ports", {"serialPorts"}))});
    context.lister().setFindings({
        finding("683011111", {{"usb", true}, {"kelvaneUsb", true}}, "usb", R"({"busNumber": 1, "address": 4})"),
        portsOf("683011111", {"/dev/ttyACM0", "/dev/ttyACM1"}),
        finding(std::nullopt, {{"usb", true}}),
        finding(std::nullopt, {{"usb", true}}),
    });

    halyx_device_list_t* list = nullptr;
    ASSERT_EQ(halyx_enumerate(context, &list), HALYX_SUCCESS);
    const auto devices = documents(*list);
    ASSERT_EQ(devices.size(), 3u); // devices without a serial number are never merged
    const auto& kit = devices[0];
    EXPECT_EQ(kit["serialNumber"], "683011111");
    EXPECT_EQ(kit["usb"]["address"], 4);
    EXPECT_EQ(kit["serialPorts"].size(), 2u);
    EXPECT_EQ(kit["traits"], json::parse(R"({"usb": true, "kelvaneUsb": true, "serialPorts": true,
                                              "jlink": false, "seggerUsb": false})"));
    EXPECT_TRUE(devices[1]["serialNumber"].is_null());
    EXPECT_EQ(devices[1]["traits"]["jlink"], false);
    EXPECT_NE(devices[1]["id"], devices[2]["id"]);

    // The C view matches the document.
    EXPECT_STREQ(list->devices[0].serial_number, "683011111");
    EXPECT_EQ(list->devices[0].serial_port_count, 2u);
    EXPECT_EQ(halyx_free_device_list(context, list), HALYX_SUCCESS);
}

TEST(DeviceLister, ListMustBeFreedBeforeTheNextAndOnlyOnce)
{
    TestContext context;
    context.lister().setFindings({finding("A")});
    halyx_device_list_t* list = nullptr;
    ASSERT_EQ(halyx_enumerate(context, &list), HALYX_SUCCESS);
    halyx_device_list_t* second = nullptr;
    EXPECT_EQ(halyx_enumerate(context, &second), HALYX_ERR_LOGGER);
    EXPECT_EQ(lastError(context).message, "Device list already exists and must be freed before enumerate.");
    EXPECT_EQ(second, nullptr);

    halyx_device_list_t forged{};
    EXPECT_EQ(halyx_free_device_list(context, &forged), HALYX_ERR_UNKNOWN_HANDLE);
    EXPECT_EQ(lastError(context).message, "Could not free non-existing device list.");
    EXPECT_EQ(halyx_free_device_list(context, list), HALYX_SUCCESS);
    EXPECT_EQ(halyx_free_device_list(context, list), HALYX_ERR_UNKNOWN_HANDLE);
    EXPECT_EQ(halyx_free_device_list(context, nullptr), HALYX_ERR_UNKNOWN_HANDLE);
}

TEST(DeviceLister, TimeOutThenStillRunningThenTheResult)
{
    TestContext context;
    LogCapture log(context, HALYX_LOG_LEVEL_DEBUG);
    const halyx_timeout_configuration_t quick{100, 60, 30000, 30000};
    ASSERT_EQ(halyx_set_timeout(context, &quick), HALYX_SUCCESS);
    context.lister().setFindings({finding("SLOW")});
    context.lister().hold();

    halyx_device_list_t* list = nullptr;
    EXPECT_EQ(halyx_enumerate(context, &list), HALYX_ERR_TIMEOUT);
    EXPECT_EQ(lastError(context).message, "Enumerate task timed out. Enumeration still running.");
    EXPECT_TRUE(log.waitFor("DeviceLister::enumerate: waiting timed out"));

    EXPECT_EQ(halyx_enumerate(context, &list), HALYX_ERR_TIMEOUT);
    EXPECT_EQ(lastError(context).message, "Previous enumerate task still running.");
    EXPECT_TRUE(log.waitFor("DeviceLister::enumerate: Statis is not std::future_status::ready"));

    context.lister().release();
    halyx_errorcode_t code = HALYX_ERR_TIMEOUT;
    for (int i = 0; i < 400 && code == HALYX_ERR_TIMEOUT; ++i) {
        std::this_thread::sleep_for(5ms);
        code = halyx_enumerate(context, &list);
    }
    ASSERT_EQ(code, HALYX_SUCCESS);
    ASSERT_EQ(list->count, 1u);
    EXPECT_STREQ(list->devices[0].serial_number, "SLOW");
    EXPECT_TRUE(log.waitFor("DeviceLister::enumerate: Waiting for resolving of enumerate_task"));
    EXPECT_TRUE(log.waitFor("DeviceLister::enumerate::enumerate_task: Before async_lister->enumarate"));
    EXPECT_TRUE(log.waitFor("DeviceLister::enumerate: done"));
    halyx_free_device_list(context, list);

    // A run that failed after its caller gave up hands its failure to the next caller.
    context.lister().failNext(std::make_exception_ptr(HALYX::HALYXException(HALYX_ERR_NOT_FOUND, "lister broke")));
    context.lister().hold();
    EXPECT_EQ(halyx_enumerate(context, &list), HALYX_ERR_TIMEOUT);
    context.lister().release();
    code = HALYX_ERR_TIMEOUT;
    for (int i = 0; i < 400 && code == HALYX_ERR_TIMEOUT; ++i) {
        std::this_thread::sleep_for(5ms);
        code = halyx_enumerate(context, &list);
    }
    EXPECT_EQ(code, HALYX_ERR_NOT_FOUND);
    EXPECT_EQ(lastError(context).message, "lister broke");
    // And the one after it lists afresh.
    ASSERT_EQ(halyx_enumerate(context, &list), HALYX_SUCCESS);
    EXPECT_EQ(list->count, 1u);
    halyx_free_device_list(context, list);
}

TEST(DeviceLister, FilterKeepsDevicesWithAnyTrueTraitOfIt)
{
    TestContext context({halyx_test::factory(servesTraits("probe", {"jlink"}))});
    context.lister().setFindings({finding("P", {{"jlink", true}}), finding("U", {{"usb", true}}),
                                  finding("M", {{"modem", true}, {"jlink", false}})});
    auto serials = [&] {
        halyx_device_list_t* list = nullptr;
        EXPECT_EQ(halyx_enumerate(context, &list), HALYX_SUCCESS);
        std::vector<std::string> result;
        for (size_t i = 0; i < list->count; ++i) {
            result.emplace_back(list->devices[i].serial_number);
        }
        halyx_free_device_list(context, list);
        return result;
    };
    const char* jlink[] = {"jlink"};
    ASSERT_EQ(halyx_set_filter(context, jlink, 1), HALYX_SUCCESS);
    EXPECT_EQ(serials(), std::vector<std::string>({"P"}));
    const char* either[] = {"modem", "usb"};
    ASSERT_EQ(halyx_set_filter(context, either, 2), HALYX_SUCCESS);
    EXPECT_EQ(serials(), std::vector<std::string>({"U", "M"}));
    ASSERT_EQ(halyx_set_filter(context, nullptr, 0), HALYX_SUCCESS);
    EXPECT_EQ(serials().size(), 3u);
    ASSERT_EQ(halyx_set_filter(context, jlink, 1), HALYX_SUCCESS);
    ASSERT_EQ(halyx_reset_filter(context), HALYX_SUCCESS);
    EXPECT_EQ(serials().size(), 3u);
    EXPECT_EQ(halyx_set_filter(context, nullptr, 1), HALYX_ERR_INVALID_ARGUMENT);
}

TEST(DeviceLister, DuplicateComNamesAreWarnedOnceAndBothDevicesListed)
{
    TestContext context;
    LogCapture log(context, HALYX_LOG_LEVEL_WARNING);
    context.lister().setFindings({portsOf("A", {"/dev/ttyACM0", "/dev/ttyACM1"}), portsOf("B", {"/dev/ttyACM0"}),
                                  portsOf("C", {"/dev/ttyACM1"}), portsOf("D", {"/dev/ttyACM7"})});
    halyx_device_list_t* list = nullptr;
    ASSERT_EQ(halyx_enumerate(context, &list), HALYX_SUCCESS);
    EXPECT_EQ(list->count, 4u);
    halyx_free_device_list(context, list);
    ASSERT_TRUE(log.waitFor("'/dev/ttyACM1'"));
    EXPECT_EQ(log.count("The COM name '/dev/ttyACM0' is duplicated by one or more devices."), 1u);
    EXPECT_EQ(log.count("The COM name '/dev/ttyACM1' is duplicated by one or more devices."), 1u);
    EXPECT_EQ(log.count("/dev/ttyACM7"), 0u);
}

TEST(DeviceLister, GetAndFreeDeviceCopies)
{
    TestContext context;
    context.lister().setFindings({finding("A"), finding("B")});
    halyx_device_list_t* list = nullptr;
    ASSERT_EQ(halyx_enumerate(context, &list), HALYX_SUCCESS);
    const auto id = static_cast<uint32_t>(list->devices[1].id);
    halyx_free_device_list(context, list);

    halyx_device_t* device = nullptr;
    ASSERT_EQ(halyx_get_device(context, id, &device), HALYX_SUCCESS);
    EXPECT_STREQ(device->serial_number, "B");
    halyx_device_t* again = nullptr;
    EXPECT_EQ(halyx_get_device(context, id, &again), HALYX_ERR_UNKNOWN_HANDLE);
    EXPECT_EQ(lastError(context).message, "Device with ID=" + std::to_string(id) + " could not be added to copy pool.");
    EXPECT_EQ(halyx_get_device(context, 999, &again), HALYX_ERR_NOT_FOUND);
    EXPECT_EQ(lastError(context).message, "Device with ID=999 is not existing in device pool.");

    halyx_device_t forged = *device;
    EXPECT_EQ(halyx_free_device(context, &forged), HALYX_ERR_NOT_FOUND);
    EXPECT_EQ(lastError(context).message, "Unable to free device.");
    EXPECT_EQ(halyx_free_device(context, device), HALYX_SUCCESS);
    EXPECT_EQ(halyx_free_device(context, device), HALYX_ERR_NOT_FOUND);
    EXPECT_EQ(halyx_free_device(context, nullptr), HALYX_ERR_NOT_FOUND);
}

TEST(DeviceLister, PluginsEditTheEnumerationDocument)
{
    auto marker = servesTraits("marker", {"broken"});
    marker.enumerate = [](json& document) {
        for (auto& device : document["devices"]) {
            if (device["serialNumber"] == "BAD") {
                device["traits"]["broken"] = true;
                device["broken"] = {{"description", "known bad firmware"}, {"url", "https://example.invalid"}};
            }
        }
    };
    TestContext context({halyx_test::factory(marker)});
    context.lister().setFindings({finding("GOOD"), finding("BAD")});
    halyx_device_list_t* list = nullptr;
    ASSERT_EQ(halyx_enumerate(context, &list), HALYX_SUCCESS);
    const auto devices = documents(*list);
    halyx_free_device_list(context, list);
    EXPECT_EQ(devices[0]["traits"]["broken"], false);
    EXPECT_FALSE(devices[0].contains("broken"));
    EXPECT_EQ(devices[1]["traits"]["broken"], true);
    EXPECT_EQ(devices[1]["broken"]["description"], "known bad firmware");

    // A plugin that loses a device's "id" fails the enumeration with the record's message.
    auto careless = servesTraits("careless", {});
    careless.enumerate = [](json& document) { document["devices"][0].erase("id"); };
    TestContext second({halyx_test::factory(careless)});
    second.lister().setFindings({finding("X")});
    EXPECT_EQ(halyx_enumerate(second, &list), HALYX_ERR_NOT_FOUND);
    EXPECT_EQ(lastError(second).message, "device not found");
}

TEST(DeviceLister, EventsArriveInOrderOnOneThreadWithAValidCopy)
{
    struct Seen {
        std::mutex mutex;
        std::vector<std::pair<halyx_device_event_type_t, std::string>> events;
        std::set<std::thread::id> threads;
    } seen;
    auto callback = [](halyx_context*, const halyx_device_event_t* event, void* user) {
        auto* s = static_cast<Seen*>(user);
        std::string what;
        if (event->device != nullptr) {
            EXPECT_EQ(event->device->id, event->device_id);
            what = json::parse(event->device->json).dump(); // the copy is whole during the call
        }
        std::lock_guard lock(s->mutex);
        s->events.emplace_back(event->type, what);
        s->threads.insert(std::this_thread::get_id());
    };
    std::vector<uint32_t> plugin_events;
    auto watcher = servesTraits("watcher", {"serialPorts"});
    watcher.deviceEvent = [&](const std::string&, uint32_t kind) { plugin_events.push_back(kind); };
    TestContext context({halyx_test::factory(watcher)});
    LogCapture log(context, HALYX_LOG_LEVEL_WARNING);
    ASSERT_EQ(halyx_register_device_event(context, callback, &seen), HALYX_SUCCESS);
    EXPECT_EQ(halyx_register_device_event(context, callback, &seen), HALYX_ERR_LOGGER);
    EXPECT_EQ(lastError(context).message, "device event callback is already registered");
    ASSERT_EQ(halyx_start_eventhandler(context), HALYX_SUCCESS);

    auto& lister = context.lister();
    lister.plug(finding("K1", {{"usb", true}}));
    lister.plug(portsOf("K1", {"/dev/ttyACM0"})); // ports bound later: an update
    lister.plug(finding("K2", {{"usb", true}}));
    lister.unplug(finding("K1"));
    lister.unplug(finding("NEVER-SEEN"));
    lister.drain();

    {
        std::lock_guard lock(seen.mutex);
        ASSERT_EQ(seen.events.size(), 4u);
        EXPECT_EQ(seen.events[0].first, HALYX_DEVICE_EVENT_ARRIVED);
        EXPECT_EQ(json::parse(seen.events[0].second)["serialNumber"], "K1");
        EXPECT_EQ(seen.events[1].first, HALYX_DEVICE_EVENT_UPDATED);
        EXPECT_EQ(json::parse(seen.events[1].second)["serialPorts"][0]["comName"], "/dev/ttyACM0");
        EXPECT_EQ(seen.events[2].first, HALYX_DEVICE_EVENT_ARRIVED);
        EXPECT_EQ(seen.events[3].first, HALYX_DEVICE_EVENT_LEFT);
        EXPECT_EQ(seen.events[3].second, "");
        EXPECT_EQ(seen.threads.size(), 1u);
    }
    EXPECT_EQ(plugin_events, (std::vector<uint32_t>{0, 2, 0, 1}));
    EXPECT_TRUE(log.waitFor("unknown device removed id:  sn: NEVER-SEEN id_list: "));

    // The pool follows the events.
    halyx_device_t* device = nullptr;
    EXPECT_EQ(halyx_get_device(context, 1, &device), HALYX_ERR_NOT_FOUND);
    ASSERT_EQ(halyx_get_device(context, 2, &device), HALYX_SUCCESS);
    EXPECT_STREQ(device->serial_number, "K2");
    halyx_free_device(context, device);

    ASSERT_EQ(halyx_stop_eventhandler(context), HALYX_SUCCESS);
    ASSERT_EQ(halyx_unregister_device_event(context), HALYX_SUCCESS);
}

// Enumerations while other threads get, free and render devices and while
// hot-plug events arrive: nothing crashes, every call ends with a known code.
TEST(DeviceLister, ConcurrentUse)
{
    TestContext context;
    std::vector<HALYX::event_object> kits;
    for (int i = 0; i < 8; ++i) {
        kits.push_back(portsOf("KIT" + std::to_string(i), {"/dev/ttyACM" + std::to_string(i)}));
    }
    context.lister().setFindings(kits);
    ASSERT_EQ(halyx_start_eventhandler(context), HALYX_SUCCESS);
    std::atomic<int> events{0};
    halyx_register_device_event(
        context, [](halyx_context*, const halyx_device_event_t*, void* n) { ++*static_cast<std::atomic<int>*>(n); },
        &events);

    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        while (!stop) {
            halyx_device_list_t* list = nullptr;
            if (halyx_enumerate(context, &list) == HALYX_SUCCESS) {
                char* text = nullptr;
                EXPECT_EQ(halyx_util_device_list_as_document(context, HALYX_DOC_FORMAT_JSON, list, &text),
                          HALYX_SUCCESS);
                halyx_free_document(context, text);
                EXPECT_EQ(halyx_free_device_list(context, list), HALYX_SUCCESS);
            }
        }
    });
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&] {
            while (!stop) {
                for (uint32_t id = 1; id < 20; ++id) {
                    halyx_device_t* device = nullptr;
                    const auto code = halyx_get_device(context, id, &device);
                    EXPECT_TRUE(code == HALYX_SUCCESS || code == HALYX_ERR_NOT_FOUND ||
                                code == HALYX_ERR_UNKNOWN_HANDLE)
                        << code;
                    if (code == HALYX_SUCCESS) {
                        char* text = nullptr;
                        EXPECT_EQ(halyx_util_device_as_document(context, HALYX_DOC_FORMAT_JSON, device, &text),
                                  HALYX_SUCCESS);
                        halyx_free_document(context, text);
                        EXPECT_EQ(halyx_free_device(context, device), HALYX_SUCCESS);
                    }
                }
            }
        });
    }
    for (int round = 0; round < 50; ++round) {
        context.lister().plug(portsOf("HOT" + std::to_string(round % 4), {"/dev/ttyUSB" + std::to_string(round)}));
        context.lister().unplug(finding("HOT" + std::to_string((round + 2) % 4)));
        std::this_thread::sleep_for(1ms);
    }
    context.lister().drain();
    stop = true;
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_GT(events, 0);
    halyx_stop_eventhandler(context);
}

// A device-event callback that starts an operation while another thread stops
// the event handler: the stop waits for the callback, which must not wait for
// the stop in turn.
TEST(DeviceLister, StoppingEventsWhileACallbackStartsAnOperation)
{
    struct State {
        std::atomic<bool> inside{false};
        std::atomic<halyx_errorcode_t> code{HALYX_SUCCESS};
    } state;
    TestContext context;
    ASSERT_EQ(halyx_register_device_event(
                  context,
                  [](halyx_context* ctx, const halyx_device_event_t* event, void* user) {
                      auto* s = static_cast<State*>(user);
                      s->inside = true;
                      std::this_thread::sleep_for(50ms);
                      uint64_t task = 0;
                      s->code = halyx_fw_erase(ctx, static_cast<uint32_t>(event->device_id), nullptr, &task, nullptr,
                                               nullptr);
                  },
                  &state),
              HALYX_SUCCESS);
    ASSERT_EQ(halyx_start_eventhandler(context), HALYX_SUCCESS);
    context.lister().plug(finding("K"));
    while (!state.inside) {
        std::this_thread::yield();
    }
    EXPECT_EQ(halyx_stop_eventhandler(context), HALYX_SUCCESS);
    EXPECT_EQ(state.code, HALYX_ERR_NO_MATCHING_TRAIT);
}

// A configuration is taken whole or not at all, and an element without
// parameters leaves its plugin alone.
TEST(DeviceLister, ConfigurationIsAllOrNothing)
{
    struct Applied {
        std::mutex mutex;
        std::map<std::string, std::vector<std::string>> texts;
    };
    auto applied = std::make_shared<Applied>();
    auto plugin = [applied](const std::string& name) {
        auto script = servesTraits(name, {name});
        script.initParameters = [applied, name](const std::string& text) {
            if (json::parse(text).value("bad", false)) {
                throw HALYX::HALYXException(HALYX_ERR_INVALID_ARGUMENT, name + " refuses bad settings");
            }
            std::lock_guard lock(applied->mutex);
            applied->texts[name].push_back(json::parse(text).dump());
        };
        return halyx_test::factory(script);
    };
    TestContext context({plugin("a"), plugin("b")});
    const auto now = [&](const std::string& name) {
        std::lock_guard lock(applied->mutex);
        return applied->texts[name].empty() ? std::string() : applied->texts[name].back();
    };

    ASSERT_EQ(halyx_set_configuration(context, R"({"device_lister": [{"name": "a", "init_parameters": {"x": 1}},
                                                                     {"name": "b", "init_parameters": {"y": 1}}]})"),
              HALYX_SUCCESS);
    EXPECT_EQ(now("a"), R"({"x":1})");
    EXPECT_EQ(now("b"), R"({"y":1})");

    ASSERT_EQ(halyx_set_configuration(context, R"({"device_lister": [{"name": "a"}, {"name": "nobody"}]})"),
              HALYX_SUCCESS);
    EXPECT_EQ(applied->texts["a"].size(), 1u); // not reset to its defaults

    EXPECT_EQ(halyx_set_configuration(context, R"({"device_lister": [{"name": "a", "init_parameters": {"x": 2}},
                                                                     {"name": "b", "init_parameters": {"bad": true}}]})"),
              HALYX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(lastError(context).message, "b refuses bad settings");
    EXPECT_EQ(now("a"), R"({"x":1})"); // took {"x":2}, then its earlier settings back
    EXPECT_EQ(now("b"), R"({"y":1})");

    // A malformed entry touches no plugin.
    EXPECT_NE(halyx_set_configuration(context, R"({"device_lister": [{"name": "a", "init_parameters": {"x": 3}},
                                                                     {"init_parameters": {}}]})"),
              HALYX_SUCCESS);
    EXPECT_EQ(now("a"), R"({"x":1})");
}

// A plugin made for an operation follows device events while it runs (its
// device may restart), and a plugin may report a device of its own.
TEST(DeviceLister, PluginsFollowDevicesAndReportTheirOwn)
{
    struct Shared {
        std::mutex mutex;
        std::condition_variable changed;
        std::vector<std::string> seen_by_operation;
        HALYX::PluginApi::EventCallback report;
        std::vector<std::string> arrived;
    };
    auto shared = std::make_shared<Shared>();
    auto follower = servesTraits("follower", {"jlink"});
    follower.instancePerOperation = true;
    follower.canHandle = [](const std::string&, const std::string&) { return true; };
    follower.eventCallback = [shared](HALYX::PluginApi::EventCallback report) {
        std::lock_guard lock(shared->mutex);
        shared->report = std::move(report);
    };
    follower.operationDeviceEvent = [shared](const std::string& device, uint32_t kind) {
        std::lock_guard lock(shared->mutex);
        if (kind == HALYX_DEVICE_EVENT_ARRIVED) {
            shared->seen_by_operation.push_back(json::parse(device).at("serialNumber"));
        }
        shared->changed.notify_all();
    };
    // The erase waits until the device it works on comes back after a restart.
    follower.erase = [shared](const std::string&, HALYX::Operation&) {
        std::unique_lock lock(shared->mutex);
        if (!shared->changed.wait_for(lock, 5s, [&] {
                return std::count(shared->seen_by_operation.begin(), shared->seen_by_operation.end(), "P") >= 1;
            })) {
            throw HALYX::HALYXException(HALYX_ERR_TIMEOUT, "the device did not come back");
        }
    };
    TestContext context({halyx_test::factory(follower)});
    context.lister().setFindings({finding("P", {{"jlink", true}})});
    halyx_device_list_t* list = nullptr;
    ASSERT_EQ(halyx_enumerate(context, &list), HALYX_SUCCESS);
    halyx_free_device_list(context, list);
    ASSERT_EQ(halyx_register_device_event(
                  context,
                  [](halyx_context*, const halyx_device_event_t* event, void* user) {
                      auto* s = static_cast<Shared*>(user);
                      if (event->type == HALYX_DEVICE_EVENT_ARRIVED) {
                          std::lock_guard lock(s->mutex);
                          s->arrived.emplace_back(event->device->serial_number);
                      }
                  },
                  shared.get()),
              HALYX_SUCCESS);
    ASSERT_EQ(halyx_start_eventhandler(context), HALYX_SUCCESS);

    uint64_t task = 0;
    ASSERT_EQ(halyx_fw_erase(context, 1, nullptr, &task, nullptr, nullptr), HALYX_SUCCESS);
    context.lister().unplug(finding("P"));
    context.lister().plug(finding("P", {{"jlink", true}}));
    EXPECT_EQ(halyx_wait_async_task_complete(context, task), HALYX_SUCCESS);

    HALYX::PluginApi::EventCallback report;
    {
        std::lock_guard lock(shared->mutex);
        report = shared->report;
    }
    ASSERT_TRUE(report);
    report(finding("OWN"));
    std::lock_guard lock(shared->mutex);
    EXPECT_NE(std::find(shared->arrived.begin(), shared->arrived.end(), "OWN"), shared->arrived.end());
}
