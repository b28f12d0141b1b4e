// The search for a byte pattern that texts, tools and byte streams share.
#pragma once

#include <cstddef>

namespace kp::detail {

/// The first place in @p text where @p pattern stands, or null; lengths are in bytes.
/// An empty pattern stands at the start. Reads nothing beyond the two lengths and allocates
/// nothing. Ordinary data runs at the speed of a memory scan, and no data takes more time than the
/// two lengths added.
const char* findBytes(const char* text, std::size_t textLength, const char* pattern,
                      std::size_t patternLength);

}  // namespace kp::detail
