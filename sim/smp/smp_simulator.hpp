#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "smp_wire.hpp"

namespace HALYX::SIM {

// A device in MCUboot serial recovery on a pseudo-terminal. By default it is
// as strict as a stock boot loader: 128-byte console lines decoded one by
// one into a 1024-byte buffer, only the commands such a boot loader has, the
// whole slot erased before the first chunk is answered, writes in whole
// flash blocks, and a reboot after reset. Config::permissive() is the
// forgiving device that earlier clients were written against. Faults can be
// injected, and a throttle makes the line as slow as a UART at a given baud
// rate in both directions. While the device is busy (erasing, waiting to
// reboot) what the client sends waits in the terminal, as USB flow control
// holds it back from a CDC ACM device; nothing is lost as on a bare UART.
//
// Threads and locks: one server thread per simulator reads the terminal,
// answers, erases (waiting on changed_ with mutex_ released) and reboots.
// Every public call is safe from any other thread; state is under mutex_.
// The server thread never calls out while holding mutex_: the reboot handler
// runs without it.
class SmpSimulator {
public:
    struct Config {
        uint32_t baudRate = 0;            // 0: as fast as the terminal goes
        size_t lineMax = 128;             // console line limit, newline included
        size_t receiveBufferSize = 1024;  // decoded packet buffer
        bool perLineDecoding = true;      // false: decode the joined text of a packet (permissive)
        bool answerStatistics = false;    // "smp_com" query: false -> read response {"rc": 8}
        std::optional<uint32_t> frameMax; // with packMax: the statistics answer when answerStatistics
        std::optional<uint32_t> packMax;
        bool answerParameters = false; // group 0 id 6 -> {"buf_size": receiveBufferSize, "buf_count": 1}
        bool eraseCommand = false;     // group 1 id 5: false -> rc 8; true -> erases the slot (permissive)
        uint32_t writeBlockSize = 4;   // flash write alignment
        size_t slotSize = 1024 * 1024;
        size_t pageSize = 4096;
        std::chrono::microseconds pageEraseTime{0}; // per page of the slot; erase time = pages * this
        std::chrono::milliseconds rebootDelay{250}; // after answering reset, then the port vanishes
        std::chrono::milliseconds rebootTime{500};  // how long it stays away before it is back
        bool rebootOnReset = true;
        size_t responseLineMax = 127;
        // Image slots it has; a chunk at offset 0 for image == imageCount
        // gets rc 3, beyond it rc 5, as a boot loader built for that many
        // images answers. 0: any number, each its own slot.
        uint32_t imageCount = 1;
        // Answers as indefinite-length maps, as the boot loader's CBOR
        // encoder writes them unless built for canonical output.
        bool indefiniteMaps = true;
        // Forgiving upload rules (an upload must start at offset 0, "len"
        // and a matching "sha" only on the first chunk, keys in the order a
        // well-known client sends them, every chunk names its image) and the
        // cellular kit's modem image group (0x41, with "addr").
        bool permissiveUpload = false;

        // A stock boot loader: the defaults above; erasing a 4 KiB page
        // takes 45 ms, a typical figure for NOR flash sectors and in the
        // range of MCU internal flash, so the 1 MiB slot takes 11.5 s.
        static Config mcuboot();
        // Today's forgiving device: joined decoding; lines up to 500 bytes
        // and packets up to 65535 bytes (frameMax and packMax limit them
        // further when given); the erase command works; "smp_com" answered
        // when frameMax and packMax are given (silence otherwise); 4 MiB
        // slots without alignment loss; no reboot.
        static Config permissive();
    };

    enum class Command {
        Upload,
        Erase,
        Reset,
        ParameterQuery
    }; // ParameterQuery: every other request
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
        size_t repeatedChunks = 0; // chunks at an offset other than the current one
        size_t erases = 0;         // erase commands carried out
        size_t resets = 0;
        size_t parameterQueries = 0;  // statistics and parameter queries, answered or not
        size_t rejected = 0;          // requests answered with a non-zero rc
        size_t oversized = 0;         // permissive: packets or lines beyond the limits, dropped
        size_t slotErasesStarted = 0; // erases of a whole slot (first chunk or erase command)
        size_t slotErasesCompleted = 0;
        size_t unalignedTails = 0; // non-final chunks whose partial last write block was not written
        size_t reboots = 0;        // times it went away after a reset
        size_t rxBytes = 0;
        size_t txBytes = 0;
        LineStats line; // lines cut, decode errors, overflows, CRC and header drops
    };

    // Called on the server thread, without the simulator's lock, when a
    // device on a borrowed terminal has gone silent for a reboot: the owner
    // takes the terminal away and, `away` later, hands a new one to attach().
    // It must return soon and must not destroy the simulator.
    using RebootHandler = std::function<void(std::chrono::milliseconds away)>;

    // Serves a pseudo-terminal of its own; a reboot brings it back on a new one.
    explicit SmpSimulator(Config config);
    // Serves the pseudo-terminal whose master side is `master` (borrowed,
    // e.g. a simulated kit's tty) and that clients open as `port`. unplug()
    // then only silences the device: the terminal stays with its owner.
    SmpSimulator(Config config, int master, std::string port);
    ~SmpSimulator();
    SmpSimulator(const SmpSimulator&) = delete;
    SmpSimulator& operator=(const SmpSimulator&) = delete;

    const Config& config() const { return config_; }
    // The terminal a client opens; changes with replug() and with reboots.
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

    // Borrowed terminals: what the reboot handler's owner calls once the
    // device is back, with the master side of its new terminal.
    void setRebootHandler(RebootHandler handler);
    void attach(int master, std::string port);

    // What a completed or partial upload left in the slot: its bytes up to
    // the upload's length or as far as it got.
    std::vector<uint8_t> image(uint16_t group = 1, uint32_t number = 0) const;
    // The whole slot as the flash holds it (empty before its first erase).
    std::vector<uint8_t> flash(uint32_t number = 0) const;
    // The "addr" given with each modem-group image number.
    std::optional<uint32_t> address(uint32_t number) const;
    Stats stats() const;
    // Waits until `count` resets have been handled.
    bool waitForResets(size_t count, std::chrono::milliseconds timeout) const;
    // Waits until `count` reboots are over and it serves a terminal again.
    bool waitForReboots(size_t count, std::chrono::milliseconds timeout) const;
    // Waits until `count` slot erases have started.
    bool waitForSlotErases(size_t count, std::chrono::milliseconds timeout) const;

private:
    struct Slot {
        std::vector<uint8_t> data; // the flash, or permissively the bytes received
        size_t length = 0;         // the upload's "len"
        size_t stored = 0;         // bytes of it written
        std::optional<uint32_t> address;
    };
    struct PlannedFault {
        Fault fault;
        Command command;
        uint32_t atOffset;
        int rc;
    };
    // The boot loader's upload state: in RAM, gone with a reboot.
    struct UploadState {
        uint32_t image = 0;
        size_t length = 0;
        size_t offset = 0;
    };
    using SlotKey = std::pair<uint16_t, uint32_t>;
    using Lock = std::unique_lock<std::mutex>;

    void run();
    void openTerminal();
    void openBorrowedTerminal();
    void closeTerminal();
    DecoderLimits decoderLimits() const;
    bool interrupted() const { return stop_ || unplug_requested_; }
    bool oversized(const WirePacket& request) const;
    bool serve(const WirePacket& request);
    std::optional<PlannedFault> takeFault(Command command, uint32_t offset);
    std::optional<WirePacket> answer(const WirePacket& request, std::optional<PlannedFault>& fault, Lock& lock);
    std::optional<WirePacket> statistics(const WirePacket& request);
    std::optional<WirePacket> upload(const WirePacket& request, const std::optional<PlannedFault>& fault, Lock& lock);
    WirePacket permissiveUpload(const WirePacket& request, const std::optional<PlannedFault>& fault);
    bool eraseSlot(Slot& slot, Lock& lock);
    void send(const WirePacket& response, const std::optional<PlannedFault>& fault);
    void reboot();
    void throttle(std::chrono::steady_clock::time_point& line_free, size_t bytes);
    void wake();

    const Config config_;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    int borrowed_master_ = -1;
    std::string borrowed_port_;
    int master_ = -1;
    int slave_ = -1; // kept open so the terminal outlives client sessions
    std::string port_;
    std::map<SlotKey, Slot> slots_;
    UploadState ram_;
    // Permissive uploads.
    std::optional<SlotKey> uploading_;
    uint32_t upload_offset_ = 0;
    std::vector<PlannedFault> faults_;
    std::chrono::milliseconds delay_{0};
    Stats stats_;
    RebootHandler reboot_handler_;
    bool stop_ = false;
    bool unplug_requested_ = false;
    bool rebooting_ = false;
    bool stay_away_ = false; // unplugged while rebooting

    LineDecoder decoder_;

    // Server thread only.
    std::chrono::steady_clock::time_point rx_free_;
    std::chrono::steady_clock::time_point tx_free_;

    int wake_fd_ = -1;
    std::thread thread_;
};

} // namespace HALYX::SIM
