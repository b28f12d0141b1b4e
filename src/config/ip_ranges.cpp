// The search in the watched ranges, a file of its own because it is compiled for speed.
#include <algorithm>

#include "kp/config/config.h"

int KP_Config::isInIPRanges(unsigned long address) {
    const auto wanted = static_cast<std::uint32_t>(address);
    const int ranges = std::min<int>(numOfIPRanges, kMaxIPRanges);
    for (int i = 0; i < ranges; ++i) {
        if (ipRanges[i].min <= wanted && wanted <= ipRanges[i].max) {
            return 1;
        }
    }
    return 0;
}
