// A scan for places where three bytes of the pattern fit, sixteen at a time, with
// a search in linear time to turn to when too many of these places disappoint.
#include "core/byte_search.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "kp/export.h"

namespace {

constexpr std::size_t kCompareStep = 16;
// What places that disappoint may cost: this many bytes, and some for each byte that was scanned.
// Beyond that the search in linear time is the faster one.
constexpr std::size_t kAllowance = 4096;
constexpr std::size_t kAllowancePerByte = 4;

struct Split {
    std::size_t start;
    std::size_t period;
};

// The greatest suffix of the pattern, bytes in their order or in the reverse one, with its period.
Split greatestSuffix(const unsigned char* pattern, std::size_t length, bool reverse) {
    std::size_t start = 0;
    std::size_t candidate = 1;
    std::size_t matched = 0;
    std::size_t period = 1;
    while (candidate + matched < length) {
        const unsigned char rival = pattern[candidate + matched];
        const unsigned char best = pattern[start + matched];
        if (rival == best) {
            if (++matched == period) {
                candidate += period;
                matched = 0;
            }
        } else if ((rival < best) != reverse) {
            candidate += matched + 1;
            matched = 0;
            period = candidate - start;
        } else {
            start = candidate++;
            matched = 0;
            period = 1;
        }
    }
    return {start, period};
}

// The two-way search of Crochemore and Perrin: the right part of the pattern is compared forwards,
// then the left part backwards, and every mismatch allows a step that is never taken back.
const char* findInLinearTime(const char* text, std::size_t textLength, const char* wanted,
                             std::size_t length) {
    const auto* pattern = reinterpret_cast<const unsigned char*>(wanted);
    const Split forward = greatestSuffix(pattern, length, false);
    const Split backward = greatestSuffix(pattern, length, true);
    const Split split = forward.start > backward.start ? forward : backward;
    const bool periodic = std::memcmp(wanted, wanted + split.period, split.start) == 0;
    const std::size_t step =
        periodic ? split.period : std::max(split.start, length - split.start) + 1;

    std::size_t known = 0;  // so many bytes at the front are known to match from the step before
    for (std::size_t place = 0; place + length <= textLength;) {
        const char* here = text + place;
        std::size_t i = std::max(split.start, known);
        while (i < length && wanted[i] == here[i]) {
            ++i;
        }
        if (i < length) {
            place += i - split.start + 1;
            known = 0;
            continue;
        }
        i = split.start;
        while (i > known && wanted[i - 1] == here[i - 1]) {
            --i;
        }
        if (i <= known) {
            return here;
        }
        place += step;
        known = periodic ? length - split.period : 0;
    }
    return nullptr;
}

// Compares the pattern with the places that the scan proposes, and keeps account of the cost.
class Comparison {
public:
    Comparison(const char* pattern, std::size_t length) : pattern_(pattern), length_(length) {}

    bool matches(const char* place) {
        std::size_t done = 0;
        for (; length_ - done > kCompareStep; done += kCompareStep) {
            wasted_ += kCompareStep;
            if (std::memcmp(place + done, pattern_ + done, kCompareStep) != 0) {
                return false;
            }
        }
        wasted_ += kCompareStep;
        return std::memcmp(place + done, pattern_ + done, length_ - done) == 0;
    }

    bool hasOverspent(std::size_t scanned) const {
        return wasted_ > kAllowance + kAllowancePerByte * scanned;
    }

private:
    const char* pattern_;
    std::size_t length_;
    std::size_t wasted_ = 0;
};

#if defined(KP_VECTOR)

constexpr std::size_t kWidth = 16;
constexpr std::size_t kUnrolled = 4 * kWidth;

using Block = unsigned char KP_VECTOR(16);
using Mask = signed char KP_VECTOR(16);

Block blockAt(const char* bytes) {
    Block block;
    std::memcpy(&block, bytes, sizeof block);
    return block;
}

Block blockOf(char byte) {
    Block block;
    std::memset(&block, static_cast<unsigned char>(byte), sizeof block);
    return block;
}

bool any(Mask mask) {
    std::uint64_t halves[2];
    std::memcpy(halves, &mask, sizeof halves);
    return (halves[0] | halves[1]) != 0;
}

// Proposes sixteen places at once, those where both ends of the pattern and its middle fit: the
// third byte saves most of the comparisons where the ends are frequent ones.
class Scan {
public:
    Scan(const char* pattern, std::size_t length)
        : first_(blockOf(pattern[0])),
          middle_(blockOf(pattern[length / 2])),
          last_(blockOf(pattern[length - 1])),
          toMiddle_(length / 2),
          toLast_(length - 1) {}

    Mask propose(const char* place) const {
        return (blockAt(place) == first_) & (blockAt(place + toLast_) == last_) &
               (blockAt(place + toMiddle_) == middle_);
    }

    // The first of the places from @p place that were proposed and that match, or null.
    const char* firstMatch(const char* place, Mask proposed, Comparison& comparison) const {
        unsigned char hits[kWidth];
        std::memcpy(hits, &proposed, sizeof hits);
        constexpr std::size_t kHalf = kWidth / 2;
        for (std::size_t half = 0; half < kWidth; half += kHalf) {
            std::uint64_t together;
            std::memcpy(&together, hits + half, sizeof together);
            for (std::size_t i = half; together != 0 && i < half + kHalf; ++i) {
                if (hits[i] != 0 && comparison.matches(place + i)) {
                    return place + i;
                }
            }
        }
        return nullptr;
    }

private:
    Block first_;
    Block middle_;
    Block last_;
    std::size_t toMiddle_;
    std::size_t toLast_;
};

// The text has room for sixteen places at least.
const char* scanBlocks(const char* text, std::size_t textLength, const char* pattern,
                       std::size_t patternLength) {
    const std::size_t places = textLength - patternLength + 1;
    const Scan scan(pattern, patternLength);
    Comparison comparison(pattern, patternLength);
    std::size_t i = 0;
    for (; i + kUnrolled <= places; i += kUnrolled) {
        const char* place = text + i;
        const Mask masks[] = {scan.propose(place), scan.propose(place + kWidth),
                              scan.propose(place + 2 * kWidth), scan.propose(place + 3 * kWidth)};
        if (any(masks[0] | masks[1] | masks[2] | masks[3])) {
            for (const Mask& mask : masks) {
                const char* found = any(mask) ? scan.firstMatch(place, mask, comparison) : nullptr;
                if (found != nullptr) {
                    return found;
                }
                place += kWidth;
            }
            if (comparison.hasOverspent(i)) {
                return findInLinearTime(text + i, textLength - i, pattern, patternLength);
            }
        }
    }
    // The last block is moved back to end with the text; what it sees twice does not match.
    for (; i < places; i += kWidth) {
        i = std::min(i, places - kWidth);
        const Mask mask = scan.propose(text + i);
        const char* found = any(mask) ? scan.firstMatch(text + i, mask, comparison) : nullptr;
        if (found != nullptr) {
            return found;
        }
    }
    return nullptr;
}

#endif

// Proposes places one after the other.
const char* scanSingly(const char* text, std::size_t textLength, const char* pattern,
                       std::size_t patternLength) {
    const char last = pattern[patternLength - 1];
    Comparison comparison(pattern, patternLength);
    for (std::size_t i = 0; i + patternLength <= textLength; ++i) {
        const char* place = text + i;
        if (place[0] == pattern[0] && place[patternLength - 1] == last) {
            if (comparison.matches(place)) {
                return place;
            }
            if (comparison.hasOverspent(i)) {
                return findInLinearTime(place, textLength - i, pattern, patternLength);
            }
        }
    }
    return nullptr;
}

}  // namespace

const char* kp::detail::findBytes(const char* text, std::size_t textLength, const char* pattern,
                                  std::size_t patternLength) {
    if (patternLength == 0) {
        return text;
    }
    if (patternLength > textLength) {
        return nullptr;
    }
    if (patternLength == 1) {
        return static_cast<const char*>(std::memchr(text, pattern[0], textLength));
    }
#if defined(KP_VECTOR)
    if (textLength - patternLength + 1 >= kWidth) {
        return scanBlocks(text, textLength, pattern, patternLength);
    }
#endif
    return scanSingly(text, textLength, pattern, patternLength);
}
