// Task round trip (create, body runs, halyx_wait_async_task_complete returns)
// and log delivery (log call to callback entry): median and 99th percentile,
// one JSON line each, against the targets of 20 us and 1 ms.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "bench_json.hpp"
#include "core/context.hpp"
#include "core/logging.hpp"

namespace {

using Clock = std::chrono::steady_clock;

void report(const char* name, std::vector<double> micros, double bound_us)
{
    std::sort(micros.begin(), micros.end());
    const double median = micros[micros.size() / 2];
    const double p99 = micros[micros.size() * 99 / 100];
    halyx_bench::printFigure(name, {{"samples", micros.size()},
                                    {"median_us", median},
                                    {"p99_us", p99},
                                    {"bound_us", bound_us},
                                    {"median_to_bound", median / bound_us}});
}

std::vector<double> taskRoundTrips(halyx_context* context, int samples)
{
    std::vector<double> micros;
    micros.reserve(static_cast<size_t>(samples));
    for (int i = 0; i < samples; ++i) {
        const auto start = Clock::now();
        const auto id = context->tasks.add([](HALYX::ASYNC::operation_call_wrapper_t&) { return HALYX_SUCCESS; });
        if (halyx_wait_async_task_complete(context, id) != HALYX_SUCCESS) {
            std::fprintf(stderr, "task %llu failed\n", static_cast<unsigned long long>(id));
            std::exit(1);
        }
        micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    return micros;
}

struct Delivery {
    std::mutex mutex;
    std::condition_variable arrived;
    bool received = false;
    Clock::time_point at;
};

std::vector<double> logDeliveries(halyx_context* context, int samples)
{
    Delivery delivery;
    halyx_register_log_event(
        context,
        [](uint32_t, const char*, void* user) {
            auto* d = static_cast<Delivery*>(user);
            const auto now = Clock::now();
            {
                std::lock_guard lock(d->mutex);
                d->received = true;
                d->at = now;
            }
            d->arrived.notify_one();
        },
        &delivery);
    halyx_set_log_level(context, HALYX_LOG_LEVEL_INFO);
    std::vector<double> micros;
    micros.reserve(static_cast<size_t>(samples));
    for (int i = 0; i < samples; ++i) {
        const auto start = Clock::now();
        HALYX::Log::info("sample {}", i);
        std::unique_lock lock(delivery.mutex);
        delivery.arrived.wait(lock, [&] { return delivery.received; });
        delivery.received = false;
        micros.push_back(std::chrono::duration<double, std::micro>(delivery.at - start).count());
    }
    halyx_unregister_log_event(context);
    return micros;
}

} // namespace

int main(int argc, char** argv)
{
    const int samples = argc > 1 ? std::atoi(argv[1]) : 10000;
    halyx_context* context = nullptr;
    if (halyx_create_context(&context) != HALYX_SUCCESS) {
        return 1;
    }
    taskRoundTrips(context, 100); // warm-up
    report("task_round_trip", taskRoundTrips(context, samples), 20.0);
    report("log_delivery", logDeliveries(context, samples), 1000.0);
    return halyx_release_context(context) == HALYX_SUCCESS ? 0 : 1;
}
