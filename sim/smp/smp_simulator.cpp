#include "smp_simulator.hpp"

#include <cerrno>
#include <cstdlib>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <unistd.h>

#include <nettle/sha2.h>
#include <nlohmann/json.hpp>

namespace HALYX::SIM {
namespace {

using nlohmann::json;
using nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

// SMP management error codes a device answers with.
constexpr int kNoMemory = 2;
constexpr int kInvalid = 3;
constexpr int kBadState = 6;
constexpr int kNotSupported = 8;

struct Rejection {
    int rc;
};

std::vector<uint8_t> sha256(const std::vector<uint8_t>& data)
{
    sha256_ctx ctx;
    sha256_init(&ctx);
    sha256_update(&ctx, data.size(), data.data());
    std::vector<uint8_t> digest(SHA256_DIGEST_SIZE);
    sha256_digest(&ctx, digest.size(), digest.data());
    return digest;
}

uint32_t unsignedValue(const ordered_json& map, const char* key)
{
    const auto it = map.find(key);
    if (it == map.end() || !it->is_number_unsigned() || it->get<uint64_t>() > UINT32_MAX) {
        throw Rejection{kInvalid};
    }
    return it->get<uint32_t>();
}

// Keys must come from the upload's key list, in its order.
void checkKeyOrder(const ordered_json& map)
{
    static const char* const order[] = {"len", "sha", "data", "off", "image", "addr"};
    size_t next = 0;
    for (const auto& item : map.items()) {
        size_t index = next;
        while (index < std::size(order) && item.key() != order[index]) {
            ++index;
        }
        if (index == std::size(order)) {
            throw Rejection{kInvalid};
        }
        next = index + 1;
    }
}

SmpSimulator::Command classify(const WirePacket& p)
{
    if ((p.group == 1 || p.group == 0x41) && p.id == 1) {
        return SmpSimulator::Command::Upload;
    }
    if (p.group == 1 && p.id == 5) {
        return SmpSimulator::Command::Erase;
    }
    if (p.group == 0 && p.id == 5) {
        return SmpSimulator::Command::Reset;
    }
    return SmpSimulator::Command::ParameterQuery;
}

WirePacket reply(const WirePacket& request, const json& map)
{
    WirePacket response;
    response.op = static_cast<uint8_t>(request.op + 1);
    response.group = request.group;
    response.seq = request.seq;
    response.id = request.id;
    response.payload = json::to_cbor(map);
    return response;
}

} // namespace

SmpSimulator::SmpSimulator(Config config) : SmpSimulator(std::move(config), -1, {}) {}

SmpSimulator::SmpSimulator(Config config, int master, std::string port)
    : config_(std::move(config)), borrowed_master_(master), borrowed_port_(std::move(port))
{
    wake_fd_ = ::eventfd(0, EFD_CLOEXEC);
    if (wake_fd_ < 0) {
        throw std::runtime_error("eventfd failed");
    }
    try {
        openTerminal();
    } catch (...) {
        ::close(wake_fd_);
        throw;
    }
    thread_ = std::thread([this] { run(); });
}

SmpSimulator::~SmpSimulator()
{
    {
        std::lock_guard lock(mutex_);
        stop_ = true;
    }
    wake();
    thread_.join();
    closeTerminal();
    ::close(wake_fd_);
}

void SmpSimulator::openTerminal()
{
    if (borrowed_master_ >= 0) {
        openBorrowedTerminal();
        return;
    }
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0 ||
        ::fcntl(master, F_SETFL, ::fcntl(master, F_GETFL) | O_NONBLOCK) != 0) {
        throw std::runtime_error("cannot create a pseudo-terminal");
    }
    char name[128];
    if (::ptsname_r(master, name, sizeof name) != 0) {
        throw std::runtime_error("cannot name the pseudo-terminal");
    }
    const int slave = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (slave < 0) {
        throw std::runtime_error("cannot open the pseudo-terminal");
    }
    // Raw from the start: an echo would hand the device its own answers.
    termios settings{};
    ::tcgetattr(slave, &settings);
    ::cfmakeraw(&settings);
    ::tcsetattr(slave, TCSANOW, &settings);
    master_ = master;
    slave_ = slave;
    port_ = name;
    decoder_ = LineDecoder();
}

// A duplicate of the owner's master, so that unplug() can close it; the
// owner is expected to have put the terminal in raw mode.
void SmpSimulator::openBorrowedTerminal()
{
    const int master = ::fcntl(borrowed_master_, F_DUPFD_CLOEXEC, 0);
    if (master < 0 || ::fcntl(master, F_SETFL, ::fcntl(master, F_GETFL) | O_NONBLOCK) != 0) {
        if (master >= 0) {
            ::close(master);
        }
        throw std::runtime_error("cannot use the terminal of " + borrowed_port_);
    }
    char name[128];
    const int slave = ::ptsname_r(master, name, sizeof name) == 0 ? ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC) : -1;
    if (slave < 0) {
        ::close(master);
        throw std::runtime_error("the terminal of " + borrowed_port_ + " is not a pseudo-terminal");
    }
    master_ = master;
    slave_ = slave;
    port_ = borrowed_port_;
    decoder_ = LineDecoder();
}

void SmpSimulator::closeTerminal()
{
    if (master_ >= 0) {
        ::close(master_);
        ::close(slave_);
    }
    master_ = -1;
    slave_ = -1;
}

void SmpSimulator::wake()
{
    const uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wake_fd_, &one, sizeof one);
}

std::string SmpSimulator::port() const
{
    std::lock_guard lock(mutex_);
    return port_;
}

void SmpSimulator::injectFault(Fault fault, Command command, uint32_t at_offset, int rc)
{
    std::lock_guard lock(mutex_);
    faults_.push_back(PlannedFault{fault, command, at_offset, rc});
}

void SmpSimulator::setResponseDelay(std::chrono::milliseconds delay)
{
    std::lock_guard lock(mutex_);
    delay_ = delay;
}

void SmpSimulator::unplug()
{
    std::unique_lock lock(mutex_);
    if (master_ < 0) {
        return;
    }
    unplug_requested_ = true;
    wake();
    changed_.wait(lock, [this] { return master_ < 0; });
}

void SmpSimulator::replug()
{
    std::unique_lock lock(mutex_);
    if (master_ >= 0) {
        return;
    }
    // The server thread does not touch the terminal while it is unplugged.
    openTerminal();
    uploading_.reset();
    wake();
}

bool SmpSimulator::plugged() const
{
    std::lock_guard lock(mutex_);
    return master_ >= 0;
}

std::vector<uint8_t> SmpSimulator::image(uint16_t group, uint32_t number) const
{
    std::lock_guard lock(mutex_);
    const auto it = slots_.find({group, number});
    return it != slots_.end() ? it->second.data : std::vector<uint8_t>{};
}

std::optional<uint32_t> SmpSimulator::address(uint32_t number) const
{
    std::lock_guard lock(mutex_);
    const auto it = slots_.find({0x41, number});
    return it != slots_.end() ? it->second.address : std::nullopt;
}

SmpSimulator::Stats SmpSimulator::stats() const
{
    std::lock_guard lock(mutex_);
    return stats_;
}

bool SmpSimulator::waitForResets(size_t count, std::chrono::milliseconds timeout) const
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return stats_.resets >= count; });
}

void SmpSimulator::run()
{
    std::vector<uint8_t> buffer(4096);
    while (true) {
        int fd = -1;
        {
            std::lock_guard lock(mutex_);
            if (stop_) {
                return;
            }
            if (unplug_requested_) {
                unplug_requested_ = false;
                closeTerminal();
                changed_.notify_all();
            }
            fd = master_;
        }
        pollfd fds[2] = {{wake_fd_, POLLIN, 0}, {fd, POLLIN, 0}};
        if (::poll(fds, fd >= 0 ? 2 : 1, -1) < 0) {
            continue;
        }
        if (fds[0].revents & POLLIN) {
            uint64_t count = 0;
            [[maybe_unused]] const auto drained = ::read(wake_fd_, &count, sizeof count);
            continue;
        }
        if (fd < 0 || (fds[1].revents & (POLLIN | POLLHUP | POLLERR)) == 0) {
            continue;
        }
        const ssize_t count = ::read(fd, buffer.data(), buffer.size());
        if (count <= 0) {
            // No client has the terminal open; wait for one.
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            continue;
        }
        throttle(rx_free_, static_cast<size_t>(count));
        std::vector<WirePacket> requests;
        {
            std::lock_guard lock(mutex_);
            stats_.rxBytes += static_cast<size_t>(count);
            requests = decoder_.feed(std::span<const uint8_t>(buffer.data(), static_cast<size_t>(count)));
            stats_.line = decoder_.stats();
        }
        for (const auto& request : requests) {
            serve(request);
        }
    }
}

// Bytes take 10 bit times each (start, 8 data, stop) on the line; the line
// carries one thing at a time in each direction.
void SmpSimulator::throttle(Clock::time_point& line_free, size_t bytes)
{
    if (config_.baudRate == 0) {
        return;
    }
    const auto wire = std::chrono::nanoseconds(static_cast<int64_t>(bytes) * 10'000'000'000LL / config_.baudRate);
    line_free = std::max(line_free, Clock::now()) + wire;
    std::this_thread::sleep_until(line_free);
}

std::optional<SmpSimulator::PlannedFault> SmpSimulator::takeFault(Command command, uint32_t offset)
{
    for (auto it = faults_.begin(); it != faults_.end(); ++it) {
        if (it->command == command && (command != Command::Upload || offset >= it->atOffset)) {
            auto fault = *it;
            faults_.erase(it);
            return fault;
        }
    }
    return std::nullopt;
}

void SmpSimulator::serve(const WirePacket& request)
{
    std::optional<PlannedFault> fault;
    WirePacket response;
    {
        std::lock_guard lock(mutex_);
        const auto command = classify(request);
        uint32_t offset = 0;
        if (command == Command::Upload) {
            try {
                const auto map = json::from_cbor(request.payload);
                offset = map.at("off").get<uint32_t>();
            } catch (const std::exception&) {
            }
        }
        fault = takeFault(command, offset);
        if (fault && fault->fault == Fault::IgnoreRequest) {
            return;
        }
        if (fault && fault->fault == Fault::Unplug) {
            closeTerminal();
            changed_.notify_all();
            return;
        }
        const bool oversized = (config_.packMax && request.textSize > *config_.packMax) ||
                               (config_.frameMax && request.longestLine > *config_.frameMax);
        if (oversized) {
            // A real device's buffers would have overflowed: it answers nothing.
            ++stats_.oversized;
            return;
        }
        if (command == Command::ParameterQuery && request.group == 2 &&
            (!config_.answerParameterQuery || !config_.frameMax || !config_.packMax)) {
            ++stats_.parameterQueries;
            return;
        }
        response = answer(request, fault);
        changed_.notify_all();
    }
    if (fault && fault->fault == Fault::DropResponse) {
        return;
    }
    send(response, fault);
}

WirePacket SmpSimulator::answer(const WirePacket& request, std::optional<PlannedFault>& fault)
{
    if (fault && fault->fault == Fault::ErrorRc) {
        ++stats_.rejected;
        return reply(request, json{{"rc", fault->rc}});
    }
    const auto command = classify(request);
    const bool write = request.op == 2;
    if (command == Command::Upload && write) {
        return handleUpload(request, fault);
    }
    if (command == Command::Erase && write) {
        ++stats_.erases;
        slots_.erase({1, 0});
        uploading_.reset();
        return reply(request, json{{"rc", 0}});
    }
    if (command == Command::Reset && write) {
        ++stats_.resets;
        uploading_.reset();
        return reply(request, json{{"rc", 0}});
    }
    if (request.group == 2 && request.id == 0 && request.op == 0) {
        ++stats_.parameterQueries;
        try {
            if (json::from_cbor(request.payload).at("name") == "smp_com") {
                return reply(request, json{{"rc", 0},
                                           {"name", "smp_com"},
                                           {"fields", {{"frame_max", *config_.frameMax}, {"pack_max", *config_.packMax}}}});
            }
        } catch (const std::exception&) {
        }
        ++stats_.rejected;
        return reply(request, json{{"rc", kInvalid}});
    }
    ++stats_.rejected;
    return reply(request, json{{"rc", kNotSupported}});
}

WirePacket SmpSimulator::handleUpload(const WirePacket& request, const std::optional<PlannedFault>& fault)
{
    try {
        ordered_json map;
        try {
            map = ordered_json::from_cbor(request.payload);
        } catch (const std::exception&) {
            throw Rejection{kInvalid};
        }
        if (!map.is_object()) {
            throw Rejection{kInvalid};
        }
        checkKeyOrder(map);
        const auto data_it = map.find("data");
        if (data_it == map.end() || !data_it->is_binary()) {
            throw Rejection{kInvalid};
        }
        const auto& data = data_it->get_binary();
        const uint32_t offset = unsignedValue(map, "off");
        const uint32_t number = map.contains("image") ? unsignedValue(map, "image") : 0;
        std::optional<uint32_t> address;
        if (map.contains("addr")) {
            if (request.group != 0x41) {
                throw Rejection{kInvalid};
            }
            address = unsignedValue(map, "addr");
        }
        const SlotKey key{request.group, number};
        if (offset == 0) {
            const uint32_t length = unsignedValue(map, "len");
            const auto sha = map.find("sha");
            if (sha == map.end() || !sha->is_binary() ||
                static_cast<const std::vector<uint8_t>&>(sha->get_binary()) != sha256(data)) {
                throw Rejection{kInvalid};
            }
            if (length > config_.slotSize) {
                throw Rejection{kNoMemory};
            }
            if (data.size() > length) {
                throw Rejection{kInvalid};
            }
            Slot slot;
            slot.length = length;
            slot.address = address;
            slot.data.assign(data.begin(), data.end());
            slots_[key] = std::move(slot);
            uploading_ = key;
            upload_offset_ = static_cast<uint32_t>(data.size());
        } else {
            if (map.contains("len") || map.contains("sha")) {
                throw Rejection{kInvalid};
            }
            if (!uploading_ || *uploading_ != key) {
                throw Rejection{kBadState};
            }
            auto& slot = slots_[key];
            if (offset != upload_offset_) {
                // A repeated chunk: say where the upload stands, as devices do.
                ++stats_.repeatedChunks;
            } else {
                if (slot.data.size() + data.size() > slot.length) {
                    throw Rejection{kInvalid};
                }
                slot.data.insert(slot.data.end(), data.begin(), data.end());
                upload_offset_ += static_cast<uint32_t>(data.size());
            }
        }
        ++stats_.uploads;
        const bool wrong = fault && fault->fault == Fault::WrongOffset;
        return reply(request, json{{"rc", 0}, {"off", upload_offset_ + (wrong ? 1u : 0u)}});
    } catch (const Rejection& rejection) {
        ++stats_.rejected;
        return reply(request, json{{"rc", rejection.rc}});
    }
}

void SmpSimulator::send(const WirePacket& response, const std::optional<PlannedFault>& fault)
{
    std::chrono::milliseconds delay{0};
    size_t line_max = config_.frameMax.value_or(static_cast<uint32_t>(config_.responseLineMax));
    {
        std::lock_guard lock(mutex_);
        delay = delay_;
    }
    if (delay.count() > 0) {
        std::this_thread::sleep_for(delay);
    }
    auto wire = encodeLines(response, line_max, fault && fault->fault == Fault::BadCrcResponse);
    if (fault && fault->fault == Fault::CorruptResponse) {
        wire[wire.size() / 2] = '*';
    }
    throttle(tx_free_, wire.size());
    std::lock_guard lock(mutex_);
    size_t done = 0;
    while (master_ >= 0 && done < wire.size()) {
        const ssize_t n = ::write(master_, wire.data() + done, wire.size() - done);
        if (n <= 0) {
            if (errno == EINTR) {
                continue;
            }
            // Nobody reads the terminal: the rest is lost, as on a real line.
            break;
        }
        done += static_cast<size_t>(n);
    }
    stats_.txBytes += done;
}

} // namespace HALYX::SIM
