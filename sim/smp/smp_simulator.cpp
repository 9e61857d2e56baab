#include "smp_simulator.hpp"

#include <algorithm>
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

#include "upload_map.hpp"

namespace HALYX::SIM {
namespace {

using nlohmann::json;
using nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

// SMP management error codes a device answers with.
constexpr int kNoMemory = 2;
constexpr int kInvalid = 3;
constexpr int kNoEntry = 5;
constexpr int kBadState = 6;
constexpr int kNotSupported = 8;

// Groups and commands a boot loader in serial recovery knows.
constexpr uint16_t kDefaultGroup = 0;
constexpr uint16_t kImageGroup = 1;
constexpr uint16_t kStatisticsGroup = 2;
constexpr uint16_t kModemGroup = 0x41;
constexpr uint8_t kConsoleEchoControl = 1;
constexpr uint8_t kReset = 5;
constexpr uint8_t kMcumgrParameters = 6;
constexpr uint8_t kImageUpload = 1;
constexpr uint8_t kImageErase = 5;
constexpr uint8_t kErasedByte = 0xFF;

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
    if ((p.group == kImageGroup || p.group == kModemGroup) && p.id == kImageUpload) {
        return SmpSimulator::Command::Upload;
    }
    if (p.group == kImageGroup && p.id == kImageErase) {
        return SmpSimulator::Command::Erase;
    }
    if (p.group == kDefaultGroup && p.id == kReset) {
        return SmpSimulator::Command::Reset;
    }
    return SmpSimulator::Command::ParameterQuery;
}

// The request's header with op + 1 and no flags, as the boot loader answers.
WirePacket reply(const WirePacket& request, const ordered_json& map, bool indefinite)
{
    WirePacket response;
    response.op = static_cast<uint8_t>(request.op + 1);
    response.group = request.group;
    response.seq = request.seq;
    response.id = request.id;
    response.payload = ordered_json::to_cbor(map);
    // The answers are flat maps of fewer than 24 entries: the head is one byte.
    if (indefinite && !response.payload.empty() && (response.payload[0] & 0xE0) == 0xA0 &&
        (response.payload[0] & 0x1F) < 24) {
        response.payload[0] = 0xBF;
        response.payload.push_back(0xFF);
    }
    return response;
}

} // namespace

SmpSimulator::Config SmpSimulator::Config::mcuboot()
{
    Config config;
    config.pageEraseTime = std::chrono::milliseconds(45);
    return config;
}

SmpSimulator::Config SmpSimulator::Config::permissive()
{
    Config config;
    config.lineMax = 500;
    config.receiveBufferSize = 65535;
    config.perLineDecoding = false;
    config.answerStatistics = true;
    config.eraseCommand = true;
    config.writeBlockSize = 1;
    config.slotSize = 4 * 1024 * 1024;
    config.rebootOnReset = false;
    config.responseLineMax = 128;
    config.imageCount = 0;
    config.indefiniteMaps = false;
    config.permissiveUpload = true;
    return config;
}

SmpSimulator::SmpSimulator(Config config) : SmpSimulator(std::move(config), -1, {})
{
}

SmpSimulator::SmpSimulator(Config config, int master, std::string port)
    : config_(std::move(config)), borrowed_master_(master), borrowed_port_(std::move(port))
{
    if (config_.lineMax < 3 || config_.responseLineMax < 4 || config_.receiveBufferSize == 0 ||
        config_.writeBlockSize == 0 || config_.pageSize == 0) {
        throw std::invalid_argument("SMP simulator: line limits of at least 3 (requests) and 4 (answers), and a "
                                    "receive buffer, write block and page of at least one byte");
    }
    decoder_ = LineDecoder(decoderLimits());
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
        changed_.notify_all();
    }
    wake();
    thread_.join();
    closeTerminal();
    ::close(wake_fd_);
}

DecoderLimits SmpSimulator::decoderLimits() const
{
    return DecoderLimits{config_.perLineDecoding, config_.lineMax, config_.receiveBufferSize};
}

void SmpSimulator::openTerminal()
{
    if (borrowed_master_ >= 0) {
        openBorrowedTerminal();
        return;
    }
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    char name[128];
    const bool ready = master >= 0 && ::grantpt(master) == 0 && ::unlockpt(master) == 0 &&
                       ::fcntl(master, F_SETFL, ::fcntl(master, F_GETFL) | O_NONBLOCK) == 0 &&
                       ::ptsname_r(master, name, sizeof name) == 0;
    const int slave = ready ? ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC) : -1;
    if (slave < 0) {
        if (master >= 0) {
            ::close(master);
        }
        throw std::runtime_error("cannot create a pseudo-terminal");
    }
    // Raw from the start: an echo would hand the device its own answers.
    termios settings{};
    ::tcgetattr(slave, &settings);
    ::cfmakeraw(&settings);
    ::tcsetattr(slave, TCSANOW, &settings);
    master_ = master;
    slave_ = slave;
    port_ = name;
    decoder_ = LineDecoder(decoderLimits());
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
    decoder_ = LineDecoder(decoderLimits());
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
    Lock lock(mutex_);
    if (master_ < 0) {
        stay_away_ = rebooting_;
        return;
    }
    unplug_requested_ = true;
    changed_.notify_all(); // ends an erase or the wait before a reboot
    wake();
    changed_.wait(lock, [this] { return master_ < 0; });
}

void SmpSimulator::replug()
{
    std::lock_guard lock(mutex_);
    stay_away_ = false;
    if (master_ >= 0 || rebooting_) {
        return; // a reboot brings it back by itself
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

void SmpSimulator::setRebootHandler(RebootHandler handler)
{
    std::lock_guard lock(mutex_);
    reboot_handler_ = std::move(handler);
}

void SmpSimulator::attach(int master, std::string port)
{
    std::lock_guard lock(mutex_);
    closeTerminal();
    borrowed_master_ = master;
    borrowed_port_ = std::move(port);
    rebooting_ = false;
    if (!stay_away_) {
        openBorrowedTerminal();
    }
    changed_.notify_all();
    wake();
}

std::vector<uint8_t> SmpSimulator::image(uint16_t group, uint32_t number) const
{
    std::lock_guard lock(mutex_);
    const auto it = slots_.find({group, number});
    if (it == slots_.end()) {
        return {};
    }
    const auto& data = it->second.data;
    return {data.begin(), data.begin() + static_cast<std::ptrdiff_t>(std::min(it->second.stored, data.size()))};
}

std::vector<uint8_t> SmpSimulator::flash(uint32_t number) const
{
    std::lock_guard lock(mutex_);
    const auto it = slots_.find({kImageGroup, number});
    return it != slots_.end() ? it->second.data : std::vector<uint8_t>{};
}

std::optional<uint32_t> SmpSimulator::address(uint32_t number) const
{
    std::lock_guard lock(mutex_);
    const auto it = slots_.find({kModemGroup, number});
    return it != slots_.end() ? it->second.address : std::nullopt;
}

SmpSimulator::Stats SmpSimulator::stats() const
{
    std::lock_guard lock(mutex_);
    return stats_;
}

bool SmpSimulator::waitForResets(size_t count, std::chrono::milliseconds timeout) const
{
    Lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return stats_.resets >= count; });
}

bool SmpSimulator::waitForReboots(size_t count, std::chrono::milliseconds timeout) const
{
    Lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return stats_.reboots >= count && !rebooting_ && master_ >= 0; });
}

bool SmpSimulator::waitForSlotErases(size_t count, std::chrono::milliseconds timeout) const
{
    Lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return stats_.slotErasesStarted >= count; });
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
            if (master_ != fd) {
                continue; // unplugged while the bytes were on the line
            }
            stats_.rxBytes += static_cast<size_t>(count);
            requests = decoder_.feed(std::span<const uint8_t>(buffer.data(), static_cast<size_t>(count)));
            stats_.line = decoder_.stats();
        }
        for (const auto& request : requests) {
            if (!serve(request)) {
                break; // it went away: what else came with these bytes is lost
            }
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

// Packets beyond the permissive limits: a real device's buffers would have
// overflowed, so it answers nothing.
bool SmpSimulator::oversized(const WirePacket& request) const
{
    const size_t line_limit = config_.frameMax.value_or(static_cast<uint32_t>(config_.lineMax));
    const size_t decoded = 2 + 8 + request.payload.size() + 2;
    return request.longestLine > line_limit || (config_.packMax && request.textSize > *config_.packMax) ||
           decoded > config_.receiveBufferSize;
}

// Returns false when the device went away (unplugged or rebooting).
bool SmpSimulator::serve(const WirePacket& request)
{
    std::optional<PlannedFault> fault;
    std::optional<WirePacket> response;
    bool reboot_after = false;
    {
        Lock lock(mutex_);
        const auto command = classify(request);
        uint32_t offset = 0;
        if (command == Command::Upload) {
            if (const auto fields = readUploadMap(request.payload); fields && fields->offset) {
                offset = *fields->offset;
            }
        }
        fault = takeFault(command, offset);
        if (fault && fault->fault == Fault::IgnoreRequest) {
            return true;
        }
        if (fault && fault->fault == Fault::Unplug) {
            closeTerminal();
            changed_.notify_all();
            return false;
        }
        if (!config_.perLineDecoding && oversized(request)) {
            ++stats_.oversized;
            return true;
        }
        const bool handled = !(fault && fault->fault == Fault::ErrorRc);
        response = answer(request, fault, lock);
        changed_.notify_all();
        if (interrupted()) {
            return false;
        }
        reboot_after = handled && command == Command::Reset && config_.rebootOnReset;
    }
    if (response && !(fault && fault->fault == Fault::DropResponse)) {
        send(*response, fault);
    }
    if (reboot_after) {
        reboot();
        return false;
    }
    return true;
}

std::optional<WirePacket> SmpSimulator::answer(const WirePacket& request, std::optional<PlannedFault>& fault,
                                               Lock& lock)
{
    const bool indefinite = config_.indefiniteMaps;
    auto rc = [&](int code) {
        if (code != 0) {
            ++stats_.rejected;
        }
        return reply(request, ordered_json{{"rc", code}}, indefinite);
    };
    if (fault && fault->fault == Fault::ErrorRc) {
        return rc(fault->rc);
    }
    // The boot loader looks at group and id only; a read or a write does the same.
    if (request.group == kDefaultGroup) {
        switch (request.id) {
        case kConsoleEchoControl:
            return rc(0);
        case kReset:
            ++stats_.resets;
            uploading_.reset();
            return rc(0);
        case kMcumgrParameters:
            ++stats_.parameterQueries;
            if (config_.answerParameters) {
                return reply(request, ordered_json{{"buf_size", config_.receiveBufferSize}, {"buf_count", 1}},
                             indefinite);
            }
            return rc(kNotSupported);
        default:
            return rc(kNotSupported);
        }
    }
    if (request.group == kImageGroup && request.id == kImageUpload) {
        return upload(request, fault, lock);
    }
    if (request.group == kImageGroup && request.id == kImageErase && config_.eraseCommand) {
        if (!eraseSlot(slots_[{kImageGroup, 0}], lock)) {
            return std::nullopt;
        }
        ++stats_.erases;
        ram_ = {};
        uploading_.reset();
        return rc(0);
    }
    if (request.group == kModemGroup && request.id == kImageUpload && config_.permissiveUpload) {
        return permissiveUpload(request, fault);
    }
    if (request.group == kStatisticsGroup) {
        ++stats_.parameterQueries;
        return statistics(request);
    }
    return rc(kNotSupported);
}

// The communication-parameter query of the statistics group ("smp_com").
// A stock boot loader has no statistics group.
std::optional<WirePacket> SmpSimulator::statistics(const WirePacket& request)
{
    const bool indefinite = config_.indefiniteMaps;
    auto rc = [&](int code) {
        ++stats_.rejected;
        return reply(request, ordered_json{{"rc", code}}, indefinite);
    };
    if (!config_.answerStatistics || request.id != 0 || request.op != 0) {
        return rc(kNotSupported);
    }
    if (!config_.frameMax || !config_.packMax) {
        return std::nullopt; // the forgiving device without limits to tell stays silent
    }
    try {
        if (json::from_cbor(request.payload).at("name") == "smp_com") {
            return reply(request,
                         ordered_json{{"rc", 0},
                                      {"name", "smp_com"},
                                      {"fields", {{"frame_max", *config_.frameMax}, {"pack_max", *config_.packMax}}}},
                         indefinite);
        }
    } catch (const std::exception&) {
    }
    return rc(kInvalid);
}

// An image chunk as the boot loader takes it. Its state (image, length,
// offset) lives in RAM; a chunk at offset 0 restarts the upload and erases
// the whole slot before it is answered.
std::optional<WirePacket> SmpSimulator::upload(const WirePacket& request, const std::optional<PlannedFault>& fault,
                                               Lock& lock)
{
    if (config_.permissiveUpload) {
        return permissiveUpload(request, fault);
    }
    auto rc = [&](int code) {
        ++stats_.rejected;
        return reply(request, ordered_json{{"rc", code}}, config_.indefiniteMaps);
    };
    auto at = [&](size_t offset) {
        ++stats_.uploads;
        const bool wrong = fault && fault->fault == Fault::WrongOffset;
        return reply(request, ordered_json{{"rc", 0}, {"off", offset + (wrong ? 1 : 0)}}, config_.indefiniteMaps);
    };
    const auto fields = readUploadMap(request.payload);
    if (!fields || !fields->offset || !fields->data) {
        return rc(kInvalid);
    }
    const size_t offset = *fields->offset;
    const auto& data = *fields->data;
    if (offset == 0) {
        ram_.image = fields->image.value_or(0); // later chunks' "image" is not read
    }
    if (config_.imageCount != 0 && ram_.image >= config_.imageCount) {
        return rc(ram_.image > config_.imageCount ? kNoEntry : kInvalid);
    }
    auto& slot = slots_[{kImageGroup, ram_.image}];
    if (offset == 0) {
        ram_.offset = 0;
        if (!fields->length || *fields->length > config_.slotSize) {
            return rc(kInvalid);
        }
        // The boot loader would write such a chunk past "len"; refuse it.
        if (data.size() > *fields->length) {
            return rc(kInvalid);
        }
        if (!eraseSlot(slot, lock)) {
            return std::nullopt;
        }
        ram_.length = *fields->length;
        slot.length = ram_.length;
    } else if (offset != ram_.offset) {
        // Say where the upload stands; nothing is written.
        ++stats_.repeatedChunks;
        return at(ram_.offset);
    } else if (ram_.offset + data.size() > ram_.length) {
        return rc(kInvalid);
    }
    // Flash takes whole write blocks: a non-final chunk's partial last block
    // is left for the next chunk, the final one is padded.
    const size_t block = config_.writeBlockSize;
    const size_t tail = data.size() % block;
    const size_t whole = data.size() - tail;
    const bool last = ram_.offset + data.size() >= ram_.length;
    const size_t written = whole + (last ? tail : 0);
    const size_t end = ram_.offset + whole + (last && tail != 0 ? block : 0);
    if (end > slot.data.size()) {
        return rc(kInvalid); // the flash refuses a write past the slot
    }
    for (size_t i = 0; i < end - ram_.offset; ++i) {
        // Programming only clears bits, as on NOR flash.
        slot.data[ram_.offset + i] &= i < written ? data[i] : kErasedByte;
    }
    if (!last && tail != 0) {
        ++stats_.unalignedTails;
    }
    ram_.offset += written;
    slot.stored = ram_.offset;
    return at(ram_.offset);
}

bool SmpSimulator::eraseSlot(Slot& slot, Lock& lock)
{
    ++stats_.slotErasesStarted;
    changed_.notify_all();
    const auto pages = static_cast<int64_t>((config_.slotSize + config_.pageSize - 1) / config_.pageSize);
    const auto until = Clock::now() + pages * config_.pageEraseTime;
    // Busy with the flash: nothing is read from the line meanwhile.
    if (changed_.wait_until(lock, until, [this] { return interrupted(); })) {
        return false;
    }
    if (config_.permissiveUpload) {
        slot.data.clear();
    } else {
        slot.data.assign(config_.slotSize, kErasedByte);
    }
    slot.stored = 0;
    slot.length = 0;
    ++stats_.slotErasesCompleted;
    return true;
}

// The forgiving upload earlier clients were written against: every chunk
// names its image, and the upload must have started at offset 0.
WirePacket SmpSimulator::permissiveUpload(const WirePacket& request, const std::optional<PlannedFault>& fault)
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
            if (request.group != kModemGroup) {
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
            slot.stored = slot.data.size();
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
                slot.stored = slot.data.size();
                upload_offset_ += static_cast<uint32_t>(data.size());
            }
        }
        ++stats_.uploads;
        const bool wrong = fault && fault->fault == Fault::WrongOffset;
        return reply(request, ordered_json{{"rc", 0}, {"off", upload_offset_ + (wrong ? 1u : 0u)}},
                     config_.indefiniteMaps);
    } catch (const Rejection& rejection) {
        ++stats_.rejected;
        return reply(request, ordered_json{{"rc", rejection.rc}}, config_.indefiniteMaps);
    }
}

void SmpSimulator::send(const WirePacket& response, const std::optional<PlannedFault>& fault)
{
    std::chrono::milliseconds delay{0};
    const size_t line_max = std::min<size_t>(config_.responseLineMax, config_.frameMax.value_or(UINT32_MAX));
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

// The boot loader waits a moment after answering a reset, then restarts:
// its USB device and port vanish, RAM is lost, flash is kept. A terminal of
// its own comes back by itself; a borrowed one through the reboot handler's
// owner, who calls attach().
void SmpSimulator::reboot()
{
    Lock lock(mutex_);
    if (changed_.wait_for(lock, config_.rebootDelay, [this] { return interrupted(); })) {
        return;
    }
    closeTerminal();
    ram_ = {};
    uploading_.reset();
    decoder_ = LineDecoder(decoderLimits());
    rebooting_ = true;
    ++stats_.reboots;
    changed_.notify_all();
    if (borrowed_master_ >= 0 && reboot_handler_) {
        const auto handler = reboot_handler_;
        lock.unlock();
        handler(config_.rebootTime);
        return;
    }
    if (changed_.wait_for(lock, config_.rebootTime, [this] { return stop_; })) {
        return;
    }
    rebooting_ = false;
    if (!stay_away_) {
        try {
            openTerminal();
        } catch (const std::exception&) {
            // No terminal to be had: it stays away, as if unplugged.
        }
    }
    changed_.notify_all();
}

} // namespace HALYX::SIM
