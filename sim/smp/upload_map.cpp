#include "upload_map.hpp"

#include <string_view>

namespace HALYX::SIM {
namespace {

constexpr uint8_t kBreak = 0xFF;
constexpr int kMaxDepth = 16; // nesting in skipped values; the device's is smaller still

struct Head {
    uint8_t major = 0;
    uint8_t info = 0;
    uint64_t argument = 0;
    bool indefinite = false;
};

class Reader {
public:
    explicit Reader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

    bool atBreak() const { return pos_ < bytes_.size() && bytes_[pos_] == kBreak; }
    void skipBreak() { ++pos_; }

    std::optional<Head> head()
    {
        if (pos_ >= bytes_.size()) {
            return std::nullopt;
        }
        Head h;
        const uint8_t initial = bytes_[pos_++];
        h.major = static_cast<uint8_t>(initial >> 5);
        h.info = static_cast<uint8_t>(initial & 0x1F);
        if (h.info < 24) {
            h.argument = h.info;
        } else if (h.info <= 27) {
            const size_t width = size_t{1} << (h.info - 24);
            if (bytes_.size() - pos_ < width) {
                return std::nullopt;
            }
            for (size_t i = 0; i < width; ++i) {
                h.argument = (h.argument << 8) | bytes_[pos_++];
            }
        } else if (h.info == 31 && h.major >= 2 && h.major <= 5) {
            h.indefinite = true;
        } else {
            return std::nullopt; // reserved, or a break where an item belongs
        }
        return h;
    }

    std::optional<std::span<const uint8_t>> take(uint64_t count)
    {
        if (bytes_.size() - pos_ < count) {
            return std::nullopt;
        }
        const auto piece = bytes_.subspan(pos_, static_cast<size_t>(count));
        pos_ += static_cast<size_t>(count);
        return piece;
    }

    bool skip(int depth = 0)
    {
        if (depth > kMaxDepth) {
            return false;
        }
        const auto h = head();
        if (!h) {
            return false;
        }
        switch (h->major) {
        case 0:
        case 1:
        case 7:
            return true;
        case 2:
        case 3:
            if (!h->indefinite) {
                return take(h->argument).has_value();
            }
            while (!atBreak()) {
                const auto chunk = head();
                if (!chunk || chunk->major != h->major || chunk->indefinite || !take(chunk->argument)) {
                    return false;
                }
            }
            skipBreak();
            return true;
        case 4:
        case 5: {
            const uint64_t per_entry = h->major == 5 ? 2 : 1;
            if (h->indefinite) {
                while (!atBreak()) {
                    for (uint64_t i = 0; i < per_entry; ++i) {
                        if (!skip(depth + 1)) {
                            return false;
                        }
                    }
                }
                skipBreak();
                return true;
            }
            for (uint64_t i = 0; i < h->argument * per_entry; ++i) {
                if (!skip(depth + 1)) {
                    return false;
                }
            }
            return true;
        }
        case 6:
            return skip(depth + 1);
        default:
            return false;
        }
    }

private:
    std::span<const uint8_t> bytes_;
    size_t pos_ = 0;
};

std::optional<uint32_t> readUint32(Reader& reader)
{
    const auto h = reader.head();
    if (!h || h->major != 0 || h->argument > UINT32_MAX) {
        return std::nullopt;
    }
    return static_cast<uint32_t>(h->argument);
}

} // namespace

std::optional<UploadFields> readUploadMap(std::span<const uint8_t> payload)
{
    Reader reader(payload);
    const auto map = reader.head();
    if (!map || map->major != 5) {
        return std::nullopt;
    }
    UploadFields fields;
    for (uint64_t entry = 0; map->indefinite ? !reader.atBreak() : entry < map->argument; ++entry) {
        const auto key_head = reader.head();
        if (!key_head || key_head->major != 3 || key_head->indefinite) {
            return std::nullopt; // a key that is not a plain text string ends the map early
        }
        const auto key_bytes = reader.take(key_head->argument);
        if (!key_bytes) {
            return std::nullopt;
        }
        const std::string_view key(reinterpret_cast<const char*>(key_bytes->data()), key_bytes->size());
        auto read_number = [&](std::optional<uint32_t>& into) {
            if (into) {
                return false; // the same key twice
            }
            into = readUint32(reader);
            return into.has_value();
        };
        bool ok = true;
        if (key == "image") {
            ok = read_number(fields.image);
        } else if (key == "len") {
            ok = read_number(fields.length);
        } else if (key == "off") {
            ok = read_number(fields.offset);
        } else if (key == "data") {
            const auto h = reader.head();
            const auto bytes =
                h && h->major == 2 && !h->indefinite && !fields.data ? reader.take(h->argument) : std::nullopt;
            ok = bytes.has_value();
            if (ok) {
                fields.data.emplace(bytes->begin(), bytes->end());
            }
        } else {
            ok = reader.skip();
        }
        if (!ok) {
            return std::nullopt;
        }
    }
    return fields;
}

} // namespace HALYX::SIM
