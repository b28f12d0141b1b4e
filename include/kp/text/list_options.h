// libkp: what a list keeps beside its links.
#pragma once

#include <cstdlib>

namespace kp::detail {

/// The options of a list.
class ListOptions {
public:
    enum : unsigned char { kOwner = 1, kRecycle = 2, kDraining = 4, kSelfLinked = 8, kSorted = 32 };

    void set(unsigned char bits) { bits_ = static_cast<unsigned char>(bits_ | bits); }
    void clear(unsigned char bits) { bits_ = static_cast<unsigned char>(bits_ & ~bits); }
    bool has(unsigned char bits) const { return (bits_ & bits) != 0; }
    bool hasNone(unsigned char bits) const { return (bits_ & bits) == 0; }

private:
    unsigned char bits_ = 0;
};

/// Ends what std::malloc() gave.
struct FreeMemory {
    void operator()(void* memory) const { std::free(memory); }
};

}  // namespace kp::detail
