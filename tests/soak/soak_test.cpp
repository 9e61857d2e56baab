// The library under load for a set time (HALYX_SOAK_SECONDS, 60 by default):
// eight contexts in one process enumerate, take and free devices, render
// documents, register and drop log and device-event callbacks, start and stop
// hot-plug events and program simulated kits, while kits are plugged and
// unplugged, tasks are cancelled at random and contexts are released while
// their operations and callbacks run. It must end with no sanitizer report,
// no deadlock (a watchdog fails it with every thread's stack) and memory flat
// after the warm-up. It prints one JSON line with its figures.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <sys/prctl.h>
#include <unistd.h>

#include "files.hpp"
#include "halyx.h"
#include "testbed.hpp"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using nlohmann::json;

constexpr int kContexts = 8;

// Every thread's stack, from a debugger attached to this process.
void dumpStacks()
{
    ::prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
    const auto command =
        "gdb -p " + std::to_string(::getpid()) + " -batch -ex 'set pagination off' -ex 'thread apply all bt' 2>&1";
    if (FILE* gdb = ::popen(command.c_str(), "r")) {
        char line[1024];
        while (std::fgets(line, sizeof line, gdb) != nullptr) {
            std::fputs(line, stderr);
        }
        ::pclose(gdb);
    }
}

struct Figures {
    std::atomic<uint64_t> enumerations{0};
    std::atomic<uint64_t> copies{0};
    std::atomic<uint64_t> documents{0};
    std::atomic<uint64_t> programs{0};
    std::atomic<uint64_t> programmed{0};
    std::atomic<uint64_t> cancelled{0};
    std::atomic<uint64_t> releases{0};
    std::atomic<uint64_t> events{0};
    std::atomic<uint64_t> logLines{0};
    std::atomic<uint64_t> unexpected{0};
    std::atomic<uint64_t> heartbeat{0};
};

// The codes an operation of this soak may end with; anything else is a fault.
bool expected(halyx_errorcode_t code)
{
    switch (code) {
    case HALYX_SUCCESS:
    case HALYX_ERR_GENERAL:   // a device went away mid-operation, a cancel
    case HALYX_ERR_DFU_11:    // cancelled
    case HALYX_ERR_NOT_FOUND: // a device that left
    case HALYX_ERR_TIMEOUT:   // enumeration still running, a device that left
    case HALYX_ERR_OPEN_FAILED:
    case HALYX_ERR_LOGGER:          // a second registration
    case HALYX_ERR_ALREADY_STARTED: // another context programs that kit
    case HALYX_ERR_NO_MATCHING_TRAIT:
    case HALYX_ERR_INVALID_STATE:
        return true;
    default:
        return false;
    }
}

// One context's life, over and over until the time is up.
void life(int index, const std::atomic<bool>& stop, Figures& figures, const std::string& image)
{
    std::mt19937 random(static_cast<unsigned>(index) * 7919u + 1);
    auto chance = [&](int percent) { return static_cast<int>(random() % 100) < percent; };
    auto check = [&](halyx_errorcode_t code) {
        if (!expected(code)) {
            ++figures.unexpected;
            std::fprintf(stderr, "context %d: unexpected code %u\n", index, static_cast<unsigned>(code));
        }
        return code;
    };
    while (!stop) {
        halyx_context* context = nullptr;
        if (halyx_create_context(&context) != HALYX_SUCCESS) {
            ++figures.unexpected;
            continue;
        }
        const halyx_timeout_configuration_t timeouts{20000, 200, 2000, 5000};
        halyx_set_timeout(context, &timeouts);
        halyx_set_configuration(context, R"({"device_lister": [{"name": "mcuboot", "init_parameters":
                                             {"MCUBOOT_NETCORE_UPLOAD_WAIT_TIME": 0}}]})");
        std::vector<uint64_t> tasks;
        for (int round = 0; round < 20 && !stop; ++round) {
            ++figures.heartbeat;
            if (chance(30)) {
                check(halyx_register_log_event(
                    context, [](uint32_t, const char*, void* user) { ++static_cast<Figures*>(user)->logLines; },
                    &figures));
                halyx_set_log_level(context, HALYX_LOG_LEVEL_INFO);
            } else if (chance(20)) {
                halyx_unregister_log_event(context);
            }
            if (chance(30)) {
                check(halyx_register_device_event(
                    context,
                    [](halyx_context*, const halyx_device_event_t*, void* user) {
                        ++static_cast<Figures*>(user)->events;
                    },
                    &figures));
                check(halyx_start_eventhandler(context));
            } else if (chance(20)) {
                check(halyx_stop_eventhandler(context));
                halyx_unregister_device_event(context);
            }

            halyx_device_list_t* list = nullptr;
            if (check(halyx_enumerate(context, &list)) != HALYX_SUCCESS) {
                continue;
            }
            ++figures.enumerations;
            char* document = nullptr;
            if (halyx_util_device_list_as_document(context, HALYX_DOC_FORMAT_JSON, list, &document) == HALYX_SUCCESS) {
                ++figures.documents;
                halyx_free_document(context, document);
            }
            std::vector<std::pair<uint32_t, bool>> devices; // id, in MCUboot serial recovery
            for (size_t i = 0; i < list->count; ++i) {
                const auto record = json::parse(list->devices[i].json);
                devices.emplace_back(static_cast<uint32_t>(list->devices[i].id),
                                     record.at("traits").value("mcuBoot", false));
            }
            check(halyx_free_device_list(context, list));

            for (const auto& [id, mcuboot] : devices) {
                halyx_device_t* copy = nullptr;
                if (check(halyx_get_device(context, id, &copy)) == HALYX_SUCCESS) {
                    ++figures.copies;
                    check(halyx_free_device(context, copy));
                }
                if (mcuboot && chance(10)) {
                    halyx_firmware* firmware = nullptr;
                    halyx_fw_create_handle(&firmware, reinterpret_cast<const uint8_t*>(image.c_str()), 0,
                                           HALYX_FW_SOURCE_FILE, HALYX_FW_FORMAT_BINARY);
                    uint64_t task = 0;
                    const auto started = check(halyx_fw_program(
                        context, id, firmware, &task, nullptr, nullptr, nullptr,
                        [](halyx_context*, halyx_complete_t result) {
                            auto* f = static_cast<Figures*>(result.user_data);
                            if (result.error_code == HALYX_SUCCESS) {
                                ++f->programmed;
                            }
                        },
                        &figures));
                    halyx_fw_release_handle(firmware);
                    if (started == HALYX_SUCCESS) {
                        ++figures.programs;
                        tasks.push_back(task);
                    }
                }
            }
            if (!tasks.empty() && chance(30)) {
                const auto task = tasks[random() % tasks.size()];
                if (halyx_cancel_async_task(context, task) == HALYX_SUCCESS) {
                    ++figures.cancelled;
                }
            }
            if (!tasks.empty() && chance(40)) {
                check(halyx_wait_timed_async_task_complete(context, tasks.front(), 50));
                bool exists = true;
                halyx_async_task_exists(context, tasks.front(), &exists);
                if (!exists) {
                    tasks.erase(tasks.begin());
                }
            }
        }
        // Released with operations, events and log callbacks perhaps still running.
        const auto released = check(halyx_release_context(context));
        if (released == HALYX_SUCCESS) {
            ++figures.releases;
        } else {
            // An enumeration still running: wait for it and try again.
            while (halyx_release_context(context) == HALYX_ERR_TIMEOUT) {
                std::this_thread::sleep_for(10ms);
            }
            ++figures.releases;
        }
    }
}

} // namespace

TEST(Soak, EightContextsUnderLoad)
{
    const char* configured = std::getenv("HALYX_SOAK_SECONDS");
    const auto duration = std::chrono::seconds(configured != nullptr ? std::atol(configured) : 60);

    HALYX::SIM::Testbed testbed;
    // Stock boot loaders with quick flash, the cellular kit, and kits without one.
    for (int i = 0; i < 2; ++i) {
        auto kit = HALYX::SIM::mcubootDevice("SOAKMB" + std::to_string(i));
        kit.bootloader.pageEraseTime = std::chrono::microseconds(200);
        testbed.plug(kit);
    }
    testbed.plug(HALYX::SIM::cellularKit("SOAKKC0"));
    testbed.plug(HALYX::SIM::makerKit("SOAKKV0"));
    const auto image = halyx_test::tempPath("soak.bin");
    halyx_test::writeBytes(image, std::vector<uint8_t>(20000, 0x5A));

    Figures figures;
    std::atomic<bool> stop{false};
    std::vector<std::thread> lives;
    for (int i = 0; i < kContexts; ++i) {
        lives.emplace_back(life, i, std::cref(stop), std::ref(figures), image);
    }

    // Kits come and go beside them.
    std::thread plugger([&] {
        std::mt19937 random(42);
        int round = 0;
        while (!stop) {
            const auto kit = testbed.plug(HALYX::SIM::otherVendorDevice("SOAKOT" + std::to_string(round++ % 3)));
            std::this_thread::sleep_for(std::chrono::milliseconds(200 + random() % 300));
            testbed.unplug(kit.id);
            std::this_thread::sleep_for(std::chrono::milliseconds(100 + random() % 200));
        }
    });

    // Watch for progress and memory.
    const auto start = Clock::now();
    const auto warm = start + duration / 5;
    std::vector<long> resident;
    long peak = 0;
    uint64_t last_beat = 0;
    auto last_progress = Clock::now();
    bool stuck = false;
    while (Clock::now() - start < duration) {
        std::this_thread::sleep_for(1s);
        const auto rss = halyx_test::procStatus("VmRSS:");
        peak = std::max(peak, rss);
        if (Clock::now() >= warm) {
            resident.push_back(rss);
        }
        const auto beat = figures.heartbeat.load();
        if (beat != last_beat) {
            last_beat = beat;
            last_progress = Clock::now();
        } else if (Clock::now() - last_progress > 120s) {
            stuck = true;
            break;
        }
    }
    if (stuck) {
        dumpStacks();
        FAIL() << "no context made progress for two minutes: deadlock (stacks above)";
    }
    stop = true;
    // The lives end within the watchdog's time, or the test fails with the stacks.
    std::atomic<bool> ended{false};
    std::thread watchdog([&] {
        const auto until = Clock::now() + 180s;
        while (!ended && Clock::now() < until) {
            std::this_thread::sleep_for(100ms);
        }
        if (!ended) {
            dumpStacks();
            std::fprintf(stderr, "the contexts did not end after the soak: deadlock\n");
            std::abort();
        }
    });
    for (auto& thread : lives) {
        thread.join();
    }
    plugger.join();
    ended = true;
    watchdog.join();

    // Flat after the warm-up: the last fifth no higher than the first fifth
    // of what followed it, but for a small margin.
    ASSERT_GE(resident.size(), 5u);
    const auto fifth = resident.size() / 5;
    long early = 0;
    long late = 0;
    for (size_t i = 0; i < fifth; ++i) {
        early = std::max(early, resident[i]);
        late = std::max(late, resident[resident.size() - 1 - i]);
    }
    const json report{{"benchmark", "soak"},
                      {"seconds", duration.count()},
                      {"contexts", kContexts},
                      {"enumerations", figures.enumerations.load()},
                      {"device_copies", figures.copies.load()},
                      {"documents", figures.documents.load()},
                      {"programs_started", figures.programs.load()},
                      {"programs_succeeded", figures.programmed.load()},
                      {"cancels", figures.cancelled.load()},
                      {"context_releases", figures.releases.load()},
                      {"device_events", figures.events.load()},
                      {"log_lines", figures.logLines.load()},
                      {"peak_rss_kib", peak},
                      {"rss_after_warmup_kib", early},
                      {"rss_at_end_kib", late}};
    std::printf("%s\n", report.dump().c_str());
    EXPECT_EQ(figures.unexpected.load(), 0u);
    EXPECT_GT(figures.enumerations.load(), 0u);
    EXPECT_LE(late, early + early / 10 + 8 * 1024) << "resident memory grew after the warm-up";
}
