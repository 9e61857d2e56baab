#include "stop_signal.hpp"

#include <csignal>
#include <pthread.h>
#include <signal.h>
#include <stdexcept>

namespace halyx_tool {
namespace {

sigset_t stopSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGUSR1); // only ever sent by ~StopSignal to end the watcher
    return signals;
}

} // namespace

StopSignal::StopSignal()
{
    const auto signals = stopSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

StopSignal::~StopSignal()
{
    if (watcher_.joinable()) {
        pthread_kill(watcher_.native_handle(), SIGUSR1);
        watcher_.join();
    }
}

int StopSignal::wait()
{
    const auto signals = stopSignals();
    int received = 0;
    do {
        sigwait(&signals, &received);
    } while (received == SIGUSR1);
    return received;
}

void StopSignal::onSignal(std::function<void(int)> handler)
{
    if (watcher_.joinable()) {
        throw std::logic_error("StopSignal::onSignal: a handler is already set");
    }
    watcher_ = std::thread([handler = std::move(handler)] {
        const auto signals = stopSignals();
        int received = 0;
        sigwait(&signals, &received);
        if (received != SIGUSR1) {
            handler(received);
        }
    });
}

} // namespace halyx_tool
