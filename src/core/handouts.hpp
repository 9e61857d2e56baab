#pragma once

#include <memory>
#include <mutex>
#include <unordered_map>

namespace HALYX {

// What the library handed to the application by pointer (documents, version
// lists), kept until the application frees it. A pointer the library did not
// hand out is refused rather than freed, and whatever the application never
// freed goes with the context.
template <typename Owned, typename Exposed>
class Handouts {
public:
    Exposed* add(std::unique_ptr<Owned> owned, Exposed* exposed)
    {
        std::lock_guard lock(mutex_);
        items_.emplace(exposed, std::move(owned));
        return exposed;
    }

    // False when the pointer is not one of ours (or was freed already).
    bool release(const Exposed* exposed)
    {
        std::unique_ptr<Owned> released;
        std::lock_guard lock(mutex_);
        const auto it = items_.find(exposed);
        if (it == items_.end()) {
            return false;
        }
        released = std::move(it->second);
        items_.erase(it);
        return true;
    }

private:
    std::mutex mutex_;
    std::unordered_map<const Exposed*, std::unique_ptr<Owned>> items_;
};

} // namespace HALYX
