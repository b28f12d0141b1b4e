// The search in the watched ranges: every packet asks it twice, so it is written for speed.
#include <algorithm>
#include <cstring>

#include "kp/config/config.h"
#include "platform/platform.h"

namespace {

using IPRange = KP_Config::IPRange;

bool anyContains(const IPRange* ranges, int count, std::uint32_t address) {
    for (int i = 0; i < count; ++i) {
        if (ranges[i].min <= address && address <= ranges[i].max) {
            return true;
        }
    }
    return false;
}

#if defined(KP_WITH_AVX2)

using Numbers = std::int32_t __attribute__((vector_size(32)));
using Pairs = std::int64_t __attribute__((vector_size(32)));

// Four ranges at a time. There is only a signed comparison: inverting the sign bit of both sides
// turns it into the unsigned one, and inverting the other 31 bits as well into its mirror. So one
// comparison finds both what lies below a min and what lies above a max, and a range contains the
// address when neither half of its pair is set. Misses, the usual case, cost no branch on the way.
KP_TARGET_AVX2 bool anyContainsAvx2(const IPRange* ranges, int count, std::uint32_t address) {
    constexpr std::int32_t below = INT32_MIN;
    constexpr std::int32_t above = INT32_MAX;
    const Numbers turn = {below, above, below, above, below, above, below, above};
    const auto number = static_cast<std::int32_t>(address);
    const Numbers wanted =
        Numbers{number, number, number, number, number, number, number, number} ^ turn;
    Pairs inside = {};
    int i = 0;
    for (; i + 4 <= count; i += 4) {
        Numbers bounds;
        std::memcpy(&bounds, ranges + i, sizeof bounds);
        const Numbers outside = (bounds ^ turn) > wanted;
        Pairs pairs;
        std::memcpy(&pairs, &outside, sizeof pairs);
        inside |= pairs == 0;
    }
    return (inside[0] | inside[1] | inside[2] | inside[3]) != 0 ||
           anyContains(ranges + i, count - i, address);
}

#endif

}  // namespace

int KP_Config::isInIPRanges(unsigned long address) {
    const auto wanted = static_cast<std::uint32_t>(address);
    const int count = std::min<int>(numOfIPRanges, kMaxIPRanges);
#if defined(KP_WITH_AVX2)
    if (kp::platform::hasAvx2()) {
        return anyContainsAvx2(ipRanges, count, wanted) ? 1 : 0;
    }
#endif
    return anyContains(ipRanges, count, wanted) ? 1 : 0;
}
