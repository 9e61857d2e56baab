#pragma once

#include <functional>
#include <thread>

namespace halyx_tool {

// Ctrl-C and SIGTERM for a program whose library threads must never see them.
// Construct it before the first library call: the signals are blocked in this
// thread and in every thread started afterwards, so only wait() or the
// background watcher receives them.
class StopSignal {
public:
    StopSignal();
    ~StopSignal();
    StopSignal(const StopSignal&) = delete;
    StopSignal& operator=(const StopSignal&) = delete;

    // Blocks until SIGINT or SIGTERM arrives; returns the signal.
    int wait();

    // Calls handler with the signal, once, on a watcher thread of its own.
    // The watcher ends with this object. One handler per object: a second
    // call throws std::logic_error and leaves the first handler in place.
    void onSignal(std::function<void(int)> handler);

private:
    std::thread watcher_;
};

} // namespace halyx_tool
