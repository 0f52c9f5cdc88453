#include "hba/luid.h"

#include <algorithm>
#include <cstring>

namespace mv {

namespace {

constexpr std::size_t kHeader = 6;      // bytes before the first designator
constexpr std::size_t kMinDesignator = 5;

struct Designator {
    const uint8_t* at;
    std::size_t total;  // length byte + 4
};

// True when `cand` beats `best` by the ranking above.
bool better(const Designator& cand, const Designator& best) {
    const uint8_t cand_type = cand.at[1] & 0x0F;
    const uint8_t best_type = best.at[1] & 0x0F;
    if (cand_type != best_type) return cand_type > best_type;
    if (cand.at[3] != best.at[3]) return cand.at[3] < best.at[3];
    // Equal length bytes: equal totals, so both identifiers have at[3] bytes.
    return std::memcmp(cand.at + 4, best.at + 4, cand.at[3]) < 0;
}

}  // namespace

bool choose_luid(const uint8_t* page, std::size_t length, uint8_t (&luid)[kLuidSize]) {
    if (length < kHeader || page[1] != 0x83) return false;

    // The page's own length is a 32-bit big-endian value at byte 2 (reaching
    // into the first designator's header), trusted no further than the bytes
    // that came back after the 6-byte head.
    const std::size_t rest = length - kHeader;
    const uint32_t announced = (uint32_t{page[2]} << 24) | (uint32_t{page[3]} << 16) | (uint32_t{page[4]} << 8) |
                               uint32_t{page[5]};
    std::size_t remaining = std::min<std::size_t>(announced, rest);

    const uint8_t* at = page + kHeader;
    bool found = false;
    Designator best{nullptr, 0};
    while (remaining >= kMinDesignator) {
        const Designator cand{at, std::size_t{at[3]} + 4};
        if (cand.total > remaining) break;
        if (!found || better(cand, best)) best = cand;
        found = true;
        at += cand.total;
        remaining -= cand.total;
    }

    uint8_t out[kLuidSize] = {};
    if (found && best.total <= kLuidSize) std::memcpy(out, best.at, best.total);
    std::memcpy(luid, out, kLuidSize);
    return true;
}

}  // namespace mv
