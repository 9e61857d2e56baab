// Device operations: plugin choice, task creation, callbacks and firmware handles.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "core/firmware.hpp"
#include "core/halyx_exception.hpp"
#include "files.hpp"
#include "scripted_plugin.hpp"
#include "test_context.hpp"

using namespace std::chrono_literals;
using halyx_test::finding;
using halyx_test::lastError;
using halyx_test::TestContext;
using nlohmann::json;

namespace {

struct Completion {
    std::mutex mutex;
    std::vector<halyx_complete_t> calls;
    std::vector<std::string> messages;
    std::vector<std::string> progress;
    std::thread::id thread;

    static void complete(halyx_context*, halyx_complete_t result)
    {
        auto* self = static_cast<Completion*>(result.user_data);
        std::lock_guard lock(self->mutex);
        self->calls.push_back(result);
        self->messages.emplace_back(result.message);
        self->thread = std::this_thread::get_id();
    }
    static void onProgress(halyx_context*, uint64_t, const char* text, void* user)
    {
        auto* self = static_cast<Completion*>(user);
        std::lock_guard lock(self->mutex);
        self->progress.emplace_back(text);
    }
};

// A context with one device per serial number, each with the given true traits.
std::unique_ptr<TestContext> withDevices(std::vector<halyx_test::PluginScript> plugins,
                                         std::vector<std::pair<std::string, HALYX::Traits>> devices)
{
    std::vector<HALYX::PluginRegistry::Factory> factories;
    for (auto& plugin : plugins) {
        factories.push_back(halyx_test::factory(std::move(plugin)));
    }
    auto context = std::make_unique<TestContext>(std::move(factories));
    std::vector<HALYX::event_object> findings;
    for (auto& [serial, traits] : devices) {
        findings.push_back(finding(serial, traits));
    }
    context->lister().setFindings(std::move(findings));
    halyx_device_list_t* list = nullptr;
    EXPECT_EQ(halyx_enumerate(*context, &list), HALYX_SUCCESS);
    halyx_free_device_list(*context, list);
    return context;
}

} // namespace

TEST(Dispatch, UnknownDeviceAndUnservedTraitsStartNothing)
{
    halyx_test::PluginScript ports;
    ports.name = "serialport";
    ports.traits = {"serialPorts"};
    auto context = withDevices({ports}, {{"PORTS", {{"serialPorts", true}}}, {"BARE", {{"usb", true}}}});
    Completion completion;
    uint64_t task = 0;

    EXPECT_EQ(halyx_fw_erase(*context, 77, nullptr, &task, Completion::complete, &completion), HALYX_ERR_NOT_FOUND);
    EXPECT_EQ(lastError(*context).message, "device not found");
    EXPECT_EQ(halyx_fw_erase(*context, 2, nullptr, &task, Completion::complete, &completion),
              HALYX_ERR_NO_MATCHING_TRAIT);
    EXPECT_EQ(lastError(*context).message, "no matching trait found");
    EXPECT_EQ(task, 0u);
    EXPECT_TRUE(completion.calls.empty());
}

// A plugin that serves the device but overrides nothing reports each
// operation's own "not supported" text, with code 19, as the task's outcome.
TEST(Dispatch, DefaultSlotsReportTheirOwnMessages)
{
    halyx_test::PluginScript ports;
    ports.name = "serialport";
    ports.traits = {"serialPorts"};
    auto context = withDevices({ports}, {{"PORTS", {{"serialPorts", true}}}});
    halyx_context* ctx = *context;
    Completion completion;
    halyx_firmware* firmware = nullptr;
    const uint8_t bytes[] = {1, 2, 3};
    ASSERT_EQ(halyx_fw_create_handle(&firmware, bytes, sizeof bytes, HALYX_FW_SOURCE_BUFFER, HALYX_FW_FORMAT_BINARY),
              HALYX_SUCCESS);
    const halyx_device_core_t core = HALYX_DEVICE_CORE_NETWORK;
    auto* done = Completion::complete;
    void* user = &completion;

    const std::vector<std::pair<std::function<halyx_errorcode_t(uint64_t*)>, std::string>> operations{
        {[&](uint64_t* t) { return halyx_fw_program(ctx, 1, firmware, t, nullptr, nullptr, nullptr, done, user); },
         "program operation not supported"},
        {[&](uint64_t* t) { return halyx_fw_verify(ctx, 1, firmware, &core, t, done, user); },
         "verify operation not supported"},
        {[&](uint64_t* t) { return halyx_device_control_reset(ctx, 1, nullptr, t, done, user); },
         "reset operation not supported"},
        {[&](uint64_t* t) { return halyx_fw_erase(ctx, 1, nullptr, t, done, user); }, "erase operation not supported"},
        {[&](uint64_t* t) { return halyx_fw_read_info(ctx, t, 1, nullptr, nullptr, done, user); },
         "Read FW Info not supported for this device."},
        {[&](uint64_t* t) {
             return halyx_fw_read(ctx, 1, firmware, t, nullptr, nullptr, nullptr, nullptr, done, user);
         },
         "Read FW not supported for this device."},
        {[&](uint64_t* t) { return halyx_read_register(ctx, 1, "APPLICATION.UICR.APPROTECT", nullptr, t, done, user); },
         "Read register not supported for this device."},
        {[&](uint64_t* t) { return halyx_get_device_core_info(ctx, 1, &core, nullptr, t, done, user); },
         "Get device core information is not supported for this device."},
        {[&](uint64_t* t) { return halyx_device_control_recover(ctx, t, 1, nullptr, done, user); },
         "recover operation not supported"},
        {[&](uint64_t* t) {
             return halyx_device_control_set_mcu_state(ctx, 1, t, HALYX_MCU_STATE_PROGRAMMING, done, user);
         },
         "setting MCU state not supported for this device"},
        {[&](uint64_t* t) {
             return halyx_device_control_get_protection_status(ctx, 1, nullptr, t, nullptr, done, user);
         },
         "Protection status not supported"},
        {[&](uint64_t* t) {
             return halyx_device_control_set_protection(ctx, 1, nullptr, t, HALYX_PROTECTION_ALL, done, user);
         },
         "Protection status not supported"},
    };
    for (const auto& [start, message] : operations) {
        uint64_t task = 0;
        ASSERT_EQ(start(&task), HALYX_SUCCESS) << message;
        ASSERT_NE(task, 0u);
        EXPECT_EQ(halyx_wait_async_task_complete(ctx, task), HALYX_ERR_NOT_SUPPORTED) << message;
        EXPECT_EQ(lastError(ctx).message, "async task failure for id: " + std::to_string(task) + " msg: " + message);
        std::lock_guard lock(completion.mutex);
        ASSERT_FALSE(completion.calls.empty());
        EXPECT_EQ(completion.calls.back().task_id, task);
        EXPECT_EQ(completion.calls.back().error_code, HALYX_ERR_NOT_SUPPORTED);
        EXPECT_EQ(completion.messages.back(), message);
    }
    EXPECT_EQ(completion.calls.size(), operations.size());
    halyx_fw_release_handle(firmware);
}

TEST(Dispatch, PluginChoiceFollowsTraitsAndCanHandle)
{
    std::atomic<int> erased_by_probe{0};
    std::atomic<int> erased_by_boot{0};
    halyx_test::PluginScript probe;
    probe.name = "probe";
    probe.traits = {"jlink"};
    probe.canHandle = [](const std::string&, const std::string& operation) { return operation != "program"; };
    probe.erase = [&](const std::string&, HALYX::Operation&) { ++erased_by_probe; };
    halyx_test::PluginScript boot;
    boot.name = "boot";
    boot.traits = {"mcuBoot"};
    boot.canHandle = [](const std::string& device, const std::string& operation) {
        return operation == "program" && json::parse(device)["traits"]["mcuBoot"] == true;
    };
    boot.erase = [&](const std::string&, HALYX::Operation&) { ++erased_by_boot; };
    boot.program = [](const std::string& device, const halyx_firmware& firmware, HALYX::Operation& op) {
        EXPECT_EQ(json::parse(device)["serialNumber"], "BOTH");
        EXPECT_EQ(firmware.data, "image");
        op.progress(json{{"percentage", 50}});
    };
    auto context = withDevices({probe, boot}, {{"BOTH", {{"jlink", true}, {"mcuBoot", true}}},
                                               {"FALSE-TRAIT", {{"jlink", false}, {"mcuBoot", false}}}});
    Completion completion;
    uint64_t task = 0;

    ASSERT_EQ(halyx_fw_erase(*context, 1, nullptr, &task, Completion::complete, &completion), HALYX_SUCCESS);
    EXPECT_EQ(halyx_wait_async_task_complete(*context, task), HALYX_SUCCESS);
    EXPECT_EQ(erased_by_probe, 1);
    EXPECT_EQ(erased_by_boot, 0);

    halyx_firmware* firmware = nullptr;
    const std::string image = "image";
    ASSERT_EQ(halyx_fw_create_handle(&firmware, reinterpret_cast<const uint8_t*>(image.data()), image.size(),
                                     HALYX_FW_SOURCE_BUFFER, HALYX_FW_FORMAT_BINARY),
              HALYX_SUCCESS);
    ASSERT_EQ(halyx_fw_program(*context, 1, firmware, &task, nullptr, nullptr, Completion::onProgress,
                               Completion::complete, &completion),
              HALYX_SUCCESS);
    // The task holds its own copy of the handle.
    halyx_fw_release_handle(firmware);
    EXPECT_EQ(halyx_wait_async_task_complete(*context, task), HALYX_SUCCESS);
    {
        std::lock_guard lock(completion.mutex);
        ASSERT_EQ(completion.progress.size(), 1u);
        EXPECT_EQ(json::parse(completion.progress[0])["percentage"], 50);
        EXPECT_EQ(completion.calls.back().error_code, HALYX_SUCCESS);
        EXPECT_EQ(completion.messages.back(), "");
        EXPECT_NE(completion.thread, std::this_thread::get_id());
    }

    // Traits that are present but false do not qualify a plugin.
    EXPECT_EQ(halyx_fw_erase(*context, 2, nullptr, &task, Completion::complete, &completion),
              HALYX_ERR_NO_MATCHING_TRAIT);
}

TEST(Dispatch, ResultsReachTheirCallbacksAndCancellationTheOperation)
{
    std::atomic<bool> running{false};
    halyx_test::PluginScript probe;
    probe.name = "probe";
    probe.traits = {"jlink"};
    probe.canHandle = [](const std::string&, const std::string&) { return true; };
    probe.getCoreInfo = [](const std::string&, HALYX::Operation& op) {
        EXPECT_EQ(op.core(), std::optional<uint32_t>(HALYX_DEVICE_CORE_NETWORK));
        halyx_device_core_info_t info{};
        info.codeSize = 0x40000;
        info.qspiPresent = true;
        return info;
    };
    probe.readFwInfo = [](const std::string&, HALYX::Operation&) {
        return std::vector<HALYX::ImageInfo>{{HALYX_IMAGE_TYPE_APPLICATION, 0, 0x1000, 0x2000, 0, "2.0.0"}};
    };
    probe.erase = [&](const std::string&, HALYX::Operation& op) {
        running = true;
        for (;;) {
            op.throwIfCancelled();
            std::this_thread::sleep_for(1ms);
        }
    };
    auto context = withDevices({probe}, {{"P", {{"jlink", true}}}});
    Completion completion;
    uint64_t task = 0;

    static uint32_t code_size = 0;
    const halyx_device_core_t core = HALYX_DEVICE_CORE_NETWORK;
    ASSERT_EQ(
        halyx_get_device_core_info(
            *context, 1, &core,
            [](halyx_context*, uint64_t, const halyx_device_core_info_t* info, void*) { code_size = info->codeSize; },
            &task, Completion::complete, &completion),
        HALYX_SUCCESS);
    EXPECT_EQ(halyx_wait_async_task_complete(*context, task), HALYX_SUCCESS);
    EXPECT_EQ(code_size, 0x40000u);

    static std::string version;
    ASSERT_EQ(halyx_fw_read_info(
                  *context, &task, 1, nullptr,
                  [](halyx_context*, halyx_firmware_device_firmware_images_t images, void*) {
                      ASSERT_EQ(images.count, 1u);
                      version = images.images[0].version;
                  },
                  Completion::complete, &completion),
              HALYX_SUCCESS);
    EXPECT_EQ(halyx_wait_async_task_complete(*context, task), HALYX_SUCCESS);
    EXPECT_EQ(version, "2.0.0");

    ASSERT_EQ(halyx_fw_erase(*context, 1, nullptr, &task, Completion::complete, &completion), HALYX_SUCCESS);
    while (!running) {
        std::this_thread::yield();
    }
    EXPECT_EQ(halyx_cancel_async_task(*context, task), HALYX_SUCCESS);
    EXPECT_EQ(halyx_wait_async_task_complete(*context, task), HALYX_ERR_GENERAL);
    std::lock_guard lock(completion.mutex);
    EXPECT_EQ(completion.messages.back(), "Operation cancelled.");

    uint64_t* no_task = nullptr;
    EXPECT_EQ(halyx_fw_erase(*context, 1, nullptr, no_task, nullptr, nullptr), HALYX_ERR_INVALID_ARGUMENT);
}

TEST(Dispatch, FirmwareHandleChecks)
{
    halyx_firmware* firmware = nullptr;
    const auto path = halyx_test::tempPath("dispatch.hex");
    halyx_test::writeText(path, ":00000001FF\n");

    EXPECT_EQ(halyx_fw_create_handle(&firmware, reinterpret_cast<const uint8_t*>(path.c_str()), 3, HALYX_FW_SOURCE_FILE,
                                     HALYX_FW_FORMAT_INTEL_HEX),
              HALYX_ERR_INVALID_ARGUMENT);
    ASSERT_EQ(halyx_fw_create_handle(&firmware, reinterpret_cast<const uint8_t*>(path.c_str()), 0, HALYX_FW_SOURCE_FILE,
                                     HALYX_FW_FORMAT_INTEL_HEX),
              HALYX_SUCCESS);
    EXPECT_EQ(firmware->data, path);
    EXPECT_EQ(halyx_fw_release_handle(firmware), HALYX_SUCCESS);

    try {
        HALYX::createFirmware(reinterpret_cast<const uint8_t*>("/no/such/file.hex"), 0, HALYX_FW_SOURCE_FILE, 0);
        ADD_FAILURE() << "a missing file was accepted";
    } catch (const HALYX::HALYXException& e) {
        EXPECT_EQ(e.code(), HALYX_ERR_INVALID_ARGUMENT);
        EXPECT_STREQ(e.what(), "file does not exist: /no/such/file.hex (error code: 2, error_message )");
    }
    const auto directory = std::filesystem::temp_directory_path().string();
    try {
        HALYX::createFirmware(reinterpret_cast<const uint8_t*>(directory.c_str()), 0, HALYX_FW_SOURCE_FILE, 0);
        ADD_FAILURE() << "a directory was accepted";
    } catch (const HALYX::HALYXException& e) {
        EXPECT_EQ(std::string(e.what()).rfind("Other error when trying to open file: " + directory, 0), 0u) << e.what();
    }
    EXPECT_EQ(halyx_fw_create_handle(&firmware, nullptr, 0, HALYX_FW_SOURCE_BUFFER, 0), HALYX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(halyx_fw_create_handle(nullptr, reinterpret_cast<const uint8_t*>("x"), 1, 1, 0),
              HALYX_ERR_INVALID_ARGUMENT);
    std::remove(path.c_str());
}

namespace {

// A context with one device whose erase returns at once.
std::unique_ptr<TestContext> quickContext()
{
    halyx_test::PluginScript quick;
    quick.name = "quick";
    quick.traits = {"jlink"};
    quick.canHandle = [](const std::string&, const std::string&) { return true; };
    quick.erase = [](const std::string&, HALYX::Operation&) {};
    return withDevices({quick}, {{"Q", {{"jlink", true}}}});
}

} // namespace

// Callers that rely on the completion callback and never wait: the tasks run
// on a bounded pool, so threads and address space stay bounded.
TEST(Dispatch, OperationsNobodyWaitsForStayBounded)
{
    auto context = quickContext();

    struct Count {
        std::mutex mutex;
        std::condition_variable done;
        int completed = 0;
    } count;
    const auto threads_before = halyx_test::procStatus("Threads:");
    const auto memory_before = halyx_test::procStatus("VmSize:");
    constexpr int kOperations = 2000;
    for (int i = 0; i < kOperations; ++i) {
        uint64_t task = 0;
        ASSERT_EQ(halyx_fw_erase(
                      *context, 1, nullptr, &task,
                      [](halyx_context*, halyx_complete_t result) {
                          auto* c = static_cast<Count*>(result.user_data);
                          std::lock_guard lock(c->mutex);
                          ++c->completed;
                          c->done.notify_all();
                      },
                      &count),
                  HALYX_SUCCESS);
    }
    std::unique_lock lock(count.mutex);
    ASSERT_TRUE(count.done.wait_for(lock, 60s, [&] { return count.completed == kOperations; }));
    EXPECT_LE(halyx_test::procStatus("Threads:") - threads_before,
              static_cast<long>(HALYX::ASYNC::TaskTable::kMaxWorkers));
    // A thread per task kept its stack until waited for: gigabytes for this many.
    EXPECT_LT(halyx_test::procStatus("VmSize:") - memory_before, 2L * 1024 * 1024);
}

// Waiting for a task from its own callbacks could never end: refused at once,
// as is releasing the context there.
TEST(Dispatch, WaitingFromTheTasksOwnCallbackIsRefused)
{
    auto context = quickContext();

    struct Inside {
        std::mutex mutex;
        std::condition_variable done;
        bool finished = false;
        halyx_errorcode_t untimed = HALYX_SUCCESS;
        halyx_errorcode_t timed = HALYX_SUCCESS;
        halyx_errorcode_t release = HALYX_SUCCESS;
        std::string message;
    } inside;
    uint64_t task = 0;
    ASSERT_EQ(halyx_fw_erase(
                  *context, 1, nullptr, &task,
                  [](halyx_context* ctx, halyx_complete_t result) {
                      auto* in = static_cast<Inside*>(result.user_data);
                      const auto untimed = halyx_wait_async_task_complete(ctx, result.task_id);
                      const auto message = lastError(ctx).message;
                      const auto timed = halyx_wait_timed_async_task_complete(ctx, result.task_id, 60000);
                      const auto release = halyx_release_context(ctx);
                      std::lock_guard lock(in->mutex);
                      in->untimed = untimed;
                      in->timed = timed;
                      in->release = release;
                      in->message = message;
                      in->finished = true;
                      in->done.notify_all();
                  },
                  &inside),
              HALYX_SUCCESS);
    {
        std::unique_lock lock(inside.mutex);
        ASSERT_TRUE(inside.done.wait_for(lock, 10s, [&] { return inside.finished; }));
        EXPECT_EQ(inside.untimed, HALYX_ERR_INVALID_STATE);
        EXPECT_EQ(inside.timed, HALYX_ERR_INVALID_STATE);
        EXPECT_EQ(inside.release, HALYX_ERR_INVALID_STATE);
        EXPECT_NE(inside.message.find("cannot be waited for from its own callbacks"), std::string::npos)
            << inside.message;
    }
    // The task itself is untouched by the refused waits.
    EXPECT_EQ(halyx_wait_async_task_complete(*context, task), HALYX_SUCCESS);
}
