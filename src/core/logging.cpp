#include "core/logging.hpp"

namespace HALYX::Log {
namespace {

struct Slot {
    std::shared_ptr<Sink> sink;
    std::shared_ptr<spdlog::logger> logger;
};

Slot* makeSlot()
{
    auto* slot = new Slot;
    slot->sink = std::make_shared<Sink>();
    slot->logger = std::make_shared<spdlog::logger>("halyx", slot->sink);
    slot->logger->set_level(spdlog::level::off);
    slot->logger->flush_on(spdlog::level::off);
    return slot;
}

Slot* slot() noexcept
{
    // Never destroyed: threads of contexts the application did not release
    // may still log while the process exits.
    static Slot* instance = [] {
        try {
            return makeSlot();
        } catch (...) {
            return static_cast<Slot*>(nullptr);
        }
    }();
    return instance;
}

} // namespace

std::shared_ptr<spdlog::logger> logger() noexcept
{
    auto* s = slot();
    return s != nullptr ? s->logger : nullptr;
}

std::shared_ptr<Sink> sink() noexcept
{
    auto* s = slot();
    return s != nullptr ? s->sink : nullptr;
}

void exception(spdlog::level::level_enum level, const HALYXException& e, std::string_view prefix) noexcept
{
    log(level, "{} HALYXException({}): {}", prefix, static_cast<uint32_t>(e.code()), e.what());
}

void exception(spdlog::level::level_enum level, const std::exception& e, std::string_view prefix) noexcept
{
    log(level, "{} Exception: {}", prefix, e.what());
}

ScopeTimer::ScopeTimer(std::string_view name) noexcept : name_(name), start_(std::chrono::steady_clock::now())
{
    trace("[->] {}", name_);
}

ScopeTimer::~ScopeTimer()
{
    const auto took =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start_).count();
    trace("[<-] {} [took {}ms]", name_, took);
}

} // namespace HALYX::Log
