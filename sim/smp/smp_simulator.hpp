#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "smp_wire.hpp"

namespace HALYX::SIM {

// A device in MCUboot serial recovery on a pseudo-terminal: image slots in
// memory, erase, chunked upload, reset and the communication-parameter
// query, with faults to inject and a throttle that makes the line as slow as
// a UART at a given baud rate in both directions.
//
// Threads: one server thread per simulator reads the terminal and answers;
// every public call is safe from any other thread (state under mutex_).
class SmpSimulator {
public:
    struct Config {
        uint32_t baudRate = 0;             // 0: as fast as the terminal goes
        std::optional<uint32_t> frameMax;  // with packMax: the answer to the parameter query
        std::optional<uint32_t> packMax;
        bool answerParameterQuery = true;  // false: stay silent, as older bootloaders do
        size_t slotSize = 4 * 1024 * 1024;
        size_t responseLineMax = 128;      // console line length of the answers
    };

    enum class Command { Upload, Erase, Reset, ParameterQuery };
    enum class Fault {
        IgnoreRequest,   // as if the request never arrived
        DropResponse,    // handle it, answer nothing
        CorruptResponse, // answer with a line that is not base64
        BadCrcResponse,  // answer with a wrong CRC
        ErrorRc,         // answer "rc" = rc without handling it
        WrongOffset,     // handle it, answer an "off" one too far
        Unplug,          // vanish before answering
    };

    struct Stats {
        size_t uploads = 0;        // chunk requests handled
        size_t repeatedChunks = 0; // chunks at an offset already past
        size_t erases = 0;
        size_t resets = 0;
        size_t parameterQueries = 0;
        size_t rejected = 0;       // requests answered with a non-zero rc
        size_t oversized = 0;      // packets or lines beyond the announced limits
        size_t rxBytes = 0;
        size_t txBytes = 0;
        LineStats line;
    };

    // Serves a pseudo-terminal of its own.
    explicit SmpSimulator(Config config);
    // Serves the pseudo-terminal whose master side is `master` (borrowed,
    // e.g. a simulated kit's tty) and that clients open as `port`. unplug()
    // then only silences the device: the terminal stays with its owner.
    SmpSimulator(Config config, int master, std::string port);
    ~SmpSimulator();
    SmpSimulator(const SmpSimulator&) = delete;
    SmpSimulator& operator=(const SmpSimulator&) = delete;

    // The terminal a client opens; changes with replug().
    std::string port() const;

    // Applies the fault once, to the first request of that kind (uploads: at
    // or past the offset) from now on.
    void injectFault(Fault fault, Command command, uint32_t at_offset = 0, int rc = 1);
    void setResponseDelay(std::chrono::milliseconds delay);

    // Closes the terminal as a cable pull does; replug() brings the device
    // back on a new terminal with its memory intact.
    void unplug();
    void replug();
    bool plugged() const;

    // What a completed or partial upload left in the slot.
    std::vector<uint8_t> image(uint16_t group = 1, uint32_t number = 0) const;
    // The "addr" given with each modem-group image number.
    std::optional<uint32_t> address(uint32_t number) const;
    Stats stats() const;
    // Waits until `count` resets have been handled.
    bool waitForResets(size_t count, std::chrono::milliseconds timeout) const;

private:
    struct Slot {
        std::vector<uint8_t> data;
        uint32_t length = 0;
        std::optional<uint32_t> address;
    };
    struct PlannedFault {
        Fault fault;
        Command command;
        uint32_t atOffset;
        int rc;
    };
    using SlotKey = std::pair<uint16_t, uint32_t>;

    void run();
    void openTerminal();
    void openBorrowedTerminal();
    void closeTerminal();
    void serve(const WirePacket& request);
    std::optional<PlannedFault> takeFault(Command command, uint32_t offset);
    WirePacket answer(const WirePacket& request, std::optional<PlannedFault>& fault);
    WirePacket handleUpload(const WirePacket& request, const std::optional<PlannedFault>& fault);
    void send(const WirePacket& response, const std::optional<PlannedFault>& fault);
    void throttle(std::chrono::steady_clock::time_point& line_free, size_t bytes);
    void wake();

    const Config config_;
    const int borrowed_master_ = -1;
    const std::string borrowed_port_;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    int master_ = -1;
    int slave_ = -1; // kept open so the terminal outlives client sessions
    std::string port_;
    std::map<SlotKey, Slot> slots_;
    std::optional<SlotKey> uploading_;
    uint32_t upload_offset_ = 0;
    std::vector<PlannedFault> faults_;
    std::chrono::milliseconds delay_{0};
    Stats stats_;
    bool stop_ = false;
    bool unplug_requested_ = false;
    bool replug_requested_ = false;

    // Server thread only.
    LineDecoder decoder_;
    std::chrono::steady_clock::time_point rx_free_;
    std::chrono::steady_clock::time_point tx_free_;

    int wake_fd_ = -1;
    std::thread thread_;
};

} // namespace HALYX::SIM
